// DKCondition: a counted "field operator value" condition to which further conditions are linked
// with AND and OR, built in code or parsed from text, printed, and evaluated left to right
// through a hook that a derived class supplies.
#pragma once

#include <DorvikCore/DKDate.h>
#include <DorvikCore/DKDouble.h>
#include <DorvikCore/DKError.h>
#include <DorvikCore/DKPointerVector.h>
#include <DorvikCore/DKRefCount.h>
#include <DorvikCore/DKRegEx.h>
#include <DorvikCore/DKString.h>
#include <DorvikCore/DKTypes.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <vector>

// The values a condition is evaluated against. Empty: callers derive from it and OnEvaluate
// casts back to their own type.
class DK_EXPORT DKConditionParams {
public:
  // Nothing to make or copy; the derived class's members are the values.
  DKConditionParams() noexcept = default;
  DKConditionParams(const DKConditionParams&) noexcept = default;
  DKConditionParams& operator=(const DKConditionParams&) noexcept = default;
  virtual ~DKConditionParams();
};

class DKCondition;

// One linked condition: the link kind (0 OR, 1 AND) and the condition.
struct LinkedCond {
  // How the condition is linked to the one before.
  enum LinkKind : std::uint32_t {
    OR = 0,  // Evaluated only while the result so far is false.
    AND = 1, // Evaluated only while the result so far is true.
  };
  std::uint32_t m_linkKind = OR;       // A LinkKind.
  DKSmartPtr<DKCondition> m_condition; // The linked condition, held by a counted reference.
};

// A counted condition: hold it in a DKSmartPtr. Derive from it to evaluate: override OnEvaluate
// (and NewChild, so that parsed and linked children are of the derived class). Not for changing
// from two threads at once; an unchanging condition may be printed, and evaluated when its
// OnEvaluate allows it, on several.
class DK_EXPORT DKCondition : public DKRefCount {
public:
  // Operator codes.
  enum Operator : std::int32_t {
    opNone = 0,           // no comparison (an empty condition or a grouping node)
    opLess = 1,           // "<"
    opLessOrEqual = 2,    // "<="
    opEqual = 3,          // "=", or "%" with a regular expression
    opNotEqual = 4,       // "!=", or "/=" with a regular expression
    opGreaterOrEqual = 5, // ">="
    opGreater = 6,        // ">"
  };
  // Kinds of the supplied value.
  enum ValueKind : std::int32_t {
    kindNone = 0,     // no value
    kindText = 1,     // a DKString, or a quoted value in text
    kindNumber = 2,   // an int, 64-bit integer or double, or an unquoted number in text
    kindDateTime = 3, // a DKDateTime, or a TO_DATE(...) value in text
    kindRegEx = 4,    // a pattern after "%" or "/="
    kindWord = 5,     // an unquoted word in text that is neither a number nor a date
  };
  // How deep parentheses may nest in readable text; deeper text is refused (FromString is
  // false) rather than exhausting the stack. Nothing else is bounded: a chain of AND and OR
  // links, read from text or built in code, and the native form's linked conditions may be as
  // long and as deep as memory allows.
  static constexpr unsigned maxParseDepth = 1000;
  // The date-time format of TO_DATE values without a format of their own.
  static constexpr const DKChar* dateTimeFormat = DK_T("%Y/%m/%d %H:%M:%S");

  // An empty condition (IsNull).
  DKCondition();
  // Parses the text with FromString. A derived class that parses into its own kind of
  // children calls FromString from its own constructor, as virtual calls made here reach only
  // this class.
  explicit DKCondition(const DKString& text);
  // A deep copy: the linked conditions are copied too.
  DKCondition(const DKCondition& other);
  // LocalCopy(other).
  DKCondition& operator=(const DKCondition& other);

