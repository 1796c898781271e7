// A plug-in built by a project of its own with dorvikcore_add_plugin. Two modules are made from
// this file, differing in CONSUMER_PLUGIN_INDEX only: their classes share a name at global
// scope, and the installed dkhost must initialise and run both.
#include <DorvikCore/DKApplication.h>

#include <cstdint>

class MyPlugIn : public DKRunPlugIn {
public:
  static constexpr DKGuid Id{0xC0C0A000, 0, 0, {0, 0, 0, 0, 0, 0, 0, static_cast<std::uint8_t>(CONSUMER_PLUGIN_INDEX)}};

  DKString GetName() const override { return DK_T("Consumer") + DKString::Number(CONSUMER_PLUGIN_INDEX); }
  PlugInIdEx GetId() const override { return PlugInIdEx(Id, GetName()); }
  DKErrorID Run() override {
    DKApplication::GetAppCout() << GetName() << ": run" << std::endl;
    return DKErrorID();
  }
};

DK_PLUGIN_MODULE(MyPlugIn)
