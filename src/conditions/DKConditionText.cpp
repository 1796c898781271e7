// Conditions, the text forms: the readable text ("qty >= 10 AND name % [A-M][a-z]+") and the
// native form ("@@1@..."), written by ToString and read by FromString. A link word takes the
// whole rest of the text as its condition, so "a AND b OR c" reads as a AND (b OR c), while
// conditions linked in code (a && b || c) evaluate strictly left to right; ToString puts
// parentheses where the two differ. Reading a chain of links and writing it walk the links with
// explicit stacks, never recursing per link; only parentheses in text nest calls, up to
// maxParseDepth. Exports DKCondition's text-form members and, to the storage, the readers of
// DKConditionText.h; private here: the parse depth, the scanning of words and parentheses, and
// the native form's escapes.
#include <DorvikCore/DKCondition.h>

#include <DorvikCore/DKConsole.h>

#include "conditions/DKConditionText.h"

#include <cmath>
#include <exception>
#include <limits>
#include <ostream>
#include <utility>
#include <vector>

using dkcond::AppendDecimal;
using dkcond::Balanced;
using dkcond::ConsoleLine;
using dkcond::ContainsNoCase;
using dkcond::ReadDateTime;
using dkcond::ReadExactInt64;
using dkcond::ReadOperator;
using dkcond::ReadValue;
using dkcond::TruncateToInt64;
using dkcond::ValueReading;

namespace {

// Nesting of FromString calls on this thread: the outermost call is 1, each parenthesis adds one.
// Conditions parse into children of their own class, so the count cannot be passed down.
thread_local unsigned t_parseDepth = 0;

class ParseDepthGuard {
public:
  ParseDepthGuard() noexcept : m_ok(++t_parseDepth <= DKCondition::maxParseDepth + 1) {}
  ~ParseDepthGuard() { --t_parseDepth; }
  ParseDepthGuard(const ParseDepthGuard&) = delete;
  ParseDepthGuard& operator=(const ParseDepthGuard&) = delete;
  bool Ok() const noexcept { return m_ok; }

private:
  bool m_ok;
};

constexpr bool IsBlank(DKChar c) noexcept { return c == ' ' || c == '\t'; }

std::size_t SkipBlanks(const DKString& text, std::size_t pos) noexcept {
  while (pos < text.Length() && IsBlank(text[pos]))
    ++pos;
  return pos;
}

std::size_t WordEnd(const DKString& text, std::size_t pos) noexcept {
  while (pos < text.Length() && !IsBlank(text[pos]))
    ++pos;
  return pos;
}

bool IsBlankFrom(const DKString& text, std::size_t pos) noexcept { return SkipBlanks(text, pos) >= text.Length(); }

// Reads text from pos with depth parentheses open, skipping double-quoted parts so that a
// parenthesis inside one does not count, up to the ")" that closes the last of them: its
// position. Else npos, with depth as the text left it (npos when a quote is not closed).
std::size_t CloseParenthesis(const DKString& text, std::size_t pos, std::size_t& depth) noexcept {
  for (std::size_t i = pos; i < text.Length(); ++i) {
    const DKChar c = text[i];
    if (c == '"') {
      i = text.Find(DK_T('"'), i + 1);
      if (i == DKString::npos) {
        depth = DKString::npos;
        return DKString::npos;
      }
    } else if (c == '(') {
      ++depth;
    } else if (c == ')' && --depth == 0) {
      return i;
    }
  }
  return DKString::npos;
}

// The position of the ")" that closes the "(" at open, or npos.
std::size_t MatchingParenthesis(const DKString& text, std::size_t open) noexcept {
  std::size_t depth = 0;
  return CloseParenthesis(text, open, depth);
}

bool IsLinkWord(const DKString& word, bool& isAnd) {
  isAnd = word.IsEqual(DK_T("AND"), DKString::IgnoreCase);
  return isAnd || word.IsEqual(DK_T("OR"), DKString::IgnoreCase);
}

// The native form's escapes inside field and value texts: "%" as "%25", "@" (the separator) as
// "%40" and the null character (the tokens' terminator) as "%00".
void AppendEscaped(DKString& out, const DKString& text) {
  for (const DKChar c : text) {
    if (c == '%')
      out += DK_T("%25");
    else if (c == '@')
      out += DK_T("%40");
    else if (c == 0)
      out += DK_T("%00");
    else
      out += c;
  }
}

bool Unescape(const DKChar* token, DKString& out) {
  out.Clear();
  for (const DKChar* p = token; *p; ++p) {
    if (*p != '%') {
      out += *p;
      continue;
    }
    if (p[1] == '2' && p[2] == '5')
      out += DK_T('%');
    else if (p[1] == '4' && p[2] == '0')
      out += DK_T('@');
    else if (p[1] == '0' && p[2] == '0')
      out += DKChar(0);
    else
      return false;
    p += 2;
  }
  return true;
}

// A decimal count of at most nine digits.
bool ReadCount(const DKChar* token, std::size_t& out) noexcept {
  out = 0;
  std::size_t digits = 0;
  for (const DKChar* p = token; *p; ++p, ++digits) {
    if (*p < '0' || *p > '9' || digits == 9)
      return false;
    out = out * 10 + static_cast<std::size_t>(*p - '0');
  }
  return digits > 0;
}

// The end of the value that starts at pos, a non-blank character: a double-quoted text runs to
// its closing quote, a word holding "TO_DATE" to the first ")" from its start, any other word to
// the next blank. npos when the closing quote or ")" is missing.
std::size_t ValueEnd(const DKString& text, std::size_t pos) {
  std::size_t end = WordEnd(text, pos);
  if (text[pos] == '"')
    end = text.Find(DK_T('"'), pos + 1);
  else if (ContainsNoCase(text.SubStr(pos, end - pos), DK_T("TO_DATE")))
    end = text.Find(DK_T(')'), pos);
  else
    return end;
  return end == DKString::npos ? end : end + 1;
}

// A link that is written in readable text: a condition linked with AND or OR.
bool IsWritten(const LinkedCond& link) noexcept {
  return link.m_condition && (link.m_linkKind == LinkedCond::AND || link.m_linkKind == LinkedCond::OR);
}

// The first written link at or after from, or npos.
std::size_t NextWritten(const std::vector<LinkedCond>& links, std::size_t from) noexcept {
  for (std::size_t i = from; i < links.size(); ++i)
    if (IsWritten(links[i]))
      return i;
  return DKString::npos;
}

} // namespace

