// Conditions, storage and evaluation: a condition's field, operator and value, the comparison
// and link operators that build conditions in code, copies, and evaluation. Conditions may be
// nested and linked as deep and as long as memory allows: evaluating, copying and destroying
// walk them with explicit stacks, never recursing per link. Exports the members of DKCondition
// other than its text forms (those are in DKConditionText.cpp) and DKConditionParams' destructor;
// private here: the work list of the copies under way and an integer's decimal text.
#include <DorvikCore/DKCondition.h>

#include "conditions/DKConditionText.h"

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

using dkcond::AppendDecimal;
using dkcond::Balanced;
using dkcond::ConsoleLine;
using dkcond::ContainsNoCase;
using dkcond::IsPlainNumber;
using dkcond::ReadDateTime;
using dkcond::ReadOperator;
using dkcond::ReadValue;
using dkcond::TruncateToInt64;
using dkcond::ValueReading;

DKConditionParams::~DKConditionParams() = default;

namespace {

DKString DecimalText(DKInt64 value) {
  DKString text;
  AppendDecimal(text, value);
  return text;
}

constexpr const DKChar* oracleDateTimeFormat = DK_T("YYYY/MM/DD HH24:MI:SS");

// Copies under way on this thread (see LocalCopy): the linked conditions still to be filled, and
// the links the copies replaced, kept until the end as they may hold what is being copied.
struct CopyWork {
  struct Task {
    DKCondition* target;
    const DKCondition* source;
  };
  std::vector<Task> tasks;
  std::vector<std::vector<LinkedCond>> replaced;
};
thread_local CopyWork* t_copyWork = nullptr;

} // namespace

// ---------------------------------------------------------------------------------------------
// Construction and copies

DKCondition::DKCondition() = default;

DKCondition::DKCondition(const DKString& text) { FromString(text); }

DKCondition::DKCondition(const DKCondition& other) : DKRefCount() { LocalCopy(other); }

DKCondition& DKCondition::operator=(const DKCondition& other) {
  LocalCopy(other);
  return *this;
}

// The linked conditions go through a work list: each one this destructor is the last to hold has
// its own links taken first, so that releasing it frees only itself.
DKCondition::~DKCondition() {
  bool deep = false;
  for (const LinkedCond& link : m_subConditions)
    deep = deep || (link.m_condition && !link.m_condition->m_subConditions.empty());
  if (!deep)
    return;
  std::vector<DKSmartPtr<DKCondition>> pending;
  auto take = [&pending](std::vector<LinkedCond>& links) noexcept {
    for (LinkedCond& link : links) {
      try {
        if (link.m_condition)
          pending.push_back(std::move(link.m_condition));
      } catch (...) {
        // Out of memory: this one is released the ordinary way, with its links.
      }
    }
    links.clear();
  };
  take(m_subConditions);
  while (!pending.empty()) {
    DKSmartPtr<DKCondition> condition = std::move(pending.back());
    pending.pop_back();
    if (condition->NbRef() == 1)
      take(condition->m_subConditions);
  }
}

void DKCondition::CopyFields(const DKCondition& other) {
  m_fieldName = other.m_fieldName;
  m_operator = other.m_operator;
  m_valueKind = other.m_valueKind;
  m_valueText = other.m_valueText;
  m_doubleValue = other.m_doubleValue;
  m_int64Value = other.m_int64Value;
  m_exactInteger = other.m_exactInteger;
  m_regEx = other.m_regEx;
}

// The outermost copy on a thread fills the linked conditions from a work list: each is made with
// NewChild at once and filled later with its own (virtual) LocalCopy, which, meeting the work
// under way, leaves its own links to the list instead of copying them itself.
void DKCondition::LocalCopy(const DKCondition& other) {
  if (&other == this)
    return;
  CopyWork own;
  CopyWork& work = t_copyWork ? *t_copyWork : own;
  CopyFields(other);
  std::vector<LinkedCond> copies;
  copies.reserve(other.m_subConditions.size());
  for (const LinkedCond& link : other.m_subConditions) {
    DKSmartPtr<DKCondition> copy;
    if (link.m_condition) {
      copy = link.m_condition->NewChild();
      if (copy)
        work.tasks.push_back({copy.Get(), link.m_condition.Get()});
    }
    copies.push_back({link.m_linkKind, copy});
  }
  m_subConditions.swap(copies);
  if (!copies.empty())
    work.replaced.push_back(std::move(copies));
  if (&work != &own)
    return;
  struct Active {
    explicit Active(CopyWork* work) noexcept { t_copyWork = work; }
    ~Active() { t_copyWork = nullptr; }
    Active(const Active&) = delete;
    Active& operator=(const Active&) = delete;
  } active(&own);
  while (!own.tasks.empty()) {
    const CopyWork::Task task = own.tasks.back();
    own.tasks.pop_back();
    task.target->LocalCopy(*task.source);
  }
}

