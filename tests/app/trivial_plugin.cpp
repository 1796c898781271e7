// The smallest plug-in, for loading many modules: copies of this module are distinct plug-ins,
// because each loaded copy has its own static data and its address makes the id.
#include <DorvikCore/DKPlugIn.h>

#include <array>
#include <cstdint>

namespace {

class Trivial : public DKRunPlugIn {
public:
  DKString GetName() const override { return DK_T("Trivial"); }
  PlugInIdEx GetId() const override {
    static const char anchor = 0;
    const auto address = reinterpret_cast<std::uintptr_t>(&anchor);
    std::array<std::uint8_t, 8> bytes{};
    for (std::size_t i = 0; i < bytes.size(); ++i)
      bytes[i] = static_cast<std::uint8_t>(address >> (8 * i));
    return PlugInIdEx(DKGuid(0x7E57AB1E, 0xFFFF, 0, bytes), GetName());
  }
  DKErrorID Run() override { return DKErrorID(); }
};

} // namespace

DK_PLUGIN_MODULE(Trivial)
