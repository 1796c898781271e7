// Fuzz target for the formatting engine.
//
// Input: one mode byte, then the format bytes up to the first 0 byte, then the bytes the
// arguments are served from (zeros once they run out).
//   mode bit 0: the wide format is read as little-endian 16-bit units (surrogates and all)
//               instead of one unit per format byte
//   mode bit 1: arguments are ASCII only (characters masked, strings from the ASCII texts)
//   mode bit 2: instead, one numeric conversion is built from the next bytes (flags, width,
//               precision, letter, size, value) and both engines must write what snprintf writes
//   mode bit 3: the arguments are captured with their types (the typed front end): each is
//               a kind byte and its value bytes, so any argument can meet any conversion
// Properties checked besides "no crash":
//   - a format without "%" comes out unchanged;
//   - "%n" never writes through its pointer;
//   - for an ASCII format with ASCII arguments, the narrow and the wide engine agree;
//   - the append form keeps what the output held before.
#include <DorvikCore/DKFormat.h>
#include <DorvikCore/DKString.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

// Strings the arguments point at: both kinds hold the same text at each index. The first
// ones are ASCII; the last two hold text that needs converting or is invalid.
constexpr std::size_t kAsciiTexts = 5;
constexpr std::size_t kTexts = 7;

const char* NarrowText(std::size_t i) {
  static const std::string longText(300, 'L');
  static const char* const texts[kTexts] = {nullptr, "", "abc", "hello world", longText.c_str(),
                                             "h\xC3\xA9llo \xF0\x9F\x98\x80", "bad\xFF\xC3"};
  return texts[i];
}

const DKChar* WideText(std::size_t i) {
  static const DKStdString longText(300, DK_T('L'));
  static const DKChar badText[] = {DK_T('b'), DK_T('a'), DK_T('d'), 0xD800, 0};
  static const DKChar* const texts[kTexts] = {nullptr, DK_T(""), DK_T("abc"), DK_T("hello world"), longText.c_str(),
                                               DK_T("h\u00E9llo \U0001F600"), badText};
  return texts[i];
}

// Serves arguments from bytes. Large "*" values are rationed so that one input cannot ask
// for gigabytes of padding.
class ByteSource final : public DKFormatArgSource {
public:
  ByteSource(const std::uint8_t* data, std::size_t size, bool asciiOnly)
      : m_data(data), m_size(size), m_asciiOnly(asciiOnly) {}

  int scratch = 0x5EED;

  int NextInt() override {
    auto v = Take<std::int32_t>();
    if (m_asciiOnly)
      v &= 0x7F; // characters stay ASCII; widths and numbers stay small
    const std::int64_t magnitude = v < 0 ? -static_cast<std::int64_t>(v) : v;
    if (magnitude > 1000 && magnitude <= DKFormatMaxWidth) {
      if (magnitude > m_largeBudget)
        return v % 1000;
      m_largeBudget -= magnitude;
    }
    return v;
  }
  unsigned int NextUnsigned() override { return Take<std::uint32_t>(); }
  long NextLong() override { return Take<long>(); }
  unsigned long NextUnsignedLong() override { return Take<unsigned long>(); }
  long long NextLongLong() override { return Take<long long>(); }
  unsigned long long NextUnsignedLongLong() override { return Take<unsigned long long>(); }
  std::size_t NextSize() override { return Take<std::size_t>(); }
  double NextDouble() override { return Take<double>(); }
  long double NextLongDouble() override {
    // Only the 80 significant bits; the padding of the type stays zero.
    long double v = 0;
    const std::size_t n = std::min<std::size_t>(10, sizeof v);
    TakeBytes(&v, n);
    return v;
  }
  const void* NextPointer() override { return reinterpret_cast<const void*>(Take<std::uintptr_t>()); }
  const char* NextNarrowString() override { return NarrowText(NextTextIndex()); }
  const DKChar* NextWideString() override { return WideText(NextTextIndex()); }
  void* NextCountPointer() override { return &scratch; }

private:
  std::size_t NextTextIndex() { return Take<std::uint8_t>() % (m_asciiOnly ? kAsciiTexts : kTexts); }

  void TakeBytes(void* out, std::size_t n) {
    const std::size_t k = std::min(n, m_size - m_used);
    std::memcpy(out, m_data + m_used, k);
    m_used += k;
  }
  template <class T>
  T Take() {
    T v{};
    TakeBytes(&v, sizeof v);
    return v;
  }

