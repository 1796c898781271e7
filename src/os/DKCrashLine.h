// One line of a crash report, built in place (internal to the platform files' crash catching):
// no allocation and no lock, so that a signal handler or an exception filter may write it.
#pragma once

#include <cstddef>

class DKCrashLine {
public:
  // Where Flush writes the line: every destination of the report.
  typedef void (*Output)(const char* text, std::size_t size);

  explicit DKCrashLine(Output output) noexcept : m_output(output) {}

  // Text past the line's room is dropped.
  DKCrashLine& operator<<(const char* text) noexcept {
    while (*text && m_size < sizeof m_text)
      m_text[m_size++] = *text++;
    return *this;
  }
  DKCrashLine& Number(unsigned long long value, unsigned base = 10, unsigned minDigits = 1) noexcept {
    char digits[64];
    unsigned count = 0;
    do {
      digits[count++] = "0123456789abcdef"[value % base];
      value /= base;
    } while (value != 0 && count < sizeof digits);
    while (count < minDigits && count < sizeof digits)
      digits[count++] = '0';
    while (count > 0 && m_size < sizeof m_text)
      m_text[m_size++] = digits[--count];
    return *this;
  }
  // "0x" and the value in lower-case hexadecimal.
  DKCrashLine& Hex(unsigned long long value, unsigned minDigits = 1) noexcept {
    *this << "0x";
    return Number(value, 16, minDigits);
  }
  // Writes the line and empties it.
  void Flush() noexcept {
    m_output(m_text, m_size);
    m_size = 0;
  }

private:
  Output m_output;
  char m_text[512];
  std::size_t m_size = 0;
};
