#include <DorvikCore/DKMessageSource.h>

#include <mutex>
#include <shared_mutex>
#include <unordered_map>

namespace {

bool IsDigit(DKChar ch) noexcept { return ch >= DK_T('0') && ch <= DK_T('9'); }
bool IsAsciiLetter(DKChar ch) noexcept {
  return (ch >= DK_T('a') && ch <= DK_T('z')) || (ch >= DK_T('A') && ch <= DK_T('Z'));
}

// Longest parameter index accepted in a placeholder, in digits.
constexpr std::size_t kMaxIndexDigits = 9;

void AppendUnits(DKString& out, const DKChar* text, std::size_t count) {
  if (count > 0) // Append treats a count of 0 as "up to the terminator"
    out.Append(text, count);
}

} // namespace

DKMessageSource::~DKMessageSource() = default;

DKString DKMessageSource::FillPlaceholders(const DKString& text, const DKFormatContext& context) {
  const DKChar* p = text.c_str();
  const std::size_t n = text.Length();
  const DKErrorI* error = context.GetError();
  const std::size_t paramCount = error ? error->GetParameterCount() : 0;

  DKString out;
  out.Reserve(n);
  std::size_t runStart = 0; // start of the literal text not yet copied
  std::size_t i = 0;
  while (i < n) {
    if (p[i] != DK_T('%')) {
      ++i;
      continue;
    }
    AppendUnits(out, p + runStart, i - runStart);
    if (i + 1 < n && p[i + 1] == DK_T('%')) {
      out.Append(DK_T('%'));
      runStart = i += 2;
      continue;
    }
    // "%" digits ":" letter
    std::size_t j = i + 1;
    std::size_t index = 0;
    while (j < n && IsDigit(p[j]) && j - i <= kMaxIndexDigits)
      index = index * 10 + static_cast<std::size_t>(p[j++] - DK_T('0'));
    const bool wellFormed = j > i + 1 && j + 1 < n && p[j] == DK_T(':') && IsAsciiLetter(p[j + 1]);
    if (!wellFormed) {
      // Not a placeholder: the "%" stays and the scan goes on after it.
      runStart = i;
      ++i;
      continue;
    }
    const std::size_t end = j + 2;
    if (index < paramCount)
      out.Append(error->GetParameterValueAsString(index, context.GetExecContext()));
    else
      AppendUnits(out, p + i, end - i); // no such parameter: keep the placeholder visible
    runStart = i = end;
  }
  AppendUnits(out, p + runStart, n - runStart);
  return out;
}

DKErrorID DKMessageSource::UnknownCode(DKString& out, long code) {
  DKSmartPtr<DKErrorWithArgs> error = DKLibraryError(DK_MSG_UNKNOWN_MESSAGE);
  error->AddParam(code);
  // Built here rather than through the library's source, so that a source lacking this very
  // message cannot send the lookup round in circles.
  out = DKString(DK_T("Unknown message ")) + error->GetParameterValueAsString(0, DKExecContext());
  return error;
}

// ---------------------------------------------------------------------------------------------
// DKMemoryMessageSource

struct DKMemoryMessageSource::Impl {
  mutable std::shared_mutex lock;
  std::unordered_map<long, DKString> messages;
};

DKMemoryMessageSource::DKMemoryMessageSource() : m_impl(std::make_unique<Impl>()) {}

DKMemoryMessageSource::DKMemoryMessageSource(std::initializer_list<Entry> entries) : DKMemoryMessageSource() {
  for (const Entry& entry : entries)
    m_impl->messages[entry.code] = DKString(entry.text);
}

DKMemoryMessageSource::~DKMemoryMessageSource() = default;

void DKMemoryMessageSource::Add(long code, const DKString& text) {
  std::unique_lock guard(m_impl->lock);
  m_impl->messages[code] = text;
}

bool DKMemoryMessageSource::Remove(long code) {
  std::unique_lock guard(m_impl->lock);
  return m_impl->messages.erase(code) != 0;
}

bool DKMemoryMessageSource::Contains(long code) const {
  std::shared_lock guard(m_impl->lock);
  return m_impl->messages.count(code) != 0;
}

std::size_t DKMemoryMessageSource::GetCount() const {
  std::shared_lock guard(m_impl->lock);
  return m_impl->messages.size();
}

bool DKMemoryMessageSource::GetTemplate(long code, DKString& out) const {
  std::shared_lock guard(m_impl->lock);
  const auto it = m_impl->messages.find(code);
  if (it == m_impl->messages.end())
    return false;
  out = it->second;
  return true;
}

DKErrorID DKMemoryMessageSource::GetText(DKString& out, long code, const DKFormatContext& context) const {
  DKString text;
  if (!GetTemplate(code, text))
    return UnknownCode(out, code);
  // Filled outside the lock: filling calls back into the error's parameters.
  out = FillPlaceholders(text, context);
  return DKErrorID();
}
