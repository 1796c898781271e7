// The members of the automation variant that the date classes read and write (internal). On
// Windows the variant is the system's record, whose header only the platform file sees;
// elsewhere it is the library's stand-in.
#pragma once

#include <DorvikCore/DKSystemRecords.h>

namespace DKVariant {

// The variant's type tag (dk::VT_DATE, dk::VT_R8, dk::VT_NULL, ...).
dk::VARTYPE Type(const dk::VARIANT& variant) noexcept;
// The value of a VT_DATE or VT_R8 variant; 0 for any other type.
double Number(const dk::VARIANT& variant) noexcept;
// Makes the variant a VT_DATE holding date.
void SetDate(dk::VARIANT& variant, double date) noexcept;
// Makes the variant VT_NULL.
void SetNull(dk::VARIANT& variant) noexcept;

} // namespace DKVariant
