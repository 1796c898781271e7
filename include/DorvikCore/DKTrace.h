// DKTrace: the process-wide trace file, switched on from the environment or from code.
//
// Environment variables, read once, at the first query or the first SetTraceSubjects:
//   DK_TRACE         comma-separated subject codes, e.g. "SO,DB"; absent or empty: tracing off
//   DK_TRACE_LEVEL   decimal level mask; level 1 is always on, 8 adds hexadecimal dumps
//   DK_TRACE_DELIM   decimal character code of the field delimiter (1..255, TAB by default)
//   DK_TRACE_FOLDER  folder of the trace file (created when missing); the executable's folder
//                    by default, the temporary folder when neither can be used
// A setting fixed by its setter before the environment is read is never overridden by it.
//
// The trace file is "<executable base name>__<process id>.log", opened fresh for every run.
// Each line is written whole and flushed at once:
//   2024-03-01;14:05:09.042 <d> thread id <d> source <d> level <d> subject code <d> text
// where <d> is the delimiter; the caller's format supplies the line end.
//
// The check that decides whether a message is written reads a few words without a lock, so a
// message that is filtered out costs a few comparisons. TraceThisSubject lets a caller skip
// building expensive arguments. Configuration is meant to be settled (by the environment or at
// start-up) before threads trace; the setters are nevertheless safe to call at any time.
#pragma once

#include <DorvikCore/DKFormatArgs.h>
#include <DorvikCore/DKTypes.h>

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>

class DKObjectI;
class DKString;

// Message levels: a bit mask. A message is written when its level shares a bit with the
// current level mask; the level is printed as a decimal number in the line.
enum TracelLevels : int {
  TL_NORMAL = 0x01, // always enabled
  TL_DETAIL = 0x02, // details beyond the normal messages
  TL_DATA = 0x04, // data dumps (MsgHex)
  TL_HEX = 0x08,  // in the level mask: MsgHex adds a hexadecimal block
};

// Message subjects: a bit mask of ten subjects, each with the code used in DK_TRACE and in the
// written lines. A value that is not exactly one of them is written as "??".
enum TracelSubjects : int {
  TS_SO = 0x001,  // "SO" sockets
  TS_CO = 0x002,  // "CO" connections
  TS_BR = 0x004,  // "BR" brokers
  TS_PE = 0x008,  // "PE" peers
  TS_DB = 0x010,  // "DB" databases
  TS_REQ = 0x020, // "REQ" requests
  TS_DP = 0x040,  // "DP" dispatching
  TS_SQL = 0x080, // "SQL" SQL statements
  TS_DK = 0x100,  // "DK" the library itself
  TS_DL = 0x200,  // "DL" dynamic libraries and plug-ins
};

// The union of two level masks, or of two subject masks.
constexpr TracelLevels operator|(TracelLevels a, TracelLevels b) noexcept {
  return static_cast<TracelLevels>(static_cast<int>(a) | static_cast<int>(b));
}
constexpr TracelSubjects operator|(TracelSubjects a, TracelSubjects b) noexcept {
  return static_cast<TracelSubjects>(static_cast<int>(a) | static_cast<int>(b));
}

// The trace facility: static functions over one process-wide state, safe from any thread. An
// object may be made and copied, but holds nothing.
class DK_EXPORT DKTrace {
public:
  // All state is class-wide: there is nothing to make or copy.
  DKTrace() = default;
  DKTrace(const DKTrace&) = default;
  DKTrace& operator=(const DKTrace&) noexcept { return *this; }

  // Writes one line when level and subject pass the filters. The format is narrow (UTF-8) and
  // uses the library's conventions: "%s" takes a char string, "%S" a DKChar string. No line end
  // is added. A null format writes the line's prefix alone. The filters are checked here, at the
  // call site, so that a message that is not written costs a few comparisons and no call.
  // The arguments are captured with their types (DKFormatArgs.h): any text type prints with
  // %s, and a mismatched argument prints "%!d(type)" instead of undefined behaviour.
  template <class... Args>
  static void Msg(TracelLevels level, TracelSubjects subject, const char* source, const char* format,
                  const Args&... args) {
    if (MayTrace(level, subject)) [[unlikely]]
      WriteMsg(level, subject, source, format, DKMakeFormatArgs(args...));
  }
  // Msg with the arguments in a va_list, for functions that pass their own arguments on.
  static void MsgV(TracelLevels level, TracelSubjects subject, const char* source, const char* format, va_list args);

  // Writes "(nrbytes=<length>): <text>" where text holds the printable bytes (0x20..0x7E) of
  // the buffer, at most 4095 of them. When the level mask has TL_HEX, a hexadecimal block
  // follows, 16 bytes a row. A null buffer or a negative length reads no bytes: the line is
  // written with the given length and no text, and no block follows.
  static void MsgHex(TracelLevels level, TracelSubjects subject, const char* source, const void* bytes,
                     std::int32_t length) {
    if (MayTrace(level, subject)) [[unlikely]]
      WriteHex(level, subject, source, bytes, length);
  }

