#include <DorvikCore/DKDouble.h>

#include "text/DKUtf.h"

#include <charconv>
#include <cmath>

std::atomic<double> DKDouble::thePrecision{1e-06};
std::atomic<bool> DKDouble::zeroValueOnAssign{false};

double DKDouble::Adjust(double value) noexcept {
  if (zeroValueOnAssign.load(std::memory_order_relaxed) && std::fabs(value) < thePrecision.load(std::memory_order_relaxed))
    return 0.0;
  return value;
}

bool DKDouble::IsZero() const noexcept { return std::fabs(m_value) < thePrecision.load(std::memory_order_relaxed); }

bool DKDouble::IsEqual(double other) const noexcept {
  return std::fabs(m_value - other) < thePrecision.load(std::memory_order_relaxed);
}

std::string DKDouble::AsUTF8() const {
  if (std::isnan(m_value))
    return "nan";
  if (std::isinf(m_value))
    return m_value < 0 ? "-inf" : "inf";
  char text[64];
  const auto result = std::to_chars(text, text + sizeof text, m_value);
  return std::string(text, result.ptr);
}

DKString DKDouble::AsString() const {
  const std::string text = AsUTF8();
  DKString out;
  dkutf::Utf8ToUtf16(text.data(), text.size(), out, true);
  return out;
}
