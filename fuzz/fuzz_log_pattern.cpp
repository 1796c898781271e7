// Fuzzes the line pattern of DKLogger. Property: the line equals the pattern with each
// placeholder replaced by a reference expansion written here ("%t" the time stamp, "%s" the
// severity, "%c" the channel, "%m" the message less one closing line end, "%T" the thread id,
// "%%" one "%", any other "%" kept); an empty pattern gives the message alone.
#include <DorvikCore/DKLog.h>
#include <DorvikCore/DKString.h>

#include "FuzzCheck.h"

#include <chrono>
#include <cstdint>
#include <string>

namespace {

std::string Expand(const std::string& pattern, const std::string& stamp, const char* severity,
                   const std::string& channel, std::string message) {
  if (!message.empty() && message.back() == '\n')
    message.pop_back();
  if (pattern.empty())
    return message;
  std::string line;
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    const char next = i + 1 < pattern.size() ? pattern[i + 1] : '\0';
    if (pattern[i] != '%' || (next != 't' && next != 's' && next != 'c' && next != 'm' && next != 'T' && next != '%')) {
      line += pattern[i];
      continue;
    }
    ++i;
    if (next == 't')
      line += stamp;
    else if (next == 's')
      line += severity;
    else if (next == 'c')
      line += channel;
    else if (next == 'm')
      line += message;
    else if (next == 'T')
      line += std::to_string(dktest::CurrentThreadId());
    else
      line += '%';
  }
  return line;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1)
    return 0;
  static DKLogger logger(DK_T("Fuzz %m channel"));
  logger.SetTimeZone(DKLogger::TimeZone::Utc);
  const auto severity = static_cast<DKLogSeverity>(data[0] % 5);
  const std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  const std::size_t cut = rest.find('\0');
  const DKString pattern(rest.substr(0, cut)); // invalid UTF-8 becomes U+FFFD
  const std::string message = cut == std::string::npos ? std::string() : rest.substr(cut + 1);
  logger.SetPattern(pattern);
  FUZZ_CHECK(logger.GetPattern() == pattern);
  const auto when = std::chrono::system_clock::time_point(std::chrono::milliseconds(1709251199123));
  const std::string line = logger.FormatLine(severity, message, when);
  FUZZ_CHECK(line == Expand(pattern.AsUTF8(), "2024-02-29T23:59:59.123Z", DKLogSeverityName(severity),
                            "Fuzz %m channel", message));
  return 0;
}
