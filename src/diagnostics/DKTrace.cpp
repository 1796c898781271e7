#include "os/DKClock.h"
#include "os/DKFileSystem.h"
#include "os/DKProcess.h"

#include <DorvikCore/DKConsole.h>
#include <DorvikCore/DKDirectory.h>
#include <DorvikCore/DKFormat.h>
#include <DorvikCore/DKString.h>
#include <DorvikCore/DKTrace.h>

#include <algorithm>
#include <charconv>
#include <ctime>
#include <limits>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

std::atomic<int> DKTrace::TracingEnabled{-1};
std::atomic<int> DKTrace::CurrTraceLevel{TL_NORMAL};
std::atomic<int> DKTrace::CurrTraceDelim{9};
std::atomic<int> DKTrace::CurrTraceSubject{0};
std::atomic<std::FILE*> DKTrace::fp{nullptr};
std::atomic<std::uint64_t> DKTrace::ActiveFilter{~std::uint64_t{0}};

namespace {

constexpr int kDefaultDelim = 9; // TAB
constexpr std::size_t kMaxHexText = 4095;
// A line buffer that grew beyond this for one huge line is given back afterwards.
constexpr std::size_t kKeptBufferCapacity = 64 * 1024;

struct SubjectCode {
  TracelSubjects bit;
  const char* code;
  const DKChar* text;
};

constexpr SubjectCode kSubjectCodes[] = {
    {TS_SO, "SO", DK_T("SO")}, {TS_CO, "CO", DK_T("CO")},    {TS_BR, "BR", DK_T("BR")}, {TS_PE, "PE", DK_T("PE")},
    {TS_DB, "DB", DK_T("DB")}, {TS_REQ, "REQ", DK_T("REQ")}, {TS_DP, "DP", DK_T("DP")}, {TS_SQL, "SQL", DK_T("SQL")},
    {TS_DK, "DK", DK_T("DK")}, {TS_DL, "DL", DK_T("DL")},
};

// The trace's state besides the words the filters read. Created on first use and never
// destroyed, so that tracing still works from static constructors and destructors.
// Lock order: subjects, then level, delimiter and folder, then writer; hex, then writer.
struct TraceState {
  std::recursive_mutex levelLock;
  std::recursive_mutex delimLock;
  std::recursive_mutex folderLock;
  std::recursive_mutex subjectsLock;
  std::mutex writerLock;
  std::mutex hexLock;

  bool InitTracingDone = false;       // subjects lock
  bool InitTraceSubjectsDone = false; // subjects lock
  bool InitTraceLevelDone = false;    // level lock
  bool InitTraceDelimDone = false;    // delimiter lock
  bool InitTraceFolderDone = false;   // folder lock
  DKString CurrTraceFolderName;       // folder lock

  // Writer lock: the line being written, and the date-time text of the last second seen.
  std::string line;
  std::int64_t stampSecond = std::numeric_limits<std::int64_t>::min();
  char stamp[32] = {};
  std::size_t stampLength = 0;

  // Hex lock: the printable text of a buffer and a chunk of its hexadecimal block.
  std::string hexText;
  std::string hexBlock;
};

TraceState& State() {
  static TraceState* const state = new TraceState;
  return *state;
}

// Console complaints are collected while the trace's locks are held and written once the
// outermost trace call has let them go: the console verbosity comes from the application,
// which may hold its own lock while it traces.
class ComplaintScope {
public:
  ComplaintScope() noexcept : m_outermost(t_current == nullptr) {
    if (m_outermost)
      t_current = this;
  }
  ~ComplaintScope() {
    if (!m_outermost)
      return;
    t_current = nullptr;
    Write(m_lines);
  }
  ComplaintScope(const ComplaintScope&) = delete;
  ComplaintScope& operator=(const ComplaintScope&) = delete;