DKSmartPtr<DKCondition> DKCondition::NewChild() const { return DKSmartPtr<DKCondition>(new DKCondition()); }

// ---------------------------------------------------------------------------------------------
// Field, operator and value

void DKCondition::GetFieldName(DKString& out) const { out = m_fieldName; }

DKString DKCondition::GetFieldName() const {
  DKString out;
  GetFieldName(out);
  return out;
}

bool DKCondition::AssignFieldName(const DKString& name) {
  if (IsNativeFormat(name))
    return false; // a text starting with it would read as the native form
  m_fieldName = name;
  return true;
}

bool DKCondition::AssignOperatorFromStr(bool& isRegEx, const DKString& text) {
  return ReadOperator(text, m_operator, isRegEx);
}

void DKCondition::GetOperator(DKString& out) const {
  const bool regEx = m_valueKind == kindRegEx;
  switch (m_operator) {
  case opLess: out = DK_T(" < "); break;
  case opLessOrEqual: out = DK_T(" <= "); break;
  case opEqual: out = regEx ? DK_T(" % ") : DK_T(" = "); break;
  case opNotEqual: out = regEx ? DK_T(" /= ") : DK_T(" != "); break;
  case opGreaterOrEqual: out = DK_T(" >= "); break;
  case opGreater: out = DK_T(" > "); break;
  default: out.Clear(); break;
  }
}

DKString DKCondition::GetOperator() const {
  DKString out;
  GetOperator(out);
  return out;
}

void DKCondition::GetSuppliedValue(DKString& out) const {
  // A text is quoted. A pattern or a word is quoted when the reader would not take it back as
  // it stands: empty or with blanks (an unquoted value is one word), with "TO_DATE" (read up to
  // the next ")"), as digits (read as a number), or with parentheses that do not pair (they
  // would upset the search for the end of an enclosing parenthesis); a quoted word reads back
  // as a text, which compares alike. A value holding a double quote cannot be quoted: it is
  // written as it stands, and ToString writes the native form when the reader would not take
  // it back so.
  const bool quote =
      m_valueText.Find(DK_T('"')) == DKString::npos &&
      (m_valueKind == kindText ||
       ((m_valueKind == kindRegEx || m_valueKind == kindWord) &&
        (m_valueText.IsEmpty() || m_valueText.FindFirstOf(DK_T(" \t")) != DKString::npos || IsPlainNumber(m_valueText) ||
         !Balanced(m_valueText) || ContainsNoCase(m_valueText, DK_T("TO_DATE")))));
  out.Clear();
  if (quote)
    out += DK_T('"');
  out += m_valueText;
  if (quote)
    out += DK_T('"');
}

DKString DKCondition::GetSuppliedValue() const {
  DKString out;
  GetSuppliedValue(out);
  return out;
}

bool DKCondition::PostAssignSuppliedValue() { return true; }

void DKCondition::SetNumber(double value, DKInt64 asInteger, const DKString& text, bool exactInteger) {
  m_valueKind = kindNumber;
  m_exactInteger = exactInteger;
  m_valueText = text;
  m_doubleValue = DKDouble::Adjust(value);
  m_int64Value = asInteger;
  m_regEx.Clear();
}

bool DKCondition::AssignInt(int value, bool post) {
  SetNumber(value, value, DecimalText(value), true);
  return !post || PostAssignSuppliedValue();
}