namespace dkcond {

bool ContainsNoCase(const DKString& text, const DKChar* what) {
  DKString upper = text;
  upper.Upper();
  return upper.Find(what) != DKString::npos;
}

bool Balanced(const DKString& text) noexcept {
  std::size_t depth = 1;
  return CloseParenthesis(text, 0, depth) == DKString::npos && depth == 1;
}

void ConsoleLine(const char* line) { DKLockedCOUT() << line << std::endl; }

bool IsPlainNumber(const DKString& text) noexcept {
  bool digit = false, point = false;
  for (const DKChar c : text) {
    if (c >= '0' && c <= '9')
      digit = true;
    else if (c == '.' && !point)
      point = true;
    else
      return false;
  }
  return digit;
}

bool ReadExactInt64(const DKString& text, DKInt64& out) noexcept {
  std::size_t i = 0;
  const bool negative = text.Length() > 0 && text[0] == '-';
  if (text.Length() > 0 && (text[0] == '-' || text[0] == '+'))
    ++i;
  if (i >= text.Length())
    return false;
  const DKUInt64 limit = negative ? DKUInt64{1} << 63 : (DKUInt64{1} << 63) - 1;
  DKUInt64 value = 0;
  for (; i < text.Length(); ++i) {
    const DKChar c = text[i];
    if (c < '0' || c > '9')
      return false;
    const unsigned d = static_cast<unsigned>(c - '0');
    if (value > (limit - d) / 10)
      return false;
    value = value * 10 + d;
  }
  out = negative ? static_cast<DKInt64>(0 - value) : static_cast<DKInt64>(value);
  return true;
}

DKInt64 TruncateToInt64(double value) noexcept {
  constexpr double two63 = 9223372036854775808.0;
  if (std::isnan(value))
    return 0;
  if (value >= two63)
    return std::numeric_limits<DKInt64>::max();
  if (value <= -two63)
    return std::numeric_limits<DKInt64>::min();
  return static_cast<DKInt64>(value);
}

void AppendDecimal(DKString& out, DKInt64 value) {
  DKChar digits[20];
  std::size_t n = 0;
  DKUInt64 magnitude = value < 0 ? 0 - static_cast<DKUInt64>(value) : static_cast<DKUInt64>(value);
  do {
    digits[n++] = static_cast<DKChar>('0' + magnitude % 10);
    magnitude /= 10;
  } while (magnitude != 0);
  if (value < 0)
    out += DK_T('-');
  while (n > 0)
    out += digits[--n];
}

bool ReadDateTime(const DKString& text, DKDateTime& out) {
  try {
    return out.FromString(text, DKCondition::dateTimeFormat).Good();
  } catch (const std::exception&) {
    return false;
  }
}

bool ReadOperator(const DKString& text, std::int32_t& code, bool& isRegEx) {
  struct Entry {
    const DKChar* text;
    std::int32_t code;
    bool regEx;
  };
  static constexpr Entry operators[] = {
      {DK_T("<"), DKCondition::opLess, false},  {DK_T("<="), DKCondition::opLessOrEqual, false},
      {DK_T("="), DKCondition::opEqual, false}, {DK_T("%"), DKCondition::opEqual, true},
      {DK_T("!="), DKCondition::opNotEqual, false}, {DK_T("/="), DKCondition::opNotEqual, true},
      {DK_T(">="), DKCondition::opGreaterOrEqual, false}, {DK_T(">"), DKCondition::opGreater, false},
  };
  isRegEx = false;
  code = DKCondition::opNone;
  for (const Entry& e : operators)
    if (text == e.text) {
      code = e.code;
      isRegEx = e.regEx;
      return true;
    }
  return false;
}

bool ReadValue(bool isRegEx, const DKString& raw, ValueReading& out) {
  DKString value = raw;
  value.Trim();
  if (value.IsEmpty())
    return false;
  const bool quoted = value[0] == '"';
  if (IsPlainNumber(value)) {
    bool ok = false;
    out.number = value.AsDouble(&ok);
    if (!ok)
      return false;
    DKInt64 integer = 0;
    out.exact = value.Find(DK_T('.')) == DKString::npos && ReadExactInt64(value, integer);
    out.integer = out.exact ? integer : TruncateToInt64(out.number);
    out.kind = DKCondition::kindNumber;
  } else if (quoted || !ContainsNoCase(value, DK_T("TO_DATE("))) {
    if (quoted) {
      if (value.Length() < 2 || value[value.Length() - 1] != '"')
        return false;
      value = value.SubStr(1, value.Length() - 2);
    }
    out.kind = isRegEx ? DKCondition::kindRegEx : quoted ? DKCondition::kindText : DKCondition::kindWord;
  } else {
    out.kind = DKCondition::kindDateTime;
  }
  out.text = value;
  return true;
}

} // namespace dkcond