  const std::uint8_t* m_data;
  std::size_t m_size;
  std::size_t m_used = 0;
  bool m_asciiOnly;
  std::int64_t m_largeBudget = 2 * DKFormatMaxWidth;
};

// Typed arguments built from bytes: a kind byte, then the value. Texts come from the tables
// above (both kinds, counted or terminated); "*" values are bounded as in ByteSource.
class TypedArgs {
public:
  TypedArgs(const std::uint8_t* data, std::size_t size, bool asciiOnly) {
    std::size_t used = 0;
    auto take = [&](void* out, std::size_t n) {
      const std::size_t k = std::min(n, size - used);
      std::memset(out, 0, n);
      std::memcpy(out, data + used, k);
      used += k;
    };
    while (used < size && m_count < kMax) {
      std::uint8_t kind = 0;
      take(&kind, 1);
      std::int64_t raw = 0;
      take(&raw, kind % 12 < 8 ? 2 : 0);
      if (asciiOnly || raw > 1000 || raw < -1000)
        raw %= 128; // widths and characters stay small
      const std::size_t text = static_cast<std::size_t>(raw & 0xFF) % (asciiOnly ? kAsciiTexts : kTexts);
      DKFormatArg& a = m_args[m_count++];
      switch (kind % 12) {
      case 0: a = DKMakeFormatArg(static_cast<int>(raw)); break;
      case 1: a = DKMakeFormatArg(static_cast<unsigned long long>(raw)); break;
      case 2: a = DKMakeFormatArg(static_cast<char>(raw)); break;
      case 3: a = DKMakeFormatArg(static_cast<DKChar>(raw)); break;
      case 4: a = DKMakeFormatArg(static_cast<char32_t>(asciiOnly ? raw : raw * 977)); break;
      case 5: a = DKMakeFormatArg(static_cast<double>(raw) / 7); break;
      case 6: a = DKMakeFormatArg(raw != 0); break;
      case 7: a = DKMakeFormatArg(NarrowText(text)); break;
      case 8: a = DKMakeFormatArg(WideText(text)); break;
      case 9: // counted text, cut short of its terminator
        a = NarrowText(text) ? DKMakeFormatArg(std::string_view(NarrowText(text)).substr(0, 2))
                             : DKMakeFormatArg(nullptr);
        break;
      case 10: a = DKMakeFormatArg(m_longDouble); break;
      default: a = DKMakeFormatArg(&m_longDouble); break;
      }
    }
  }
  operator DKFormatArgList() const noexcept { return {m_args, m_count}; }

private:
  static constexpr std::size_t kMax = 16;
  DKFormatArg m_args[kMax];
  std::size_t m_count = 0;
  long double m_longDouble = 2.5L;
};

// Widths and precisions written as digits are bounded the same way as "*" values.
template <class Text>
bool DigitsWithinBudget(const Text& format) {
  std::int64_t total = 0;
  std::int64_t run = 0;
  for (auto c : format + typename Text::value_type(' ')) {
    if (c >= '0' && c <= '9') {
      run = std::min<std::int64_t>(run * 10 + (c - '0'), DKFormatMaxWidth + 1);
      continue;
    }
    if (run > 1000)
      total += run;
    run = 0;
  }
  return total <= 2 * DKFormatMaxWidth;
}

void Check(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "property failed: %s\n", what);
    std::abort();
  }
}

