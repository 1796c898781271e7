// The console stream on Windows (os/DKConsoleOutput.h). A real console is written in UTF-16
// with WriteConsoleW, so that every character shows whatever the console's code page; a pipe or a
// file gets the UTF-8 bytes unchanged (WriteConsoleW fails on them), with "\n" kept as it is.
#include "os/DKConsoleOutput.h"

#include <windows.h>

#include <cstdio>
#include <streambuf>
#include <string>

namespace {

// How many bytes a UTF-8 sequence takes, judged by its first byte; 1 for a byte that starts
// none (the system's conversion makes it U+FFFD).
std::size_t SequenceLength(unsigned char lead) noexcept {
  return lead >= 0xF0 && lead <= 0xF4 ? 4 : lead >= 0xE0 && lead < 0xF0 ? 3 : lead >= 0xC2 && lead < 0xE0 ? 2 : 1;
}

// The length of the prefix of data that ends with a complete character: a character cut by the
// end of the buffer waits for the rest of its bytes.
std::size_t CompletePrefix(const char* data, std::size_t size) noexcept {
  // A sequence is at most 4 bytes: only the last 3 can start one that is cut.
  for (std::size_t back = 1; back <= 3 && back <= size; ++back) {
    const auto byte = static_cast<unsigned char>(data[size - back]);
    if ((byte & 0xC0) == 0x80)
      continue; // a continuation byte: its lead is further back
    return SequenceLength(byte) > back ? size - back : size;
  }
  return size;
}

bool WriteBytes(HANDLE out, const char* data, std::size_t size) {
  while (size) {
    DWORD written = 0;
    const DWORD chunk = size > (1u << 30) ? (1u << 30) : static_cast<DWORD>(size);
    if (!WriteFile(out, data, chunk, &written, nullptr) || written == 0)
      return false;
    data += written;
    size -= written;
  }
  return true;
}

bool WriteToConsole(HANDLE out, const char* data, std::size_t size) {
  // Consoles of older systems refuse very large writes: a few kilobytes at a time.
  constexpr std::size_t chunkBytes = 8192;
  std::wstring wide;
  while (size) {
    const std::size_t part = size <= chunkBytes ? size : CompletePrefix(data, chunkBytes);
    const int length = MultiByteToWideChar(CP_UTF8, 0, data, static_cast<int>(part), nullptr, 0);
    if (length <= 0)
      return false;
    wide.resize(static_cast<std::size_t>(length));
    MultiByteToWideChar(CP_UTF8, 0, data, static_cast<int>(part), wide.data(), length);
    const wchar_t* p = wide.data();
    DWORD left = static_cast<DWORD>(length);
    while (left) {
      DWORD written = 0;
      if (!WriteConsoleW(out, p, left, &written, nullptr) || written == 0)
        return false;
      p += written;
      left -= written;
    }
    data += part;
    size -= part;
  }
  return true;
}

class ConsoleBuffer : public std::streambuf {
public:
  ConsoleBuffer() { setp(m_buffer, m_buffer + sizeof m_buffer); }

protected:
  int_type overflow(int_type ch) override {
    if (WriteOut() != 0)
      return traits_type::eof();
    if (traits_type::eq_int_type(ch, traits_type::eof()))
      return traits_type::not_eof(ch);
    *pptr() = traits_type::to_char_type(ch);
    pbump(1);
    return ch;
  }

  int sync() override { return WriteOut(); }

private:
  // Writes the complete characters held and keeps a cut one for the next write.
  int WriteOut() {
    const std::size_t held = static_cast<std::size_t>(pptr() - pbase());
    const std::size_t complete = CompletePrefix(pbase(), held);
    bool ok = true;
    if (complete) {
      // What was written through the C runtime's stdout (std::cout among it) comes first.
      std::fflush(stdout);
      HANDLE out = GetStdHandle(STD_OUTPUT_HANDLE);
      DWORD mode = 0;
      if (out == nullptr || out == INVALID_HANDLE_VALUE)
        ok = true; // no standard output (a program without a console): the text goes nowhere
      else if (GetConsoleMode(out, &mode))
        ok = WriteToConsole(out, pbase(), complete);
      else
        ok = WriteBytes(out, pbase(), complete);
    }
    // A cut character moves to the front; the rest is gone whether it was written or not.
    const std::size_t rest = held - complete;
    for (std::size_t i = 0; i < rest; ++i)
      m_buffer[i] = pbase()[complete + i];
    setp(m_buffer, m_buffer + sizeof m_buffer);
    pbump(static_cast<int>(rest));
    return ok ? 0 : -1;
  }

  char m_buffer[4096];
};

} // namespace

std::ostream& DKConsoleOutput::Stream() noexcept {
  // Never destroyed. Flushed after every output operation, as the standard error is: nothing
  // waits in the buffer at the end of the process.
  static std::ostream* const stream = [] {
    auto* buffer = new ConsoleBuffer;
    auto* created = new std::ostream(buffer);
    created->setf(std::ios_base::unitbuf);
    return created;
  }();
  return *stream;
}