// ---------------------------------------------------------------------------------------------
// Text forms

bool DKCondition::IsNativeFormat(const DKString& text) {
  return text.Length() >= 2 && text[0] == '@' && text[1] == '@';
}

DKString DKCondition::ToString(bool nativeFormat) const {
  DKString out;
  if (!nativeFormat && WriteReadable(out))
    return out;
  out = DK_T("@@1");
  AppendNative(out);
  return out;
}

bool DKCondition::HasReadableForm() const {
  DKString text;
  return WriteReadable(text);
}

// True when the readable text of this condition, followed by more links of the kind, reads as
// this condition linked to them. The reader hands those links to the last linked condition, so
// this holds when the last link is of the kind and its condition has a comparison and, if it
// has links, the same property; earlier links end in parentheses wherever the kind changes.
bool DKCondition::IsRunOf(std::uint32_t kind) const noexcept {
  for (const DKCondition* c = this;;) {
    if (c->m_operator == opNone)
      return false;
    const LinkedCond* last = nullptr;
    for (const LinkedCond& link : c->m_subConditions)
      if (IsWritten(link))
        last = &link;
    if (!last)
      return true;
    if (last->m_linkKind != kind)
      return false;
    c = last->m_condition.Get();
  }
}

// Whether the link at index i (written) is followed by a written link, and whether the text
// so far must close its parentheses after it: links apply left to right, but the reader gives a
// link the whole rest of the text, so that "a AND b OR c" reads as a AND (b OR c). Both agree
// while the links are all AND or all OR; where the kind changes, the text so far goes in
// parentheses. After a linked condition without a comparison (a grouping node) they close too:
// followed by more links, it would read as a grouping node whose start depends on those links.
bool DKCondition::ClosesAfter(std::size_t i, std::size_t& next) const noexcept {
  next = NextWritten(m_subConditions, i + 1);
  return next != DKString::npos && (m_subConditions[next].m_linkKind != m_subConditions[i].m_linkKind ||
                                    m_subConditions[i].m_condition->m_operator == opNone);
}