bool DKCondition::AssignInt64(DKInt64 value, bool post) {
  SetNumber(static_cast<double>(value), value, DecimalText(value), true);
  return !post || PostAssignSuppliedValue();
}

bool DKCondition::AssignDouble(const DKDouble& value, bool post) {
  SetNumber(value.GetValue(), TruncateToInt64(value.GetValue()), value.AsString(), false);
  return !post || PostAssignSuppliedValue();
}

bool DKCondition::AssignDKString(const DKString& value, bool post) {
  m_valueKind = kindText;
  m_valueText = value;
  m_doubleValue = 0.0;
  m_int64Value = 0;
  m_regEx.Clear();
  return !post || PostAssignSuppliedValue();
}

bool DKCondition::AssignDKDateTime(const DKDateTime& value, bool post) {
  m_valueKind = kindDateTime;
  m_valueText = DKStrCat(DK_T("TO_DATE('"), value.AsString(dateTimeFormat), DK_T("', '"), oracleDateTimeFormat, DK_T("')"));
  m_int64Value = static_cast<DKInt64>(value.GetTime_t());
  m_doubleValue = static_cast<double>(m_int64Value);
  m_regEx.Clear();
  return !post || PostAssignSuppliedValue();
}

DKDateTime DKCondition::GetValueAsDateTime() const noexcept {
  const DKInt64 lo = DKDateTime::minimum.GetTime_t(), hi = DKDateTime::maximum.GetTime_t();
  return DKDateTime::FromCount(static_cast<std::int32_t>(std::clamp(m_int64Value, lo, hi)));
}

bool DKCondition::AssignSuppliedValueFromStr(bool isRegEx, const DKString& text) {
  ValueReading value;
  if (!ReadValue(isRegEx, text, value))
    return false;
  if (value.kind == kindNumber) {
    SetNumber(value.number, value.integer, value.text, value.exact);
    return PostAssignSuppliedValue();
  }
  m_valueKind = value.kind;
  m_valueText = value.text;
  m_doubleValue = 0.0;
  m_int64Value = 0;
  m_regEx.Clear();
  if (value.kind == kindRegEx && !AsRegExp())
    return false;
  if (value.kind == kindDateTime) {
    DKDateTime moment;
    if (!ReadDateTime(value.text, moment)) {
      ConsoleLine("ERROR: DKCondition fails in DKDateTime::FromString()");
      return false;
    }
    m_int64Value = static_cast<DKInt64>(moment.GetTime_t());
    m_doubleValue = static_cast<double>(m_int64Value);
  }
  return PostAssignSuppliedValue();
}

bool DKCondition::AsRegExp() { return m_regEx.Compile(m_valueText).Good(); }

bool DKCondition::MatchRexExp(const DKString& text) const { return m_regEx.Match(text); }

// ---------------------------------------------------------------------------------------------
// Comparison and link operators

DKCondition& DKCondition::Compare(std::int32_t op, int value) {
  m_operator = op;
  AssignInt(value);
  return *this;
}
DKCondition& DKCondition::Compare(std::int32_t op, DKInt64 value) {
  m_operator = op;
  AssignInt64(value);
  return *this;
}
DKCondition& DKCondition::Compare(std::int32_t op, const DKDouble& value) {
  m_operator = op;
  AssignDouble(value);
  return *this;
}
DKCondition& DKCondition::Compare(std::int32_t op, const DKString& value) {
  m_operator = op;
  AssignDKString(value);
  return *this;
}
DKCondition& DKCondition::Compare(std::int32_t op, const DKDateTime& value) {
  m_operator = op;
  AssignDKDateTime(value);
  return *this;
}

