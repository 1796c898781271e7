// The automation variant here is the system's VARIANT (os/DKVariant.h).
#include "os/DKVariant.h"

#include <oaidl.h>

namespace DKVariant {

dk::VARTYPE Type(const dk::VARIANT& variant) noexcept { return variant.vt; }

double Number(const dk::VARIANT& variant) noexcept {
  return variant.vt == VT_DATE ? variant.date : variant.vt == VT_R8 ? variant.dblVal : 0.0;
}

void SetDate(dk::VARIANT& variant, double date) noexcept {
  variant.vt = VT_DATE;
  variant.date = date;
}

void SetNull(dk::VARIANT& variant) noexcept { variant.vt = VT_NULL; }

} // namespace DKVariant