// One pass over the conditions with an explicit stack. A condition opens at its start the
// parentheses that its links close (ClosesAfter). A linked condition with links of another
// kind goes in parentheses unless nothing follows it in its own; an empty one is written "()".
// Gives up as soon as the text is known not to read back: a comparison that the reader would
// take otherwise (HeadReadsBack), one that cannot stand where it is inside parentheses, or
// parentheses nested deeper than the reader takes.
bool DKCondition::WriteReadable(DKString& out) const {
  struct Frame {
    const DKCondition* condition;
    std::size_t next;     // the next link to write; npos when done
    bool started;         // something of the condition is written: a link needs a blank first
    unsigned closeAfter;  // parentheses to close once the linked condition being written is done
  };
  std::vector<Frame> stack;
  std::size_t depth = 0; // parentheses open at the end of out
  auto open = [&out, &depth](std::size_t count) {
    if (count > maxParseDepth - depth)
      return false;
    for (std::size_t k = 0; k < count; ++k)
      out += DK_T('(');
    depth += count;
    return true;
  };
  auto close = [&out, &depth](std::size_t count) {
    for (std::size_t k = 0; k < count; ++k)
      out += DK_T(')');
    depth -= count;
  };
  // The comparison of c as text, when the reader takes it back.
  DKString head, field, op, value;
  auto readHead = [&](const DKCondition& c) {
    c.GetFieldName(field);
    c.GetOperator(op);
    c.GetSuppliedValue(value);
    head = field + op + value;
    return c.HeadReadsBack(field, op, value);
  };
  auto writeHead = [&]() {
    if (depth > 0 && !Balanced(head))
      return false;
    out += head;
    return true;
  };
  // Writes c's opening parentheses and comparison, then leaves its links to the loop.
  auto start = [&](const DKCondition& c) {
    std::size_t closing = 0, next = 0;
    for (std::size_t i = NextWritten(c.m_subConditions, 0); i != DKString::npos; i = next)
      closing += c.ClosesAfter(i, next) ? 1 : 0;
    if (!readHead(c) || !open(closing) || !writeHead())
      return false;
    stack.push_back({&c, NextWritten(c.m_subConditions, 0), !head.IsEmpty(), 0});
    return true;
  };

  if (!start(*this))
    return false;
  while (!stack.empty()) {
    Frame& top = stack.back();
    if (top.next == DKString::npos) {
      stack.pop_back();
      if (!stack.empty())
        close(std::exchange(stack.back().closeAfter, 0));
      continue;
    }
    const LinkedCond& link = top.condition->m_subConditions[top.next];
    const DKCondition& linked = *link.m_condition;
    std::size_t next = 0;
    const bool closeAfter = top.condition->ClosesAfter(top.next, next);
    top.next = next;
    if (top.started)
      out += DK_T(' ');
    top.started = true;
    out += link.m_linkKind == LinkedCond::AND ? DK_T("AND ") : DK_T("OR ");
    const bool leaf = NextWritten(linked.m_subConditions, 0) == DKString::npos;
    if (leaf && !readHead(linked))
      return false;
    const bool wrap = (leaf && head.IsEmpty()) || (next != DKString::npos && !closeAfter && !linked.IsRunOf(link.m_linkKind));
    if (wrap && !open(1))
      return false;
    const unsigned after = (wrap ? 1 : 0) + (closeAfter ? 1 : 0);
    if (!leaf) {
      top.closeAfter = after;
      if (!start(linked))
        return false;
    } else if (writeHead()) {
      close(after);
    } else {
      return false;
    }
  }
  return true;
}

