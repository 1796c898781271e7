// DKDateTime parameters of DKErrorWithArgs (internal). The error code stores a parameter as an
// untyped pointer; these functions own the DKDateTime behind it, so the error layer needs no
// knowledge of the date classes.
#pragma once

#include <DorvikCore/DKString.h>

class DKDateTime;
class DKExecContext;

namespace dkdt {

// A copy of the value from the memory pool.
void* NewDateTimeParam(const DKDateTime& value);
// A copy of a stored parameter.
void* CopyDateTimeParam(const void* value);
// Frees a stored parameter.
void DeleteDateTimeParam(void* value) noexcept;
// Copies a stored parameter out.
void ReadDateTimeParam(const void* value, DKDateTime& out) noexcept;
// The text of a stored parameter: the context's date-time format, or the default format when
// it is empty, in the local zone.
DKString DateTimeParamText(const void* value, const DKExecContext& context);

} // namespace dkdt