  // The virtual operations, in this order.
  // Linked conditions that no one else holds are released one after the other, not nested: a
  // derived class's destructor of a linked condition finds its links already gone.
  ~DKCondition() override;
  // A derived class that overrides one GetFieldName, GetOperator or GetSuppliedValue brings the
  // value-returning form back with "using DKCondition::GetFieldName;".
  virtual void GetFieldName(DKString& out) const;
  // A new empty condition of the same class: parsing and linking create children with it.
  virtual DKSmartPtr<DKCondition> NewChild() const;
  // Stores the field name; false for a name beginning with "@@" (the native form's mark). A
  // derived class may refuse other names (parsing then fails). Any other name is kept, but
  // readable text holds only one word that is not AND or OR, does not begin with "(" and holds
  // no U+0000 (inside parentheses, also no unpaired parenthesis or double quote): ToString
  // writes a condition with another name in the native form.
  virtual bool AssignFieldName(const DKString& name);
  // Reads the condition in the text into this one. False when the text cannot be read; what
  // was assigned before the failure stays. No exception leaves it. Blanks are space and tab.
  //   "@@..."            the native form (FromNativeString)
  //   ( condition )      read into a child (NewChild), then copied here (LocalCopy; the
  //                      child's links are moved here rather than copied)
  //   field op value     AssignFieldName, AssignOperatorFromStr, AssignSuppliedValueFromStr; the
  //                      value is one word, or a double-quoted text read whole, or a word with
  //                      TO_DATE read up to the first ")"
  //   then "AND rest" or "OR rest" (any case): the whole rest is read into a child, linked with
  //   AND or OR. So "a = 1 AND b = 2 OR c = 3" reads as a AND (b OR c). Reading an OR link
  //   writes "OR Parsing not implemented!" on the console. An empty text is an empty condition.
  // A chain of links of any length is read in one loop (the rest after a link word is read by
  // this call into the child, not by the child's FromString); a parenthesised part is read by
  // the child's FromString, up to maxParseDepth parentheses deep.
  virtual bool FromString(const DKString& text);
  // The comparison of this condition alone. The base has no field values and returns false.
  virtual bool OnEvaluate(const DKConditionParams& params) const;
  // Sets the operator from its text: "<", "<=", "=", "%", "!=", "/=", ">=", ">". isRegEx is set
  // for "%" and "/=" only. False (operator 0) for any other text.
  virtual bool AssignOperatorFromStr(bool& isRegEx, const DKString& text);
  // Sets the value from its (trimmed) text: digits with at most one decimal point are a
  // number; a double-quoted text is a text, or a pattern with isRegEx (without its quotes
  // either way); an unquoted text with TO_DATE( is a date-time; any other word is a word, or
  // a pattern with isRegEx. Patterns are compiled. False when the text is empty, a quote is
  // not closed, the date cannot be read (the console then says so) or the pattern does not
  // compile.
  virtual bool AssignSuppliedValueFromStr(bool isRegEx, const DKString& text);
  // Called after every value assignment; a derived class may prepare or refuse the value.
  virtual bool PostAssignSuppliedValue();
  // The operator as written between field and value (" >= ", " % ", ...); empty for none.
  virtual void GetOperator(DKString& out) const;
  // The value as written in condition text: a text in double quotes, a pattern with blanks in
  // double quotes, others as they are.
  virtual void GetSuppliedValue(DKString& out) const;
  // Makes this condition a copy of other: its own fields, and copies of the linked conditions.
  // The copies are made with NewChild and filled with their own LocalCopy one after the other,
  // not nested: the outermost LocalCopy on a thread fills them all before it returns, after
  // the LocalCopy of the condition they are linked to.
  virtual void LocalCopy(const DKCondition& other);

  // The field name, the operator and the value as text, returned (the virtual forms above write
  // them to out).
  DKString GetFieldName() const;
  DKString GetOperator() const;
  DKString GetSuppliedValue() const;