// Reads the comparison as FromString would, from the field, operator and value as written, and
// compares what it would store with what this condition holds. A text and a word are alike
// (both compare as text); a number must read back to the same value.
bool DKCondition::HeadReadsBack(const DKString& field, const DKString& op, const DKString& value) const {
  if (field.IsEmpty() && op.IsEmpty() && value.IsEmpty())
    return m_operator == opNone; // a grouping node
  const DKChar nul = 0;
  if (field.Find(nul) != DKString::npos || op.Find(nul) != DKString::npos || value.Find(nul) != DKString::npos)
    return false; // the reader stops at U+0000
  bool isAnd = false;
  if (field.IsEmpty() || WordEnd(field, 0) != field.Length() || field[0] == '(' || IsNativeFormat(field) ||
      IsLinkWord(field, isAnd))
    return false;
  const std::size_t opStart = SkipBlanks(op, 0), opEnd = WordEnd(op, opStart);
  std::int32_t code = opNone;
  bool isRegEx = false;
  if (opStart == 0 || opEnd >= op.Length() || !IsBlankFrom(op, opEnd) ||
      !ReadOperator(op.SubStr(opStart, opEnd - opStart), code, isRegEx) || code != m_operator)
    return false;
  const std::size_t valueStart = SkipBlanks(value, 0);
  ValueReading read;
  if (valueStart >= value.Length() || ValueEnd(value, valueStart) != value.Length() ||
      !ReadValue(isRegEx, value.SubStr(valueStart), read) || read.text != m_valueText)
    return false;
  switch (read.kind) {
  case kindNumber: {
    // An integer read back exactly compares like the same value held as a double while doubles
    // hold every integer around it.
    constexpr double exactDoubles = 9007199254740992.0;
    return m_valueKind == kindNumber && DKDouble::Adjust(read.number) == m_doubleValue && read.integer == m_int64Value &&
           (read.exact == m_exactInteger || std::fabs(m_doubleValue) < exactDoubles);
  }
  case kindRegEx: return m_valueKind == kindRegEx && m_regEx.IsCompiled();
  case kindDateTime: {
    DKDateTime moment;
    return m_valueKind == kindDateTime && ReadDateTime(read.text, moment) &&
           static_cast<DKInt64>(moment.GetTime_t()) == m_int64Value;
  }
  default: return m_valueKind == kindText || m_valueKind == kindWord;
  }
}

// Pre-order, with an explicit stack: each condition's head, then each link kind followed by the
// linked condition.
void DKCondition::AppendNative(DKString& out) const {
  auto appendHead = [&out](const DKCondition& c) {
    std::size_t links = 0;
    for (const LinkedCond& link : c.m_subConditions)
      links += link.m_condition ? 1 : 0;
    out += DK_T('@');
    AppendEscaped(out, c.m_fieldName);
    out += DK_T('@');
    AppendDecimal(out, c.m_operator);
    out += DK_T('@');
    AppendDecimal(out, c.m_valueKind);
    out += DK_T('@');
    AppendEscaped(out, c.m_valueText);
    out += DK_T('@');
    if (c.m_valueKind == kindDateTime)
      AppendDecimal(out, c.m_int64Value);
    out += DK_T('@');
    AppendDecimal(out, static_cast<DKInt64>(links));
  };
  struct Frame {
    const DKCondition* condition;
    std::size_t next;
  };
  appendHead(*this);
  std::vector<Frame> stack{{this, 0}};
  while (!stack.empty()) {
    Frame& top = stack.back();
    if (top.next >= top.condition->m_subConditions.size()) {
      stack.pop_back();
      continue;
    }
    const LinkedCond& link = top.condition->m_subConditions[top.next++];
    if (!link.m_condition)
      continue;
    out += DK_T('@');
    AppendDecimal(out, link.m_linkKind);
    appendHead(*link.m_condition);
    stack.push_back({link.m_condition.Get(), 0});
  }
}

