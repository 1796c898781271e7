// DKDouble: a double whose tiny values can be flushed to zero library-wide.
#pragma once

#include <DorvikCore/DKString.h>
#include <DorvikCore/DKTypes.h>

#include <atomic>
#include <string>

// A double value. Two class-wide switches, meant to be set once at start-up, decide how
// values are stored: while zeroValueOnAssign is set, a value whose magnitude is below
// thePrecision is stored as 0.0 when it is constructed or assigned (a copy keeps the value
// as it was stored). The wrapper converts to double, so it compares and computes like one.
class DK_EXPORT DKDouble {
public:
  // Magnitude below which a value counts as zero; initially 1e-06.
  static std::atomic<double> thePrecision;
  // When true, values below thePrecision are stored as 0.0; initially false.
  static std::atomic<bool> zeroValueOnAssign;

  // 0.0, or value as Adjust stores it.
  DKDouble() noexcept = default;
  DKDouble(double value) noexcept : m_value(Adjust(value)) {}
  // Stores value as Adjust stores it.
  DKDouble& operator=(double value) noexcept {
    m_value = Adjust(value);
    return *this;
  }

  // The stored value.
  double GetValue() const noexcept { return m_value; }
  operator double() const noexcept { return m_value; }

  // True when the magnitude is below thePrecision (whatever zeroValueOnAssign says).
  bool IsZero() const noexcept;
  // True when the values differ by less than thePrecision.
  bool IsEqual(double other) const noexcept;

  // The shortest decimal text that reads back as the same double ("0.1", "1e-07", "-250",
  // "1e+300"); "nan", "inf" or "-inf" for the special values.
  DKString AsString() const;
  std::string AsUTF8() const;

  // The value that construction or assignment would store for value under the current switches.
  static double Adjust(double value) noexcept;

private:
  double m_value = 0.0;
};