DKCondition& DKCondition::operator==(int value) { return Compare(opEqual, value); }
DKCondition& DKCondition::operator!=(int value) { return Compare(opNotEqual, value); }
DKCondition& DKCondition::operator<(int value) { return Compare(opLess, value); }
DKCondition& DKCondition::operator<=(int value) { return Compare(opLessOrEqual, value); }
DKCondition& DKCondition::operator>(int value) { return Compare(opGreater, value); }
DKCondition& DKCondition::operator>=(int value) { return Compare(opGreaterOrEqual, value); }
DKCondition& DKCondition::operator==(DKInt64 value) { return Compare(opEqual, value); }
DKCondition& DKCondition::operator!=(DKInt64 value) { return Compare(opNotEqual, value); }
DKCondition& DKCondition::operator<(DKInt64 value) { return Compare(opLess, value); }
DKCondition& DKCondition::operator<=(DKInt64 value) { return Compare(opLessOrEqual, value); }
DKCondition& DKCondition::operator>(DKInt64 value) { return Compare(opGreater, value); }
DKCondition& DKCondition::operator>=(DKInt64 value) { return Compare(opGreaterOrEqual, value); }
DKCondition& DKCondition::operator==(const DKDouble& value) { return Compare(opEqual, value); }
DKCondition& DKCondition::operator!=(const DKDouble& value) { return Compare(opNotEqual, value); }
DKCondition& DKCondition::operator<(const DKDouble& value) { return Compare(opLess, value); }
DKCondition& DKCondition::operator<=(const DKDouble& value) { return Compare(opLessOrEqual, value); }
DKCondition& DKCondition::operator>(const DKDouble& value) { return Compare(opGreater, value); }
DKCondition& DKCondition::operator>=(const DKDouble& value) { return Compare(opGreaterOrEqual, value); }
DKCondition& DKCondition::operator==(const DKString& value) { return Compare(opEqual, value); }
DKCondition& DKCondition::operator!=(const DKString& value) { return Compare(opNotEqual, value); }
DKCondition& DKCondition::operator<(const DKString& value) { return Compare(opLess, value); }
DKCondition& DKCondition::operator<=(const DKString& value) { return Compare(opLessOrEqual, value); }
DKCondition& DKCondition::operator>(const DKString& value) { return Compare(opGreater, value); }
DKCondition& DKCondition::operator>=(const DKString& value) { return Compare(opGreaterOrEqual, value); }
DKCondition& DKCondition::operator==(const DKDateTime& value) { return Compare(opEqual, value); }
DKCondition& DKCondition::operator!=(const DKDateTime& value) { return Compare(opNotEqual, value); }
DKCondition& DKCondition::operator<(const DKDateTime& value) { return Compare(opLess, value); }
DKCondition& DKCondition::operator<=(const DKDateTime& value) { return Compare(opLessOrEqual, value); }
DKCondition& DKCondition::operator>(const DKDateTime& value) { return Compare(opGreater, value); }
DKCondition& DKCondition::operator>=(const DKDateTime& value) { return Compare(opGreaterOrEqual, value); }

DKCondition& DKCondition::operator%(const DKString& pattern) {
  m_operator = opEqual;
  m_valueKind = kindRegEx;
  m_valueText = pattern;
  m_doubleValue = 0.0;
  m_int64Value = 0;
  AsRegExp();
  PostAssignSuppliedValue();
  return *this;
}

DKCondition& DKCondition::operator/=(const DKString& pattern) {
  *this % pattern;
  m_operator = opNotEqual;
  return *this;
}

DKCondition& DKCondition::Link(std::uint32_t kind, const DKCondition& other) {
  DKSmartPtr<DKCondition> child = NewChild();
  if (child) {
    child->LocalCopy(other);
    m_subConditions.push_back({kind, child});
  }
  return *this;
}

DKCondition& DKCondition::operator&&(const DKCondition& other) { return Link(LinkedCond::AND, other); }
DKCondition& DKCondition::operator||(const DKCondition& other) { return Link(LinkedCond::OR, other); }

bool DKCondition::HasOr() const noexcept {
  for (const LinkedCond& link : m_subConditions)
    if (link.m_linkKind == LinkedCond::OR)
      return true;
  return false;
}

bool DKCondition::HasAnd() const noexcept {
  for (const LinkedCond& link : m_subConditions)
    if (link.m_linkKind == LinkedCond::AND)
      return true;
  return false;
}

bool DKCondition::IsNull() const noexcept {
  return m_operator == opNone && m_valueKind == kindNone && m_fieldName.IsEmpty() && m_subConditions.empty();
}

// ---------------------------------------------------------------------------------------------
// Evaluation

