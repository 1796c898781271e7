// Operations every date and time class spells the same way (internal): postfix steps, stream
// insertion and extraction of the default text, and reading an automation variant.
#pragma once

#include <DorvikCore/DKString.h>
#include <DorvikCore/DKSystemTime.h>

#include "datetime/DKDateTimeText.h"
#include "os/DKVariant.h"

#include <istream>
#include <ostream>

namespace dkdt {

template <class T>
T PostIncrement(T& value) {
  const T before = value;
  ++value;
  return before;
}

template <class T>
T PostDecrement(T& value) {
  const T before = value;
  --value;
  return before;
}

// The value's default text, UTF-8.
template <class T>
std::ostream& WriteValue(std::ostream& os, const T& value) {
  return os << value.AsString();
}

// One value read in its default format; failbit for unreadable text.
template <class T>
std::istream& ReadValue(std::istream& is, T& value) {
  DKString text;
  if (ReadStreamText(is, text) && value.FromString(text).Bad())
    is.setstate(std::ios::failbit);
  return is;
}

// VT_NULL and VT_EMPTY make the value null; VT_DATE and VT_R8 are read as automation dates
// (with the zone, for a class that takes one); other types are refused.
template <class T, class... Zone>
bool FromVariantRecord(T& value, const dk::VARIANT& variant, const Zone&... zone) noexcept {
  switch (DKVariant::Type(variant)) {
  case dk::VT_NULL:
  case dk::VT_EMPTY: value.SetNull(); return true;
  case dk::VT_DATE:
  case dk::VT_R8: return value.FromVariant(DKVariant::Number(variant), zone...);
  default: return false;
  }
}

} // namespace dkdt
