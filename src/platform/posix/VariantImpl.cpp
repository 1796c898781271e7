// The automation variant here is the library's own stand-in (DKSystemTime.h).
#include "os/DKVariant.h"

namespace DKVariant {

dk::VARTYPE Type(const dk::VARIANT& variant) noexcept { return variant.vt; }

double Number(const dk::VARIANT& variant) noexcept {
  return variant.vt == dk::VT_DATE ? variant.date : variant.vt == dk::VT_R8 ? variant.dblVal : 0.0;
}

void SetDate(dk::VARIANT& variant, double date) noexcept {
  variant.vt = dk::VT_DATE;
  variant.date = date;
}

void SetNull(dk::VARIANT& variant) noexcept { variant.vt = dk::VT_NULL; }

} // namespace DKVariant
