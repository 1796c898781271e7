// Fuzzes the trace's subject list (the text of DK_TRACE and SetTraceSubjects) and MsgHex.
// Property: the subjects that pass the filter are exactly the known codes among the
// comma-separated tokens once white space is dropped, and tracing is on when there is one.
#include <DorvikCore/DKError.h>
#include <DorvikCore/DKString.h>
#include <DorvikCore/DKTrace.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

constexpr struct {
  TracelSubjects bit;
  const DKChar* code;
} kCodes[] = {{TS_SO, DK_T("SO")}, {TS_CO, DK_T("CO")},   {TS_BR, DK_T("BR")}, {TS_PE, DK_T("PE")},
              {TS_DB, DK_T("DB")}, {TS_REQ, DK_T("REQ")}, {TS_DP, DK_T("DP")}, {TS_SQL, DK_T("SQL")},
              {TS_DK, DK_T("DK")}, {TS_DL, DK_T("DL")}};

bool IsBlank(DKChar c) {
  return c == 0x20 || (c >= 0x09 && c <= 0x0D) || c == 0x85 || c == 0xA0 || c == 0x1680 ||
         (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F || c == 0x3000;
}

// The expected mask, token by token: each token loses its blanks, then must equal a code.
int ExpectedMask(const DKStdString& text) {
  int mask = 0;
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find(DK_T(','), start);
    if (end == DKStdString::npos)
      end = text.size();
    DKStdString token;
    for (std::size_t i = start; i < end; ++i)
      if (!IsBlank(text[i]))
        token += text[i];
    for (const auto& code : kCodes)
      if (token == code.code)
        mask |= code.bit;
    start = end + 1;
  }
  return mask;
}

DKString g_folder;

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const std::string folder = (std::filesystem::temp_directory_path() / "dk_fuzz_trace").string();
  std::filesystem::create_directories(folder);
  g_folder = DKString::FromUTF8(folder);
  DKTrace::SetTraceLevel(TL_NORMAL | TL_HEX);
  DKTrace::SetTraceDelim(9);
  DKTrace::SetTraceFolderName(g_folder.c_str());
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The input as UTF-16 code units, up to the first terminator.
  DKStdString text;
  for (std::size_t i = 0; i + 1 < size; i += 2) {
    const auto unit = static_cast<DKChar>(data[i] | (data[i + 1] << 8));
    if (unit == 0)
      break;
    text += unit;
  }
  if (!DKTrace::SetTraceSubjects(text.c_str()))
    std::abort(); // the folder is writable: opening the file cannot fail
  const int expected = ExpectedMask(text);
  if (DKTrace::IsTracingEnabled() != (expected != 0))
    std::abort();
  for (const auto& code : kCodes)
    if (DKTrace::TraceThisSubject(TL_NORMAL, code.bit) != ((expected & code.bit) != 0))
      std::abort();

  DKTrace::MsgHex(TL_NORMAL, static_cast<TracelSubjects>(expected), "fuzz", data, static_cast<std::int32_t>(size));
  // Reopening the file in its folder starts it afresh, so a long run does not fill the disk.
  static unsigned calls = 0;
  if (++calls % 1000 == 0)
    DKTrace::SetTraceFolderName(g_folder.c_str());
  return 0;
}
