// hello.osx: the smallest useful plug-in. It runs once on the main thread and is done.
#include <DorvikCore/DKApplication.h>

#include "SampleIds.h"

namespace {

class Hello : public DKRunPlugIn {
public:
  DKString GetName() const override { return DK_T("Hello"); }
  PlugInIdEx GetId() const override { return PlugInIdEx(samples::HelloId, GetName()); }

  DKErrorID Init(const DKApplicationWithPlugIns& app) override {
    m_host = app.GetAppName();
    return DKErrorID();
  }

  DKErrorID Run() override {
    DKApplication::GetAppCout() << "Hello: hello from a plug-in of " << m_host << "!" << std::endl;
    return DKErrorID();
  }

private:
  DKString m_host;
};

} // namespace

DK_PLUGIN_MODULE(Hello)
