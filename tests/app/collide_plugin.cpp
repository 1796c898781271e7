// Built into several modules that differ only in DK_COLLIDE_INDEX: each holds a class of one
// name and one layout at global scope, as a plug-in author writes it, with an inline static id
// and an inline function's static counter. Loaded together, each module must keep its own: an
// id merged with another module's is refused as a duplicate, a shared counter counts twice.
// With DK_COLLIDE_EXPORTED the class is given default visibility, so that the module's own
// hidden visibility cannot be what keeps them apart.
#include <DorvikCore/DKApplication.h>

#include <cstdint>

#if DK_COLLIDE_EXPORTED
#  define DK_COLLIDE_VISIBILITY __attribute__((visibility("default")))
#else
#  define DK_COLLIDE_VISIBILITY
#endif

class DK_COLLIDE_VISIBILITY MyPlugIn : public DKRunPlugIn {
public:
  static constexpr DKGuid Id{0x7E57C011, 0, 0, {0, 0, 0, 0, 0, 0, 0, static_cast<std::uint8_t>(DK_COLLIDE_INDEX)}};

  DKString GetName() const override { return DK_T("Collide") + DKString::Number(DK_COLLIDE_INDEX); }
  PlugInIdEx GetId() const override { return PlugInIdEx(Id, GetName()); }
  DKErrorID Init(const DKApplicationWithPlugIns&) override {
    ++InitCount();
    return DKErrorID();
  }
  DKErrorID Run() override {
    DKApplication::GetAppCout() << GetName() << ": " << InitCount() << " Init in this module" << std::endl;
    return DKErrorID();
  }

  static int& InitCount() {
    static int count = 0;
    return count;
  }
};

DK_PLUGIN_MODULE(MyPlugIn)