  // Comparisons: set the operator and the value, then call PostAssignSuppliedValue; each
  // returns this condition.
  DKCondition& operator==(int value);
  DKCondition& operator!=(int value);
  DKCondition& operator<(int value);
  DKCondition& operator<=(int value);
  DKCondition& operator>(int value);
  DKCondition& operator>=(int value);
  DKCondition& operator==(DKInt64 value);
  DKCondition& operator!=(DKInt64 value);
  DKCondition& operator<(DKInt64 value);
  DKCondition& operator<=(DKInt64 value);
  DKCondition& operator>(DKInt64 value);
  DKCondition& operator>=(DKInt64 value);
  DKCondition& operator==(const DKDouble& value);
  DKCondition& operator!=(const DKDouble& value);
  DKCondition& operator<(const DKDouble& value);
  DKCondition& operator<=(const DKDouble& value);
  DKCondition& operator>(const DKDouble& value);
  DKCondition& operator>=(const DKDouble& value);
  DKCondition& operator==(const DKString& value);
  DKCondition& operator!=(const DKString& value);
  DKCondition& operator<(const DKString& value);
  DKCondition& operator<=(const DKString& value);
  DKCondition& operator>(const DKString& value);
  DKCondition& operator>=(const DKString& value);
  DKCondition& operator==(const DKDateTime& value);
  DKCondition& operator!=(const DKDateTime& value);
  DKCondition& operator<(const DKDateTime& value);
  DKCondition& operator<=(const DKDateTime& value);
  DKCondition& operator>(const DKDateTime& value);
  DKCondition& operator>=(const DKDateTime& value);
  // A double literal is a number, not an int.
  DKCondition& operator==(double value) { return *this == DKDouble(value); }
  DKCondition& operator!=(double value) { return *this != DKDouble(value); }
  DKCondition& operator<(double value) { return *this < DKDouble(value); }
  DKCondition& operator<=(double value) { return *this <= DKDouble(value); }
  DKCondition& operator>(double value) { return *this > DKDouble(value); }
  DKCondition& operator>=(double value) { return *this >= DKDouble(value); }
  // Selects the integer types other than int and DKInt64, for the comparisons below.
  template <class T>
  using OtherInteger = std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, int> && !std::is_same_v<T, DKInt64>, int>;
  // Other integer types compare as 64-bit integers.
  template <class T, OtherInteger<T> = 0>
  DKCondition& operator==(T value) { return *this == static_cast<DKInt64>(value); }
  template <class T, OtherInteger<T> = 0>
  DKCondition& operator!=(T value) { return *this != static_cast<DKInt64>(value); }
  template <class T, OtherInteger<T> = 0>
  DKCondition& operator<(T value) { return *this < static_cast<DKInt64>(value); }
  template <class T, OtherInteger<T> = 0>
  DKCondition& operator<=(T value) { return *this <= static_cast<DKInt64>(value); }
  template <class T, OtherInteger<T> = 0>
  DKCondition& operator>(T value) { return *this > static_cast<DKInt64>(value); }
  template <class T, OtherInteger<T> = 0>
  DKCondition& operator>=(T value) { return *this >= static_cast<DKInt64>(value); }
  // Regular-expression match and mismatch: the pattern is compiled at once. A pattern that
  // does not compile leaves the condition without a program (it matches nothing);
  // GetRegExError() tells why.
  DKCondition& operator%(const DKString& pattern);
  DKCondition& operator/=(const DKString& pattern);

  // Linking: a copy of other (made with NewChild and LocalCopy) is appended with AND or OR.
  DKCondition& operator&&(const DKCondition& other);
  DKCondition& operator||(const DKCondition& other);

  // The linked conditions, in order: to read, and to change in place.
  const std::vector<LinkedCond>& GetSubConditionV() const noexcept { return m_subConditions; }
  std::vector<LinkedCond>& GetSubConditionVR() noexcept { return m_subConditions; }
  // The number of linked conditions.
  std::size_t GetSubCondCount() const noexcept { return m_subConditions.size(); }
  // Drops every link (the linked conditions are released).
  void ClearSubCondV() noexcept { m_subConditions.clear(); }
  // Whether any link is an OR link, or an AND link.
  bool HasOr() const noexcept;
  bool HasAnd() const noexcept;

  // True for an empty condition: no field, operator, value or linked condition.
  bool IsNull() const noexcept;
  // True when the value is a regular expression (operator % or /=).
  bool IsRegularExpression() const noexcept { return m_valueKind == kindRegEx; }

  // The condition as text, which FromString always reads back (unless a derived class refuses a
  // part of it). Readable form: field, operator and value, then each link as " AND " or " OR "
  // and the linked condition, with parentheses where needed so that FromString reads back a
  // condition that evaluates alike: the same comparisons, asked in the same order. Where the
  // readable form cannot hold the condition, ToString() writes the native form instead (test
  // the result with IsNativeFormat, or ask HasReadableForm beforehand): a field name as
  // described at AssignFieldName; a value that would read back as another (a negative number
  // or one with an exponent reads as a word, a text holding a double quote and a blank, a
  // pattern that does not compile, U+0000); more than maxParseDepth nested parentheses (a
  // list of links in code whose kind changes more often than that needs as many). Native form
  // (nativeFormat true): the "@@" text that FromString reads back to an identical condition.
  DKString ToString(bool nativeFormat = false) const;
  // True when ToString() writes the readable form.
  bool HasReadableForm() const;

  // The result of this condition and its links, strictly left to right: a grouping node
  // (operator 0) starts from true, or from false when it has an OR link; any other node from
  // OnEvaluate. An OR link is evaluated only while the result is false, an AND link only while
  // it is true, each giving the new result.
  bool Evaluate(const DKConditionParams& params) const;