  // Kept as an entry point for objects; it writes nothing.
  static void MsgObject(TracelLevels, TracelSubjects, const char*, const DKObjectI*) noexcept {}

  // Whether tracing is on. The first query reads the environment.
  static bool IsTracingEnabled() noexcept {
    const int enabled = TracingEnabled.load(std::memory_order_relaxed);
    return enabled > 0 || (enabled < 0 && DecideTracing());
  }

  // Whether a message of this level and subject would be written.
  static bool TraceThisSubject(TracelLevels level, TracelSubjects subject) noexcept {
    const int enabled = TracingEnabled.load(std::memory_order_relaxed);
    if (enabled <= 0 && (enabled == 0 || !DecideTracing()))
      return false;
    return (CurrTraceLevel.load(std::memory_order_relaxed) & level) != 0 &&
           (CurrTraceSubject.load(std::memory_order_relaxed) & subject) != 0 &&
           fp.load(std::memory_order_relaxed) != nullptr;
  }

  // Sets the level mask; level 1 cannot be switched off. Always true.
  static bool SetTraceLevel(int level);
  // Sets the field delimiter, a character code 1..255. Out of range: the delimiter goes back to
  // TAB, a console line says so, and the result is false.
  static bool SetTraceDelim(int delimiter);
  // Sets the folder of the trace file (null or empty: the executable's folder), creating it when
  // missing; a folder that cannot be made falls back to the temporary folder. An open trace file
  // is reopened there. False when that reopening failed: tracing then writes nothing.
  static bool SetTraceFolderName(const DKChar* folder);
  // Parses a comma-separated list of subject codes (white space anywhere is removed; codes are
  // case-sensitive; unknown ones are ignored) and switches tracing on when a known code is in
  // it, off otherwise. False when the trace file could not be opened.
  static bool SetTraceSubjects(const DKChar* subjects);

private:
  // The call-site filter: one relaxed load and one test. ActiveFilter holds a bit for every
  // (level group, subject group) pair that the current masks let through, and none while
  // tracing is off or no file is open; it is all ones until the environment has been read, so
  // that the first message decides. Levels 1, 2, 4 and 8 and the ten subjects are groups of
  // their own; the remaining bits of each mask share one group, which the writers check
  // exactly.
  static constexpr int kSubjectGroups = 11;
  static constexpr std::uint64_t FilterBits(int level, int subject) noexcept {
    const auto subjects = static_cast<std::uint32_t>(subject);
    const std::uint64_t groups = (subjects & 0x3FFu) | (subjects >> 10 ? 0x400u : 0u);
    const auto levels = static_cast<std::uint32_t>(level);
    std::uint64_t bits = 0;
    for (int group = 0; group < 4; ++group)
      if (levels & (1u << group))
        bits |= groups << (group * kSubjectGroups);
    if (levels >> 4)
      bits |= groups << (4 * kSubjectGroups);
    return bits;
  }
  static bool MayTrace(TracelLevels level, TracelSubjects subject) noexcept {
    return (ActiveFilter.load(std::memory_order_relaxed) & FilterBits(level, subject)) != 0;
  }
  // Recomputes ActiveFilter from the masks, the switch and the file; called after each change.
  static void RefreshFilter() noexcept;

  // The writers behind Msg and MsgHex, called once the call-site filter has passed; they check
  // the filters exactly.
  static void WriteMsg(TracelLevels level, TracelSubjects subject, const char* source, const char* format,
                       DKFormatArgList args);
  template <class AppendText>
  static void WriteFormatted(TracelLevels level, TracelSubjects subject, const char* source, const char* format,
                             AppendText appendText);
  static void WriteHex(TracelLevels level, TracelSubjects subject, const char* source, const void* bytes,
                       std::int32_t length);
  static bool DecideTracing() noexcept;
  static void InitTracing(bool calledFromSetTraceSubjects);
  static bool OpenTraceFile();
  static void CloseTraceFile();
  static DKString BuildFileName();
  static DKString BuildFolderName(const DKChar* folder);
  static DKString GetTempFolder();
  static DKString RemoveWhiteSpace(const DKChar* text);
  static const char* GetTraceSubjectDescr(TracelSubjects subject) noexcept;

  // -1 not yet decided (environment not read), 0 off, 1 on.
  static std::atomic<int> TracingEnabled;
  // Level mask, bit 1 always set.
  static std::atomic<int> CurrTraceLevel;
  // Field delimiter, a character code 1..255.
  static std::atomic<int> CurrTraceDelim;
  // Subject mask.
  static std::atomic<int> CurrTraceSubject;
  // The open trace file, or null. Replaced only under the writer lock.
  static std::atomic<std::FILE*> fp;
  // The call-site filter (see MayTrace).
  static std::atomic<std::uint64_t> ActiveFilter;
};