bool DKCondition::FromNativeString(const DKPointerVector<DKChar>& tokens) {
  constexpr std::size_t headTokens = 6;
  if (tokens.size() < 1 || DKString(tokens[0]) != DK_T("1"))
    return false;
  std::size_t pos = 1;

  // Reads one condition's head into c; count receives its number of links.
  auto readHead = [&](DKCondition& c, std::size_t& count) {
    if (tokens.size() - pos < headTokens)
      return false;
    DKString field, value;
    std::size_t op = 0, kind = 0;
    if (!Unescape(tokens[pos], field) || !ReadCount(tokens[pos + 1], op) || !ReadCount(tokens[pos + 2], kind) ||
        !Unescape(tokens[pos + 3], value) || !ReadCount(tokens[pos + 5], count))
      return false;
    const DKString seconds(tokens[pos + 4]);
    pos += headTokens;
    if (op > opGreater || kind > kindWord || (kind == kindRegEx && op != opEqual && op != opNotEqual) ||
        (kind != kindDateTime && !seconds.IsEmpty()) || (kind == kindNone && !value.IsEmpty()) ||
        count > (tokens.size() - pos) / (headTokens + 1))
      return false;
    c.m_fieldName.Clear();
    if (!field.IsEmpty() && !c.AssignFieldName(field))
      return false;
    c.m_operator = static_cast<std::int32_t>(op);
    c.m_valueKind = static_cast<std::int32_t>(kind);
    c.m_valueText = value;
    c.m_doubleValue = 0.0;
    c.m_int64Value = 0;
    c.m_regEx.Clear();
    switch (kind) {
    case kindNone: return true;
    case kindNumber: {
      DKInt64 integer = 0;
      if (ReadExactInt64(value, integer)) {
        c.SetNumber(static_cast<double>(integer), integer, value, true);
      } else {
        bool ok = false;
        const double number = value.AsDouble(&ok);
        if (!ok || value.IsEmpty())
          return false;
        c.SetNumber(number, TruncateToInt64(number), value, false);
      }
      break;
    }
    case kindDateTime: {
      DKInt64 count64 = 0;
      if (!ReadExactInt64(seconds, count64) || count64 < DKDateTime::minimum.GetTime_t() ||
          count64 > DKDateTime::maximum.GetTime_t())
        return false;
      c.m_int64Value = count64;
      c.m_doubleValue = static_cast<double>(count64);
      break;
    }
    case kindRegEx:
      c.AsRegExp(); // one that does not compile stays so, as operator% leaves it: it matches nothing
      break;
    default: break;
    }
    return c.PostAssignSuppliedValue();
  };

  m_subConditions.clear();
  std::size_t count = 0;
  if (!readHead(*this, count))
    return false;
  struct Frame {
    DKCondition* condition;
    std::size_t remaining;
  };
  std::vector<Frame> stack{{this, count}};
  while (!stack.empty()) {
    if (stack.back().remaining == 0) {
      stack.pop_back();
      continue;
    }
    --stack.back().remaining;
    DKCondition& parent = *stack.back().condition;
    std::size_t link = 0;
    if (pos >= tokens.size() || !ReadCount(tokens[pos++], link) || link > LinkedCond::AND)
      return false;
    DKSmartPtr<DKCondition> child = parent.NewChild();
    if (!child)
      return false;
    parent.m_subConditions.push_back({static_cast<std::uint32_t>(link), child});
    if (!readHead(*child, count))
      return false;
    stack.push_back({child.Get(), count});
  }
  return pos == tokens.size();
}

