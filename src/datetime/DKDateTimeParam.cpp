// DKDateTime parameters of DKErrorWithArgs (datetime/DKDateTimeParam.h).
#include "datetime/DKDateTimeParam.h"
#include "errors/DKErrorParamOps.h"

#include <DorvikCore/DKDate.h>
#include <DorvikCore/DKError.h>
#include <DorvikCore/DKMemoryPool.h>

#include <new>

namespace dkdt {

void* NewDateTimeParam(const DKDateTime& value) { return new (DMMemoryPool::New(sizeof(DKDateTime))) DKDateTime(value); }

void* CopyDateTimeParam(const void* value) { return NewDateTimeParam(*static_cast<const DKDateTime*>(value)); }

void DeleteDateTimeParam(void* value) noexcept {
  if (value) {
    static_cast<DKDateTime*>(value)->~DKDateTime();
    DMMemoryPool::Delete(value);
  }
}

void ReadDateTimeParam(const void* value, DKDateTime& out) noexcept { out = *static_cast<const DKDateTime*>(value); }

DKString DateTimeParamText(const void* value, const DKExecContext& context) {
  return static_cast<const DKDateTime*>(value)->AsString(context.GetDateTimeFormat());
}

} // namespace dkdt

// The DKDateTime overloads of DKErrorWithArgs live here, with the class they store.
std::size_t DKErrorWithArgs::AddParam(const DKDateTime& value) {
  static const DKErrorParamOps ops = {dkdt::CopyDateTimeParam, dkdt::DeleteDateTimeParam, dkdt::DateTimeParamText};
  DKInstallDateTimeParamOps(&ops);
  m_params.reserve(m_params.size() + 1); // so the push_back below cannot fail after the copy
  m_params.push_back({ParamDKDateTime, dkdt::NewDateTimeParam(value)});
  return m_params.size() - 1;
}

bool DKErrorWithArgs::GetParam(DKDateTime& out, std::size_t index) const {
  if (index >= m_params.size() || m_params[index].type != ParamDKDateTime)
    return false;
  dkdt::ReadDateTimeParam(m_params[index].value, out);
  return true;
}