// A linked condition's result replaces the result so far, so a condition whose links are done
// passes its result straight up: the stack keeps only the conditions with links still to walk
// after the linked condition being evaluated, and a last link goes on in place.
bool DKCondition::Evaluate(const DKConditionParams& params) const {
  struct Resume {
    const DKCondition* condition;
    std::size_t next;
  };
  std::vector<Resume> stack;
  const DKCondition* condition = this;
  std::size_t next = 0;
  bool result = StartResult(params);
  for (;;) {
    const std::vector<LinkedCond>& links = condition->m_subConditions;
    if (next >= links.size()) {
      if (stack.empty())
        return result;
      condition = stack.back().condition;
      next = stack.back().next;
      stack.pop_back();
      continue;
    }
    const LinkedCond& link = links[next++];
    const bool take = link.m_linkKind == LinkedCond::OR ? !result : link.m_linkKind == LinkedCond::AND && result;
    if (!link.m_condition || !take)
      continue;
    const DKCondition* linked = link.m_condition.Get();
    result = linked->StartResult(params);
    if (linked->m_subConditions.empty())
      continue;
    if (next < links.size())
      stack.push_back({condition, next});
    condition = linked;
    next = 0;
  }
}

bool DKCondition::OnEvaluate(const DKConditionParams&) const { return false; }

bool DKCondition::ApplyOperator(int comparison) const noexcept {
  switch (m_operator) {
  case opLess: return comparison < 0;
  case opLessOrEqual: return comparison <= 0;
  case opEqual: return comparison == 0;
  case opNotEqual: return comparison != 0;
  case opGreaterOrEqual: return comparison >= 0;
  case opGreater: return comparison > 0;
  default: return false;
  }
}

bool DKCondition::EvaluateValue(double fieldValue) const {
  switch (m_valueKind) {
  case kindNumber:
  case kindDateTime: {
    const double supplied = m_valueKind == kindNumber ? m_doubleValue : static_cast<double>(m_int64Value);
    if (std::isnan(fieldValue) || std::isnan(supplied))
      return m_operator == opNotEqual;
    const double difference = fieldValue - supplied;
    const int comparison = std::fabs(difference) < DKDouble::thePrecision.load(std::memory_order_relaxed) ? 0
                           : difference < 0                                                           ? -1
                                                                                                      : 1;
    return ApplyOperator(comparison);
  }
  case kindNone: return false;
  default: return EvaluateValue(DKDouble(fieldValue).AsString());
  }
}

bool DKCondition::EvaluateValue(DKInt64 fieldValue) const {
  switch (m_valueKind) {
  case kindNumber:
    // A value given as an integer compares exactly; any other as a double.
    if (!m_exactInteger)
      return EvaluateValue(static_cast<double>(fieldValue));
    [[fallthrough]];
  case kindDateTime: return ApplyOperator(fieldValue < m_int64Value ? -1 : fieldValue > m_int64Value ? 1 : 0);
  case kindNone: return false;
  default: return EvaluateValue(DecimalText(fieldValue));
  }
}

bool DKCondition::EvaluateValue(const DKDateTime& fieldValue) const {
  switch (m_valueKind) {
  case kindNumber:
  case kindDateTime: return EvaluateValue(static_cast<DKInt64>(fieldValue.GetTime_t()));
  case kindNone: return false;
  default: return EvaluateValue(fieldValue.AsString(dateTimeFormat));
  }
}

bool DKCondition::EvaluateValue(const DKString& fieldValue) const {
  switch (m_valueKind) {
  case kindText:
  case kindWord: return ApplyOperator(fieldValue.Compare(m_valueText));
  case kindRegEx: {
    if (!m_regEx.IsCompiled())
      return false;
    const bool match = m_regEx.Match(fieldValue);
    return m_operator == opEqual ? match : m_operator == opNotEqual ? !match : false;
  }
  case kindNumber: {
    DKString trimmed = fieldValue;
    trimmed.Trim();
    bool ok = false;
    const double number = trimmed.AsDouble(&ok);
    return ok && !trimmed.IsEmpty() && EvaluateValue(number);
  }
  case kindDateTime: {
    DKDateTime moment;
    return ReadDateTime(fieldValue, moment) && EvaluateValue(static_cast<DKInt64>(moment.GetTime_t()));
  }
  default: return false;
  }
}