// One numeric conversion against the C library.
void CheckAgainstSnprintf(const std::uint8_t* data, std::size_t size) {
  std::uint8_t head[5] = {};
  std::memcpy(head, data, std::min(size, sizeof head));
  const std::size_t used = std::min(size, sizeof head);
  std::uint8_t valueBytes[16] = {};
  std::memcpy(valueBytes, data + used, std::min(size - used, sizeof valueBytes));

  std::string format = "%";
  for (int bit = 0; bit < 5; ++bit)
    if (head[0] & (1 << bit))
      format += "-+ 0#"[bit];
  if (head[1] % 64)
    format += std::to_string(head[1] % 64);
  if (head[2] != 0xFF)
    format += "." + std::to_string(head[2] % 80);
  const char conversion = "diouxXeEfFgGaA"[head[3] % 14];
  const bool isFloat = head[3] % 14 >= 6;
  const bool isSigned = head[3] % 14 < 2;
  const int sizeKind = head[4] % 4; // integers: int, long long, short, char; floating: double or long double

  std::string expected, narrow;
  DKString wide;
  auto run = [&](const char* modifier, auto value) {
    format += modifier;
    format += conversion;
    char buffer[512];
    const int n = std::snprintf(buffer, sizeof buffer, format.c_str(), value);
    if (n < 0 || static_cast<std::size_t>(n) >= sizeof buffer)
      return false;
    expected.assign(buffer, static_cast<std::size_t>(n));
    narrow = DKFormatNarrow(format.c_str(), value);
    const DKStdString wideFormat(format.begin(), format.end());
    wide = DKFormatString(wideFormat.c_str(), value);
    return true;
  };
  bool ran;
  if (isFloat) {
    if (sizeKind & 1) {
      long double value = 0;
      std::memcpy(&value, valueBytes, std::min<std::size_t>(10, sizeof value));
      ran = run("L", value);
    } else {
      double value;
      std::memcpy(&value, valueBytes, sizeof value);
      ran = run("", value);
    }
  } else {
    long long value;
    std::memcpy(&value, valueBytes, sizeof value);
    static const char* const modifiers[4] = {"", "ll", "h", "hh"};
    if (sizeKind == 1)
      ran = isSigned ? run("ll", value) : run("ll", static_cast<unsigned long long>(value));
    else
      ran = isSigned ? run(modifiers[sizeKind], static_cast<int>(value))
                     : run(modifiers[sizeKind], static_cast<unsigned>(value));
  }
  if (!ran)
    return;
  Check(narrow == expected, "narrow engine writes what snprintf writes");
  Check(wide.AsStdString() == DKStdString(expected.begin(), expected.end()), "wide engine writes what snprintf writes");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1 || size > 8192)
    return 0;
  const std::uint8_t mode = data[0];
  const bool unitFormat = mode & 1;
  const bool asciiOnly = mode & 2;
  ++data;
  --size;
  if (mode & 4) {
    CheckAgainstSnprintf(data, size);
    return 0;
  }

  // Formats and where the argument bytes start.
  const auto* end = static_cast<const std::uint8_t*>(std::memchr(data, 0, size));
  const std::size_t formatBytes = end ? static_cast<std::size_t>(end - data) : size;
  const std::string narrowFormat(reinterpret_cast<const char*>(data), formatBytes);
  DKStdString wideFormat;
  std::size_t argStart = end ? formatBytes + 1 : size;
  if (unitFormat) {
    std::size_t i = 0;
    for (; i + 1 < size; i += 2) {
      const auto unit = static_cast<DKChar>(data[i] | data[i + 1] << 8);
      if (!unit)
        break;
      wideFormat += unit;
    }
    argStart = std::min(size, i + 2);
  } else {
    for (char c : narrowFormat)
      wideFormat += static_cast<DKChar>(static_cast<unsigned char>(c));
  }
  if (!DigitsWithinBudget(narrowFormat) || !DigitsWithinBudget(wideFormat))
    return 0;
  const std::uint8_t* args = data + argStart;
  const std::size_t argSize = size - argStart;

  std::string narrowOut = "<kept>";
  DKString wide;
  if (mode & 8) {
    const TypedArgs typed(args, argSize, asciiOnly);
    DKFormatAppend(narrowOut, narrowFormat.c_str(), typed);
    DKFormatAppend(wide, wideFormat.c_str(), typed);
  } else {
    ByteSource narrowArgs(args, argSize, asciiOnly);
    DKFormatAppend(narrowOut, narrowFormat.c_str(), narrowArgs);
    Check(narrowArgs.scratch == 0x5EED, "%n wrote through its pointer (narrow)");
    ByteSource wideArgs(args, argSize, asciiOnly);
    DKFormatAppend(wide, wideFormat.c_str(), wideArgs);
    Check(wideArgs.scratch == 0x5EED, "%n wrote through its pointer (wide)");
  }
  Check(narrowOut.compare(0, 6, "<kept>") == 0, "append keeps the earlier text");
  narrowOut.erase(0, 6);

  if (narrowFormat.find('%') == std::string::npos)
    Check(narrowOut == narrowFormat, "narrow format without % comes out unchanged");
  if (wideFormat.find(DK_T('%')) == DKStdString::npos)
    Check(wide.AsStdString() == wideFormat, "wide format without % comes out unchanged");

  bool asciiFormat = !unitFormat;
  for (char c : narrowFormat)
    asciiFormat = asciiFormat && static_cast<unsigned char>(c) < 0x80;
  if (asciiOnly && asciiFormat)
    Check(wide.AsStdString() == DKStdString(narrowOut.begin(), narrowOut.end()),
          "narrow and wide engines agree on ASCII");
  return 0;
}
