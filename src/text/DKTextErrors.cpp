#include "text/DKTextErrors.h"

#include <DorvikCore/DKString.h>

#include <atomic>

namespace {

std::atomic<DKTextErrorFactory> g_factory{nullptr};

// The error of a code before the message set is there: "Library message <code>".
class DKPlainCodeError final : public DKErrorI {
public:
  explicit DKPlainCodeError(long code) : DKErrorI(code, SeverityError) {}
  DKErrorID AsString(DKString& out, const DKFormatContext&) const override {
    out = DKStrCat(DK_T("Library message "), GetCode());
    return DKErrorID();
  }
};

} // namespace

void DKSetTextErrorFactory(DKTextErrorFactory factory) noexcept { g_factory.store(factory, std::memory_order_release); }

DKErrorID DKTextError(DKLibraryMessage code, std::initializer_list<long> params) {
  if (const DKTextErrorFactory factory = g_factory.load(std::memory_order_acquire))
    return factory(code, params.begin(), params.size());
  return DKErrorID(DKSmartPtr<DKErrorI>(new DKPlainCodeError(code)));
}
