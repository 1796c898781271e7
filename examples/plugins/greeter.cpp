// greeter.osx: a plug-in that depends on another. The host initialises and runs Hello first,
// whatever order the modules are listed in, and unloads Greeter before Hello.
#include <DorvikCore/DKApplication.h>

#include "SampleIds.h"

namespace {

class Greeter : public DKRunPlugIn {
public:
  DKString GetName() const override { return DK_T("Greeter"); }
  PlugInIdEx GetId() const override { return PlugInIdEx(samples::GreeterId, GetName()); }
  std::vector<PlugInIdEx> GetDependentV() const override { return {PlugInIdEx(samples::HelloId, DK_T("Hello"))}; }

  DKErrorID Init(const DKApplicationWithPlugIns& app) override {
    // The dependency is loaded and initialised by now: the host checked it.
    m_hello = app.FindPlugIn(samples::HelloId);
    return DKErrorID();
  }

  DKErrorID Run() override {
    DKApplication::GetAppCout() << "Greeter: " << m_hello->GetName() << " has had its turn; greetings to it."
                                << std::endl;
    return DKErrorID();
  }

  void Unload() override { m_hello = nullptr; }

private:
  DKSmartPtr<DKPlugIn> m_hello;
};

} // namespace

DK_PLUGIN_MODULE(Greeter)
