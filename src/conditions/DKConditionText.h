// What a condition's storage (DKCondition.cpp) and its text forms (DKConditionText.cpp) share,
// internal to src/conditions: the readers of an operator's and a value's text, the numbers'
// texts, and the tests on a value's text that decide how it is written. Defined in
// DKConditionText.cpp.
#pragma once

#include <DorvikCore/DKCondition.h>

#include <cstdint>

namespace dkcond {

// Whether the text holds what (written in upper case), whatever the case of the text.
bool ContainsNoCase(const DKString& text, const DKChar* what);

// True when the text can stand inside parentheses: its quotes close, and outside them every ")"
// closes an earlier "(" and none stays open.
bool Balanced(const DKString& text) noexcept;

// Writes a line to the console, under the console's lock.
void ConsoleLine(const char* line);

// Digits with at most one decimal point, and at least one digit.
bool IsPlainNumber(const DKString& text) noexcept;

// An optional sign and decimal digits whose value fits 64 bits.
bool ReadExactInt64(const DKString& text, DKInt64& out) noexcept;

// Toward zero, saturating at the 64-bit range (0 for NaN).
DKInt64 TruncateToInt64(double value) noexcept;

// Appends the value's decimal digits, with a '-' when it is negative.
void AppendDecimal(DKString& out, DKInt64 value);

// A date-time text in the default format, or TO_DATE(...) with a format of its own.
bool ReadDateTime(const DKString& text, DKDateTime& out);

// The operator written as text; false (code 0) for anything else.
bool ReadOperator(const DKString& text, std::int32_t& code, bool& isRegEx);

// What AssignSuppliedValueFromStr makes of a value's text, short of compiling a pattern or
// reading a date.
struct ValueReading {
  std::int32_t kind = DKCondition::kindNone;
  DKString text;
  double number = 0.0; // as read, before the zero rule
  DKInt64 integer = 0;
  bool exact = false;
};

// False when the text is no value: empty, a quote not closed, digits that do not convert.
bool ReadValue(bool isRegEx, const DKString& raw, ValueReading& out);

} // namespace dkcond