  static void Add(std::string line) noexcept {
    try {
      if (t_current) {
        t_current->m_lines.push_back(std::move(line));
        return;
      }
      std::vector<std::string> lines;
      lines.push_back(std::move(line));
      Write(lines);
    } catch (...) {
      // Out of memory: the complaint is dropped.
    }
  }

private:
  static void Write(const std::vector<std::string>& lines) noexcept {
    if (lines.empty())
      return;
    try {
      if (GlbGetTraceLevel() == 0)
        return;
      DKLockedCOUT console;
      for (const std::string& line : lines)
        console.GetCout() << line << std::endl;
    } catch (...) {
      // The console is best effort: a failing stream must not stop the trace.
    }
  }

  static thread_local ComplaintScope* t_current;
  bool m_outermost;
  std::vector<std::string> m_lines;
};

thread_local ComplaintScope* ComplaintScope::t_current = nullptr;

bool IsWhiteSpace(DKChar ch) noexcept {
  if (ch <= 0x20)
    return ch == 0x20 || (ch >= 0x09 && ch <= 0x0D);
  if (ch < 0x85)
    return false;
  return ch == 0x85 || ch == 0xA0 || ch == 0x1680 || (ch >= 0x2000 && ch <= 0x200A) || ch == 0x2028 || ch == 0x2029 ||
         ch == 0x202F || ch == 0x205F || ch == 0x3000;
}

// The position of the last path separator, or npos.
std::size_t LastSeparator(const DKString& path) {
  for (std::size_t i = path.Length(); i > 0; --i)
    if (DKFileSystem::IsSeparator(path[i - 1]))
      return i - 1;
  return DKString::npos;
}

template <class Integer> void AppendDecimal(std::string& out, Integer value, int minDigits = 1) {
  char digits[24];
  const auto result = std::to_chars(digits, digits + sizeof digits, value);
  const auto length = static_cast<int>(result.ptr - digits);
  if (length < minDigits)
    out.append(static_cast<std::size_t>(minDigits - length), '0');
  out.append(digits, result.ptr);
}

// "<date-time>.<ms><d><thread id><d><source><d><level><d><subject code><d>"
void AppendPrefix(TraceState& s, std::string& out, int level, const char* code, const char* source, int delim) {
  const DKClockReading now = DKClock::Now();
  if (now.seconds != s.stampSecond) {
    std::tm local{};
    s.stampLength = DKProcess::ToLocalTime(now.seconds, local)
                        ? std::strftime(s.stamp, sizeof s.stamp, "%Y-%m-%d;%H:%M:%S", &local)
                        : 0;
    s.stampSecond = now.seconds;
  }
  const char d = static_cast<char>(static_cast<unsigned char>(delim));
  out.append(s.stamp, s.stampLength);
  out += '.';
  AppendDecimal(out, now.milliseconds, 3);
  out += d;
  AppendDecimal(out, DKProcess::CurrentThreadId());
  out += d;
  out += source ? source : "(null)";
  out += d;
  AppendDecimal(out, level);
  out += d;
  out += code;
  out += d;
}

// Writes the buffer and flushes the file, so that a crash loses nothing. Writing errors are
// ignored: the trace must never change what the program does.
void Emit(std::FILE* file, std::string& buffer) {
  std::fwrite(buffer.data(), 1, buffer.size(), file);
  std::fflush(file);
  if (buffer.capacity() > kKeptBufferCapacity)
    std::string().swap(buffer);
  else
    buffer.clear();
}

// The hexadecimal block of MsgHex, 16 bytes a row:
//   "  0016: 41 42 ... 50 ;AB...P" with non-printable bytes shown as "." after the ";".
// Written in chunks so that a huge buffer never needs a huge text.
void WriteHexBlock(std::FILE* file, const unsigned char* data, std::int32_t count, std::string& out) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  out.clear();
  for (std::int64_t row = 0; row < count; row += 16) {
    const auto n = static_cast<int>(std::min<std::int64_t>(16, count - row));
    const unsigned char* bytes = data + row;
    out += "  ";
    AppendDecimal(out, row, 4);
    out += ": ";
    for (int i = 0; i < n; ++i) {
      out += kHex[bytes[i] >> 4];
      out += kHex[bytes[i] & 0x0F];
      out += ' ';
    }
    for (int i = n; i < 16; ++i)
      out += "   ";
    out += ';';
    for (int i = 0; i < n; ++i)
      out += bytes[i] >= 0x20 && bytes[i] <= 0x7E ? static_cast<char>(bytes[i]) : '.';
    out += '\n';
    if (out.size() >= kKeptBufferCapacity - 128) {
      std::fwrite(out.data(), 1, out.size(), file);
      out.clear();
    }
  }
  Emit(file, out);
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Filters and the environment

bool DKTrace::DecideTracing() noexcept {
  try {
    ComplaintScope complaints;
    InitTracing(false);
  } catch (...) {
    // Out of memory while reading the environment: tracing stays off.
  }
  int undecided = -1;
  TracingEnabled.compare_exchange_strong(undecided, 0, std::memory_order_relaxed);
  RefreshFilter();
  return TracingEnabled.load(std::memory_order_relaxed) > 0;
}

void DKTrace::InitTracing(bool calledFromSetTraceSubjects) {
  TraceState& s = State();
  std::lock_guard subjectsGuard(s.subjectsLock);
  if (s.InitTracingDone)
    return;
  s.InitTracingDone = true;

  DKString value;
  {
    std::lock_guard guard(s.levelLock);
    if (!s.InitTraceLevelDone && DKProcess::EnvironmentVariable("DK_TRACE_LEVEL", value)) {
      s.InitTraceLevelDone = true;
      CurrTraceLevel.store(value.AsInt() | TL_NORMAL, std::memory_order_relaxed);
      RefreshFilter();
    }
  }
  {
    std::lock_guard guard(s.delimLock);
    if (!s.InitTraceDelimDone && DKProcess::EnvironmentVariable("DK_TRACE_DELIM", value))
      SetTraceDelim(value.AsInt());
  }
  {
    std::lock_guard guard(s.folderLock);
    if (!s.InitTraceFolderDone)
      SetTraceFolderName(DKProcess::EnvironmentVariable("DK_TRACE_FOLDER", value) ? value.c_str() : nullptr);
  }
  if (!calledFromSetTraceSubjects && !s.InitTraceSubjectsDone)
    SetTraceSubjects(DKProcess::EnvironmentVariable("DK_TRACE", value) ? value.c_str() : nullptr);
}

// Serialised, so that the last change's refresh is the one that stays: each reads every input
// after its own change was made.
void DKTrace::RefreshFilter() noexcept {
  static std::mutex refreshLock;
  std::lock_guard guard(refreshLock);
  const int enabled = TracingEnabled.load(std::memory_order_relaxed);
  std::uint64_t filter = ~std::uint64_t{0};
  if (enabled >= 0)
    filter = enabled > 0 && fp.load(std::memory_order_relaxed)
                 ? FilterBits(CurrTraceLevel.load(std::memory_order_relaxed),
                              CurrTraceSubject.load(std::memory_order_relaxed))
                 : 0;
  ActiveFilter.store(filter, std::memory_order_relaxed);
}

// ---------------------------------------------------------------------------------------------
// Setters

bool DKTrace::SetTraceLevel(int level) {
  TraceState& s = State();
  std::lock_guard guard(s.levelLock);
  s.InitTraceLevelDone = true;
  CurrTraceLevel.store(level | TL_NORMAL, std::memory_order_relaxed);
  RefreshFilter();
  return true;
}

bool DKTrace::SetTraceDelim(int delimiter) {
  ComplaintScope complaints;
  TraceState& s = State();
  std::lock_guard guard(s.delimLock);
  s.InitTraceDelimDone = true;
  if (delimiter >= 1 && delimiter <= 255) {
    CurrTraceDelim.store(delimiter, std::memory_order_relaxed);
    return true;
  }
  CurrTraceDelim.store(kDefaultDelim, std::memory_order_relaxed);
  ComplaintScope::Add("Illegal trace delimiter specified; trace delimiter has been reset to default");
  return false;
}

bool DKTrace::SetTraceFolderName(const DKChar* folder) {
  try {
    ComplaintScope complaints;
    TraceState& s = State();
    std::lock_guard guard(s.folderLock);
    s.InitTraceFolderDone = true;
    s.CurrTraceFolderName = BuildFolderName(folder);
    if (!fp.load(std::memory_order_relaxed))
      return true;
    CloseTraceFile();
    return OpenTraceFile();
  } catch (...) {
    return false;
  }
}

bool DKTrace::SetTraceSubjects(const DKChar* subjects) {
  try {
    ComplaintScope complaints;
    TraceState& s = State();
    std::lock_guard guard(s.subjectsLock);
    InitTracing(true);
    s.InitTraceSubjectsDone = true;

    int mask = 0;
    if (subjects && *subjects) {
      const DKString cleaned = RemoveWhiteSpace(subjects);
      DKStdString buffer(cleaned.c_str(), cleaned.Length()); // the tokenizer splits in place
      DKTokenizer tokenizer;
      tokenizer.SetSeparators(DK_T(","));
      DKPointerVector<DKChar> tokens;
      tokenizer.Tokenize(buffer.data(), tokens);
      for (const DKChar* token : tokens)
        for (const SubjectCode& subject : kSubjectCodes)
          if (std::basic_string_view<DKChar>(token) == subject.text)
            mask |= subject.bit;
    }
    CurrTraceSubject.store(mask, std::memory_order_relaxed);

    if (mask == 0) {
      TracingEnabled.store(0, std::memory_order_relaxed);
      CloseTraceFile();
      RefreshFilter();
      return true;
    }
    {
      std::lock_guard folderGuard(s.folderLock);
      if (!fp.load(std::memory_order_relaxed) && !OpenTraceFile())
        return false;
    }
    TracingEnabled.store(1, std::memory_order_relaxed);
    RefreshFilter();
    return true;
  } catch (...) {
    return false;
  }
}

// ---------------------------------------------------------------------------------------------
// The trace file

DKString DKTrace::BuildFolderName(const DKChar* folder) {
  if (folder && *folder) {
    const DKString given(folder);
    if (DKDirectory::IsPathExists(given) || (DKDirectory::Create(given, true) && DKDirectory::IsPathExists(given)))
      return given;
    ComplaintScope::Add("Cannot create folder " + given.AsUTF8());
  } else {
    DKString executable;
    const std::size_t separator = DKProcess::GetExecutablePath(executable) ? LastSeparator(executable) : DKString::npos;
    if (separator != DKString::npos)
      return executable.SubStr(0, separator);
    ComplaintScope::Add("Cannot determine folder");
  }
  return GetTempFolder();
}

DKString DKTrace::GetTempFolder() {
  return DKProcess::GetTempFolder();
}

DKString DKTrace::BuildFileName() {
  DKString executable;
  if (!DKProcess::GetExecutablePath(executable))
    return DKString(DK_T("unknown"));
  const std::size_t separator = LastSeparator(executable);
  DKString base = separator == DKString::npos ? executable : executable.SubStr(separator + 1);
  // The extension goes; a name that starts with its only dot keeps it.
  const std::size_t dot = base.RFind(DK_T('.'));
  if (dot != DKString::npos && dot > 0)
    base = base.SubStr(0, dot);
  return DKFormatString(DK_T("%s__%lu.log"), base.c_str(), DKProcess::ProcessId());
}

bool DKTrace::OpenTraceFile() {
  TraceState& s = State();
  std::lock_guard folderGuard(s.folderLock);
  DKString path = s.CurrTraceFolderName;
  path += DKFileSystem::Separator();
  path += BuildFileName();
  const std::string utf8 = path.AsUTF8();
  std::FILE* file = utf8.find('\0') == std::string::npos ? DKFileSystem::OpenFile(utf8, "w") : nullptr;
  if (!file) {
    ComplaintScope::Add("Cannot open trace file " + utf8);
    return false;
  }
  std::FILE* previous = nullptr;
  {
    std::lock_guard writerGuard(s.writerLock);
    previous = fp.exchange(file, std::memory_order_relaxed);
  }
  RefreshFilter();
  if (previous)
    std::fclose(previous);
  return true;
}

void DKTrace::CloseTraceFile() {
  TraceState& s = State();
  std::FILE* previous = nullptr;
  {
    std::lock_guard writerGuard(s.writerLock);
    previous = fp.exchange(nullptr, std::memory_order_relaxed);
  }
  RefreshFilter();
  if (previous)
    std::fclose(previous);
}

DKString DKTrace::RemoveWhiteSpace(const DKChar* text) {
  DKString result;
  if (!text)
    return result;
  for (const DKChar* p = text; *p; ++p)
    if (!IsWhiteSpace(*p))
      result += *p;
  return result;
}

const char* DKTrace::GetTraceSubjectDescr(TracelSubjects subject) noexcept {
  for (const SubjectCode& code : kSubjectCodes)
    if (code.bit == subject)
      return code.code;
  return "??";
}

// ---------------------------------------------------------------------------------------------
// Writers

void DKTrace::WriteMsg(TracelLevels level, TracelSubjects subject, const char* source, const char* format,
                       DKFormatArgList args) {
  if (!TraceThisSubject(level, subject))
    return;
  WriteFormatted(level, subject, source, format, [&](std::string& line) { DKFormatAppend(line, format, args); });
}

void DKTrace::MsgV(TracelLevels level, TracelSubjects subject, const char* source, const char* format, va_list args) {
  if (!TraceThisSubject(level, subject))
    return;
  WriteFormatted(level, subject, source, format, [&](std::string& line) { DKFormatAppendV(line, format, args); });
}

// Writes one line: the prefix, then what appendText adds. Drops the line when memory runs out.
template <class AppendText>
void DKTrace::WriteFormatted(TracelLevels level, TracelSubjects subject, const char* source, const char* format,
                             AppendText appendText) {
  TraceState& s = State();
  std::lock_guard guard(s.writerLock);
  std::FILE* file = fp.load(std::memory_order_relaxed);
  if (!file)
    return;
  try {
    s.line.clear();
    AppendPrefix(s, s.line, level, GetTraceSubjectDescr(subject), source,
                 CurrTraceDelim.load(std::memory_order_relaxed));
    if (format)
      appendText(s.line);
  } catch (...) {
    return; // out of memory: the line is dropped
  }
  Emit(file, s.line);
}

void DKTrace::WriteHex(TracelLevels level, TracelSubjects subject, const char* source, const void* bytes,
                       std::int32_t length) {
  if (!TraceThisSubject(level, subject))
    return;
  TraceState& s = State();
  const auto* data = static_cast<const unsigned char*>(bytes);
  const std::int32_t count = data && length > 0 ? length : 0;
  std::lock_guard hexGuard(s.hexLock);
  try {
    s.hexText.clear();
    for (std::int32_t i = 0; i < count && s.hexText.size() < kMaxHexText; ++i)
      if (data[i] >= 0x20 && data[i] <= 0x7E)
        s.hexText += static_cast<char>(data[i]);

    // The summary line and the block are written under one hold of the writer lock, so no
    // other line lands in between.
    std::lock_guard writerGuard(s.writerLock);
    std::FILE* file = fp.load(std::memory_order_relaxed);
    if (!file)
      return;
    s.line.clear();
    AppendPrefix(s, s.line, level, GetTraceSubjectDescr(subject), source,
                 CurrTraceDelim.load(std::memory_order_relaxed));
    s.line += "(nrbytes=";
    AppendDecimal(s.line, length);
    s.line += "): ";
    s.line += s.hexText;
    s.line += '\n';
    Emit(file, s.line);
    if ((CurrTraceLevel.load(std::memory_order_relaxed) & TL_HEX) != 0 && count > 0)
      WriteHexBlock(file, data, count, s.hexBlock);
  } catch (...) {
    // Out of memory: what could not be written is dropped.
  }
}