  // True for text in the native form: it begins with "@@".
  static bool IsNativeFormat(const DKString& text);
  // Reads the native form's "@"-separated tokens, those after the leading "@@": a version "1",
  // then one condition as field, operator code, value kind, value text, date-time seconds
  // (for kind 3; empty otherwise) and the number of linked conditions, each of those preceded
  // by its link kind (0 OR, 1 AND) and written the same way. In field and value texts "%"
  // stands as "%25", "@" as "%40" and the null character as "%00". A pattern that does not
  // compile is kept without a program, as operator% keeps it.
  bool FromNativeString(const DKPointerVector<DKChar>& tokens);

  // The stored comparison: the operator (an Operator) and the value's kind (a ValueKind).
  std::int32_t GetOperatorCode() const noexcept { return m_operator; }
  std::int32_t GetValueKind() const noexcept { return m_valueKind; }
  // The value's text: a text, word or pattern as given, a number as written.
  const DKString& GetValueText() const noexcept { return m_valueText; }
  // A number value, or a date-time value as seconds since 1970; 0 for the other kinds.
  double GetValueAsDouble() const noexcept { return m_doubleValue; }
  DKInt64 GetValueAsInt64() const noexcept { return m_int64Value; }
  // A date-time value (the seconds clamped to DKDateTime's range).
  DKDateTime GetValueAsDateTime() const noexcept;
  // The compiled pattern of a regular-expression value, and its compile result.
  const DKRegEx& GetRegEx() const noexcept { return m_regEx; }
  const DKErrorID& GetRegExError() const noexcept { return m_regEx.GetError(); }

  // Compiles the value text as the condition's pattern; false (with GetRegExError) when it
  // does not compile.
  bool AsRegExp();
  // True when the whole text matches the compiled pattern.
  bool MatchRexExp(const DKString& text) const;

  // Helpers for OnEvaluate: the operator applied to a field's value and the supplied value.
  // A text is compared by kind: as text with a text or word, by the pattern with a regular
  // expression, as a number or a date-time when it reads as one (false otherwise). Numbers are
  // equal within DKDouble::thePrecision. False for operator 0.
  bool EvaluateValue(const DKString& fieldValue) const;
  bool EvaluateValue(double fieldValue) const;
  bool EvaluateValue(DKInt64 fieldValue) const;
  bool EvaluateValue(int fieldValue) const { return EvaluateValue(static_cast<DKInt64>(fieldValue)); }
  bool EvaluateValue(const DKDateTime& fieldValue) const;

protected:
  // Value assigners: each sets the value (the operator stays) and, when post is true, calls
  // PostAssignSuppliedValue and returns its result.
  bool AssignInt(int value, bool post = true);
  bool AssignInt64(DKInt64 value, bool post = true);
  bool AssignDouble(const DKDouble& value, bool post = true);
  bool AssignDKString(const DKString& value, bool post = true);
  bool AssignDKDateTime(const DKDateTime& value, bool post = true);

  // Sets the operator (an Operator value; not checked) and leaves the value as it is.
  void SetOperatorCode(std::int32_t code) noexcept { m_operator = code; }

private:
  DKCondition& Compare(std::int32_t op, int value);
  DKCondition& Compare(std::int32_t op, DKInt64 value);
  DKCondition& Compare(std::int32_t op, const DKDouble& value);
  DKCondition& Compare(std::int32_t op, const DKString& value);
  DKCondition& Compare(std::int32_t op, const DKDateTime& value);
  DKCondition& Link(std::uint32_t kind, const DKCondition& other);
  void SetNumber(double value, DKInt64 asInteger, const DKString& text, bool exactInteger);
  void CopyFields(const DKCondition& other);
  bool ApplyOperator(int comparison) const noexcept;
  bool ParseText(const DKString& text);
  // The result a condition starts from, before its links: a grouping node's, or its comparison.
  bool StartResult(const DKConditionParams& params) const {
    return m_operator == opNone ? !HasOr() : OnEvaluate(params);
  }
  bool IsRunOf(std::uint32_t kind) const noexcept;
  bool ClosesAfter(std::size_t i, std::size_t& next) const noexcept;
  bool WriteReadable(DKString& out) const;
  bool HeadReadsBack(const DKString& field, const DKString& op, const DKString& value) const;
  void AppendNative(DKString& out) const;

  DKString m_fieldName;
  std::int32_t m_operator = opNone;
  std::int32_t m_valueKind = kindNone;
  DKString m_valueText;
  double m_doubleValue = 0.0;
  DKInt64 m_int64Value = 0;
  bool m_exactInteger = false; // the number was given as an integer: compared exactly
  DKRegEx m_regEx;
  std::vector<LinkedCond> m_subConditions;
};
