#include <DorvikCore/DKCharacter.h>
#include <DorvikCore/DKCommandLine.h>

#include <cstdint>
#include <memory>
#include <utility>

namespace {

constexpr DKChar quote = DK_T('"');

bool IsBlank(DKChar ch) noexcept { return ch == DK_T(' ') || ch == DK_T('\t'); }

// Whether ch is one of the characters of a terminated set (sets are a few characters long).
bool IsOneOf(const DKChar* set, DKChar ch) noexcept {
  for (; *set; ++set)
    if (*set == ch)
      return true;
  return false;
}

bool Contains(const DKString& set, DKChar ch) noexcept { return ch != 0 && IsOneOf(set.c_str(), ch); }

// Whether the first word of a command-line string is a program path rather than a switch:
// "/usr/bin/tool" is a path, "/config:a.ini" and "/help" are switches.
bool IsProgramPath(const DKString& word, const DKString& valueDelimiters) {
  if (word[0] != DK_T('/') && word[0] != DK_T('\\'))
    return false;
  if (!valueDelimiters.IsEmpty() && word.FindFirstOf(valueDelimiters, 1) != DKString::npos)
    return false;
  return word.FindFirstOf(DK_T("/\\"), 1) != DKString::npos;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Construction

DKCommandLine::DKCommandLine() { Init(DKString(), standardArgDelimiters, standardValueDelimiters, false); }

DKCommandLine::DKCommandLine(std::size_t argc, const DKChar* const* argv, const DKString& argDelimiters,
                             const DKString& valueDelimiters, bool caseSensitive) {
  Init(argc, argv, argDelimiters, valueDelimiters, caseSensitive);
}

DKCommandLine::DKCommandLine(std::size_t argc, const char* const* argv, const DKString& argDelimiters,
                             const DKString& valueDelimiters, bool caseSensitive) {
  Init(argc, argv, argDelimiters, valueDelimiters, caseSensitive);
}

DKCommandLine::DKCommandLine(const DKString& commandLine, const DKString& argDelimiters,
                             const DKString& valueDelimiters, bool caseSensitive) {
  Init(commandLine, argDelimiters, valueDelimiters, caseSensitive);
}

DKCommandLine::DKCommandLine(const DKCommandLine& other)
    : m_argc(other.m_argc), m_argv(other.m_argv), m_ownsVector(other.m_ownsVector), m_appName(other.m_appName),
      m_argDelimiters(other.m_argDelimiters), m_valueDelimiters(other.m_valueDelimiters),
      m_caseSensitive(other.m_caseSensitive), m_rawArguments(other.m_rawArguments),
      m_parsedArguments(other.m_parsedArguments), m_ownedWords(other.m_ownedWords) {
  RebuildOwnedVector();
}

DKCommandLine::DKCommandLine(DKCommandLine&& other) noexcept
    : m_argc(other.m_argc), m_argv(other.m_argv), m_ownsVector(other.m_ownsVector),
      m_appName(std::move(other.m_appName)), m_argDelimiters(std::move(other.m_argDelimiters)),
      m_valueDelimiters(std::move(other.m_valueDelimiters)), m_caseSensitive(other.m_caseSensitive),
      m_rawArguments(std::move(other.m_rawArguments)), m_parsedArguments(std::move(other.m_parsedArguments)),
      m_ownedWords(std::move(other.m_ownedWords)), m_ownedVector(std::move(other.m_ownedVector)),
      m_nameIndex(other.m_nameIndex.exchange(nullptr, std::memory_order_relaxed)) {
  // The moved-from object is left empty rather than pointing into this one's vector.
  other.m_argc = 0;
  other.m_argv = nullptr;
  other.m_ownsVector = false;
}

DKCommandLine& DKCommandLine::operator=(const DKCommandLine& other) {
  if (this != &other) {
    DKCommandLine copy(other);
    *this = std::move(copy);
  }
  return *this;
}

DKCommandLine& DKCommandLine::operator=(DKCommandLine&& other) noexcept {
  if (this != &other) {
    m_argc = std::exchange(other.m_argc, 0);
    m_argv = std::exchange(other.m_argv, nullptr);
    m_ownsVector = std::exchange(other.m_ownsVector, false);
    m_appName = std::move(other.m_appName);
    m_argDelimiters = std::move(other.m_argDelimiters);
    m_valueDelimiters = std::move(other.m_valueDelimiters);
    m_caseSensitive = other.m_caseSensitive;
    m_rawArguments = std::move(other.m_rawArguments);
    m_parsedArguments = std::move(other.m_parsedArguments);
    m_ownedWords = std::move(other.m_ownedWords);
    m_ownedVector = std::move(other.m_ownedVector);
    DropNameIndex();
    m_nameIndex.store(other.m_nameIndex.exchange(nullptr, std::memory_order_relaxed), std::memory_order_relaxed);
  }
  return *this;
}

DKCommandLine::~DKCommandLine() { DropNameIndex(); }

void DKCommandLine::RebuildOwnedVector() {
  if (!m_ownsVector)
    return;
  m_ownedVector.clear();
  m_ownedVector.reserve(m_ownedWords.size() + 1);
  for (const DKString& word : m_ownedWords)
    m_ownedVector.push_back(word.c_str());
  m_ownedVector.push_back(nullptr);
  m_argc = m_ownedWords.size();
  m_argv = m_ownedVector.data();
}

void DKCommandLine::SetDelimiters(const DKString& argDelimiters, const DKString& valueDelimiters,
                                  bool caseSensitive) {
  m_argDelimiters = argDelimiters;
  m_valueDelimiters = valueDelimiters;
  m_caseSensitive = caseSensitive;
}

void DKCommandLine::UseOwnedWords(std::vector<DKString>&& words) {
  m_ownedWords = std::move(words);
  m_ownsVector = true;
  RebuildOwnedVector();
  ParseCommandLine();
}

void DKCommandLine::Init(std::size_t argc, const DKChar* const* argv, const DKString& argDelimiters,
                         const DKString& valueDelimiters, bool caseSensitive) {
  SetDelimiters(argDelimiters, valueDelimiters, caseSensitive);
  m_ownedWords.clear();
  m_ownedVector.clear();
  m_ownsVector = false;
  m_argc = argv ? argc : 0;
  m_argv = argv;
  ParseCommandLine();
}

void DKCommandLine::Init(std::size_t argc, const char* const* argv, const DKString& argDelimiters,
                         const DKString& valueDelimiters, bool caseSensitive) {
  SetDelimiters(argDelimiters, valueDelimiters, caseSensitive);
  std::vector<DKString> words;
  if (argv) {
    words.resize(argc);
    for (std::size_t i = 0; i < argc; ++i)
      if (const char* text = argv[i])
        words[i] = DKString::FromUTF8(text);
  }
  UseOwnedWords(std::move(words));
}

void DKCommandLine::Init(const DKString& commandLine, const DKString& argDelimiters, const DKString& valueDelimiters,
                         bool caseSensitive) {
  SetDelimiters(argDelimiters, valueDelimiters, caseSensitive);
  std::vector<DKString> words = SplitCommandLine(commandLine);
  if (words.empty())
    words.emplace_back();
  else if (Contains(m_argDelimiters, words.front()[0]) && !IsProgramPath(words.front(), m_valueDelimiters))
    words.emplace(words.begin()); // the first word is a switch: the program name is empty
  UseOwnedWords(std::move(words));
}

// ---------------------------------------------------------------------------------------------
// Splitting and classifying

std::vector<DKString> DKCommandLine::SplitCommandLine(const DKString& commandLine) {
  std::vector<DKString> words;
  const DKChar* text = commandLine.c_str();
  const std::size_t length = DKStrLen(text); // up to the first NUL
  bool inQuotes = false;
  bool quoted = false; // the current word holds a double quote
  std::size_t start = 0;
  // Position `length` stands for a blank after the text, which closes the last word even when
  // a quote is still open.
  for (std::size_t i = 0; i <= length; ++i) {
    const DKChar ch = i < length ? text[i] : DK_T(' ');
    if (ch == quote) {
      quoted = true;
      if (!inQuotes)
        inQuotes = true;
      else if (i + 1 < length && text[i + 1] == quote)
        ++i; // a literal pair inside quotes: the quotes stay open
      else
        inQuotes = false;
    } else if (IsBlank(ch) && (!inQuotes || i == length)) {
      // A word ends at the first blank outside quotes, so a word that is not empty starts
      // with a character that is not a blank, or with a quote: it is never blanks alone.
      if (i > start) {
        words.push_back(commandLine.SubStr(start, i - start));
        if (quoted)
          RemoveQuotes(words.back());
      }
      start = i + 1;
      quoted = false;
    }
  }
  return words;
}

void DKCommandLine::RemoveQuotes(DKString& word) {
  std::size_t pos = word.Find(quote);
  if (pos == DKString::npos)
    return;
  const DKChar* text = word.c_str();
  const std::size_t length = word.Length();
  DKString result;
  result.Reserve(length);
  if (pos > 0)
    result.Append(text, pos);
  while (pos < length) {
    const DKChar ch = text[pos];
    if (ch != quote) {
      result.Append(ch);
      ++pos;
    } else if (pos + 1 < length && text[pos + 1] == quote) {
      result.Append(quote);
      pos += 2;
    } else {
      ++pos;
    }
  }
  word = std::move(result);
}

void DKCommandLine::ParseCommandLine() {
  DropNameIndex();
  m_rawArguments.clear();
  m_parsedArguments.clear();
  // Owned words are shared rather than copied from their pointers.
  auto word = [this](std::size_t i) { return m_ownsVector ? m_ownedWords[i] : DKString(m_argv[i]); };
  m_appName = m_argc > 0 ? word(0) : DKString();
  if (m_argc < 2)
    return;
  m_rawArguments.reserve(m_argc - 1);
  m_parsedArguments.reserve(m_argc - 1);
  for (std::size_t i = 1; i < m_argc; ++i) {
    m_rawArguments.push_back(word(i));
    m_parsedArguments.push_back(ParseArgument(m_rawArguments.back()));
  }
}

DKCommandLineArgument DKCommandLine::ParseArgument(const DKString& word) const {
  if (word.IsEmpty())
    return DKCommandLineArgument();
  const DKChar* text = word.c_str();
  const DKChar prefix = text[0];
  if (!Contains(m_argDelimiters, prefix))
    return DKCommandLineArgument(word, DKString(), NonStandard);
  // One pass to the first value delimiter. With the "/" prefix a further "/" before it makes
  // the word a path (/usr/lib/x); "-" has no such rule: -a-b is the switch a-b.
  const std::size_t length = word.Length();
  const DKChar* valueDelimiters = m_valueDelimiters.c_str();
  std::size_t valueAt = 0;
  for (; valueAt < length; ++valueAt) {
    const DKChar ch = text[valueAt];
    if (IsOneOf(valueDelimiters, ch))
      break;
    if (prefix == DK_T('/') && ch == DK_T('/') && valueAt > 0)
      return DKCommandLineArgument(word, DKString(), NonStandard);
  }
  if (valueAt == length)
    return DKCommandLineArgument(word.SubStr(1), DKString(), Flag);
  // A prefix that is also a value delimiter opens an empty name.
  const std::size_t nameLength = valueAt > 0 ? valueAt - 1 : 0;
  return DKCommandLineArgument(word.SubStr(1, nameLength), word.SubStr(valueAt + 1), Valued);
}

// ---------------------------------------------------------------------------------------------
// Look-ups

bool DKCommandLine::NamesEqual(DKStringView a, DKStringView b) const noexcept {
  if (m_caseSensitive)
    return a == b;
  const std::size_t length = a.size();
  if (length != b.size())
    return false;
  for (std::size_t i = 0; i < length; ++i) {
    const DKChar x = a[i];
    const DKChar y = b[i];
    if (x == y)
      continue;
    if ((x | y) < 0x80) { // ASCII: only letters that differ in case by 0x20 are equal
      if ((x ^ y) != 0x20 || static_cast<DKChar>((x | 0x20) - DK_T('a')) > DK_T('z') - DK_T('a'))
        return false;
    } else if (DKtowupper(x) != DKtowupper(y)) {
      return false;
    }
  }
  return true;
}

namespace {

// A hash of the name under the case-insensitive comparison, so that names equal in either
// comparison hash alike: each unit is folded to upper case, and an ASCII one also loses the case
// bit (cheap, and a unit whose upper case is ASCII folds with it). Four units make one 64-bit
// word of the hash.
std::uint32_t FoldedHash(DKStringView name) noexcept {
  auto fold = [](DKChar ch) -> std::uint64_t {
    if (ch >= 0x80)
      ch = DKtowupper(ch);
    return ch < 0x80 ? ch & ~0x20u : ch;
  };
  constexpr std::uint64_t kMix = 0x9E3779B97F4A7C15ull;
  const std::size_t length = name.size();
  std::uint64_t hash = length * kMix;
  std::size_t i = 0;
  for (; i + 4 <= length; i += 4)
    hash = (hash ^ (fold(name[i]) | fold(name[i + 1]) << 16 | fold(name[i + 2]) << 32 | fold(name[i + 3]) << 48)) * kMix;
  std::uint64_t tail = 0;
  for (int shift = 0; i < length; ++i, shift += 16)
    tail |= fold(name[i]) << shift;
  hash = (hash ^ tail) * kMix;
  return static_cast<std::uint32_t>(hash >> 32);
}

} // namespace

// Linear probing over a power-of-two table at most half full. Arguments go in in command-line
// order, so along one probe sequence equal names meet in that order and the first match is the
// first argument with the name, in case-sensitive look-ups too.
struct DKCommandLine::NameIndex {
  std::vector<std::uint32_t> hashes;  // per argument
  std::vector<std::uint32_t> slots;   // argument position + 1, or 0 for a free slot
  std::uint32_t mask = 0;
};

const DKCommandLine::NameIndex& DKCommandLine::GetNameIndex() const {
  if (const NameIndex* index = m_nameIndex.load(std::memory_order_acquire))
    return *index;
  auto built = std::make_unique<NameIndex>();
  const std::size_t count = m_parsedArguments.size();
  std::size_t size = 4;
  while (size < 2 * count)
    size *= 2;
  built->mask = static_cast<std::uint32_t>(size - 1);
  built->slots.assign(size, 0);
  built->hashes.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint32_t hash = FoldedHash(m_parsedArguments[i].GetArgument().View());
    built->hashes.push_back(hash);
    std::uint32_t slot = hash & built->mask;
    while (built->slots[slot] != 0)
      slot = (slot + 1) & built->mask;
    built->slots[slot] = static_cast<std::uint32_t>(i + 1);
  }
  const NameIndex* expected = nullptr;
  if (m_nameIndex.compare_exchange_strong(expected, built.get(), std::memory_order_acq_rel))
    return *built.release();
  return *expected; // another thread built the same index first
}

void DKCommandLine::DropNameIndex() noexcept {
  delete m_nameIndex.exchange(nullptr, std::memory_order_relaxed);
}

const DKCommandLineArgument* DKCommandLine::FindArgument(DKStringView name) const {
  if (m_parsedArguments.size() <= 8) { // a scan beats hashing the name
    for (const DKCommandLineArgument& argument : m_parsedArguments)
      if (NamesEqual(argument.GetArgument().View(), name))
        return &argument;
    return nullptr;
  }
  const NameIndex& index = GetNameIndex();
  const std::uint32_t hash = FoldedHash(name);
  for (std::uint32_t slot = hash & index.mask; const std::uint32_t entry = index.slots[slot];
       slot = (slot + 1) & index.mask) {
    const DKCommandLineArgument& argument = m_parsedArguments[entry - 1];
    if (index.hashes[entry - 1] == hash && NamesEqual(argument.GetArgument().View(), name))
      return &argument;
  }
  return nullptr;
}

const DKCommandLineArgument* DKCommandLine::FindArgument(const DKTextArg& name) const {
  DKStringView view;
  if (name.GetView(view))
    return FindArgument(view);
  const DKString decoded = name.Get();
  return FindArgument(decoded.View());
}

DKCommandLineArgument DKCommandLine::GetCommandLineArgument(const DKString& name) const {
  const DKCommandLineArgument* found = FindArgument(name.View());
  return found ? *found : DKCommandLineArgument();
}

bool DKCommandLine::ArgPresent(DKTextArg name) const {
  const DKCommandLineArgument* found = FindArgument(name);
  return found && found->GetArgType() != Absent;
}

DKString DKCommandLine::GetArg(DKTextArg name, const DKString& defaultValue) const {
  const DKCommandLineArgument* found = FindArgument(name);
  return found && found->GetArgType() != Absent ? found->GetValueAsString() : defaultValue;
}

namespace {

template <class T, class Convert>
T ConvertedArg(const DKCommandLineArgument* found, T defaultValue, bool* ok, Convert convert) {
  if (!found || found->GetArgType() == DKCommandLineArgument::Absent) {
    if (ok)
      *ok = true;
    return defaultValue;
  }
  return convert(found->GetValueAsString(), ok);
}

} // namespace

int DKCommandLine::GetArg(DKTextArg name, int defaultValue, bool* ok) const {
  return ConvertedArg(FindArgument(name), defaultValue, ok, [](const DKString& v, bool* k) { return v.AsInt(k); });
}

double DKCommandLine::GetArg(DKTextArg name, double defaultValue, bool* ok) const {
  return ConvertedArg(FindArgument(name), defaultValue, ok,
                      [](const DKString& v, bool* k) { return v.AsDouble(k); });
}

std::vector<DKCommandLine::Problem> DKCommandLine::Check(const DKUsageInfo& usage) const {
  return Check(std::vector<const DKUsageInfo*>{&usage});
}

std::vector<DKCommandLine::Problem> DKCommandLine::Check(const std::vector<const DKUsageInfo*>& usages) const {
  std::vector<DKUsageInfo::Option> options;
  for (const DKUsageInfo* usage : usages)
    if (usage)
      for (DKUsageInfo::Option& option : usage->GetOptions())
        options.push_back(std::move(option));
  std::vector<Problem> problems;
  for (std::size_t i = 0; i < m_parsedArguments.size(); ++i) {
    const DKCommandLineArgument& argument = m_parsedArguments[i];
    const ArgumentType type = argument.GetArgType();
    if (type != Flag && type != Valued)
      continue;
    const DKString& word = m_rawArguments[i];
    const DKUsageInfo::Option* option = nullptr;
    for (const DKUsageInfo::Option& candidate : options)
      if (NamesEqual(argument.GetArgument().View(), candidate.name.View())) {
        option = &candidate;
        break;
      }
    if (!option) {
      problems.push_back({Problem::UnknownSwitch, word, DKStrCat(DK_T("Unknown option "), word)});
      continue;
    }
    if (type == Flag) {
      if (option->value == DKUsageInfo::Option::RequiredValue)
        problems.push_back({Problem::MissingValue, word, DKStrCat(DK_T("Option "), word, DK_T(" needs a value"))});
      continue;
    }
    if (option->value == DKUsageInfo::Option::NoValue) {
      problems.push_back({Problem::UnexpectedValue, word, DKStrCat(DK_T("Option "), word, DK_T(" takes no value"))});
      continue;
    }
    bool ok = true;
    const DKString& value = argument.GetValueAsString();
    if (option->kind == DKUsageInfo::ValueKind::Integer)
      (void)value.AsInt(&ok);
    else if (option->kind == DKUsageInfo::ValueKind::Number)
      (void)value.AsDouble(&ok);
    if (!ok) {
      const DKChar* expected = option->kind == DKUsageInfo::ValueKind::Integer ? DK_T(" is not a whole number")
                                                                                : DK_T(" is not a number");
      problems.push_back({Problem::BadValue, word, DKStrCat(DK_T("Option "), word, DK_T(": \""), value, DK_T("\""), expected)});
    }
  }
  return problems;
}

DKString DKCommandLine::GetFileName(std::size_t index) const {
  for (const DKCommandLineArgument& argument : m_parsedArguments)
    if (argument.GetArgType() == NonStandard && index-- == 0)
      return argument.GetArgument();
  return DKString();
}

std::size_t DKCommandLine::GetInvalidArguments(const std::vector<DKString>& validNames,
                                               std::vector<DKString>& invalid) const {
  for (const DKCommandLineArgument& argument : m_parsedArguments) {
    if (argument.GetArgType() != Flag && argument.GetArgType() != Valued)
      continue;
    bool valid = false;
    for (const DKString& name : validNames)
      if (NamesEqual(argument.GetArgument().View(), name.View())) {
        valid = true;
        break;
      }
    if (!valid)
      invalid.push_back(argument.GetArgument());
  }
  return invalid.size();
}

std::vector<DKString> DKCommandLine::GetNonStandardArguments() const {
  std::vector<DKString> words;
  for (const DKCommandLineArgument& argument : m_parsedArguments)
    if (argument.GetArgType() != Flag && argument.GetArgType() != Valued)
      words.push_back(argument.GetArgument());
  return words;
}