bool DKCondition::FromString(const DKString& text) {
  const ParseDepthGuard depth;
  if (!depth.Ok())
    return false;
  try {
    // The text ends at its first U+0000, as a C string would: a value read past it could not
    // be written back in readable form.
    for (std::size_t i = 0; i < text.Length(); ++i)
      if (text[i] == 0)
        return ParseText(text.SubStr(0, i));
    return ParseText(text);
  } catch (...) {
    return false; // nothing a derived class's hook or an allocation throws leaves the parser
  }
}

bool DKCondition::ParseText(const DKString& text) {
  if (IsNativeFormat(text)) {
    std::vector<DKChar> buffer(text.begin() + 2, text.end());
    buffer.push_back(0);
    DKTokenizer tokenizer;
    tokenizer.SetSeparators(DK_T("@"));
    tokenizer.AllowEmptyTokens(true);
    DKPointerVector<DKChar> tokens;
    tokenizer.Tokenize(buffer.data(), tokens);
    return FromNativeString(tokens);
  }

  // The condition being read: a link word makes a linked condition, which reads the rest of the
  // text, in this same loop.
  DKCondition* condition = this;
  std::size_t pos = SkipBlanks(text, 0);
  if (pos >= text.Length())
    return true;
  for (;;) {
    std::size_t last; // the last character read
    if (text[pos] == '(') {
      // Refuse a run of parentheses deeper than the bound before scanning for their ends.
      std::size_t opened = 0;
      for (std::size_t p = pos; p < text.Length() && (text[p] == '(' || IsBlank(text[p])); ++p)
        opened += text[p] == '(' ? 1 : 0;
      if (t_parseDepth + opened > maxParseDepth + 1)
        return false;
      last = MatchingParenthesis(text, pos);
      if (last == DKString::npos)
        return false;
      DKSmartPtr<DKCondition> child = condition->NewChild();
      if (!child || !child->FromString(text.SubStr(pos + 1, last - pos - 1)))
        return false;
      // The child is copied here, but its links move over: nothing else holds them, and copies
      // would cost as much again at every level of parentheses.
      std::vector<LinkedCond> links = std::move(child->m_subConditions);
      child->m_subConditions.clear();
      condition->LocalCopy(*child);
      condition->m_subConditions = std::move(links);
    } else {
      std::size_t end = WordEnd(text, pos);
      const DKString word = text.SubStr(pos, end - pos);
      bool isAnd = false;
      if (IsLinkWord(word, isAnd)) {
        // The whole rest is the linked condition; a link word needs one.
        if (IsBlankFrom(text, end))
          return false;
        DKSmartPtr<DKCondition> child = condition->NewChild();
        if (!child)
          return false;
        condition->m_subConditions.push_back({isAnd ? LinkedCond::AND : LinkedCond::OR, child});
        if (!isAnd)
          ConsoleLine("OR Parsing not implemented!");
        condition = child.Get();
        pos = SkipBlanks(text, end);
        continue;
      }
      if (!condition->AssignFieldName(word))
        return false;

      pos = SkipBlanks(text, end);
      end = WordEnd(text, pos);
      bool isRegEx = false;
      if (!condition->AssignOperatorFromStr(isRegEx, text.SubStr(pos, end - pos)))
        return false;

      pos = SkipBlanks(text, end);
      if (pos >= text.Length())
        return false;
      end = ValueEnd(text, pos); // a quoted text whole, blanks included, whatever it says
      if (end == DKString::npos || !condition->AssignSuppliedValueFromStr(isRegEx, text.SubStr(pos, end - pos)))
        return false;
      last = end - 1;
    }

    // What follows must be a link: "AND ..." or "OR ...".
    if (IsBlankFrom(text, last + 1))
      return true;
    pos = SkipBlanks(text, last + 1);
    bool isAnd = false;
    if (!IsLinkWord(text.SubStr(pos, WordEnd(text, pos) - pos), isAnd))
      return false;
  }
}
