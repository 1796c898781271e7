#include <DorvikCore/DKGuid.h>

#include <cstdio>
#include <cstring>
#include <ostream>
#include <random>

namespace {

int HexValue(char16_t ch) noexcept {
  if (ch >= u'0' && ch <= u'9')
    return ch - u'0';
  if (ch >= u'a' && ch <= u'f')
    return ch - u'a' + 10;
  if (ch >= u'A' && ch <= u'F')
    return ch - u'A' + 10;
  return -1;
}

bool IsBlank(char16_t ch) noexcept { return ch == u' ' || ch == u'\t' || ch == u'\r' || ch == u'\n'; }

// Reads the text form from code units (narrow text is widened unit by unit: only ASCII can
// match). The 32 digits fill the 16 bytes in the order of the text.
template <class Unit>
bool ParseUnits(const Unit* text, std::size_t length, DKGuid& guid) {
  std::size_t begin = 0;
  std::size_t end = length;
  while (begin < end && IsBlank(static_cast<char16_t>(text[begin])))
    ++begin;
  while (end > begin && IsBlank(static_cast<char16_t>(text[end - 1])))
    --end;
  if (end - begin == 38) {
    if (text[begin] != '{' || text[end - 1] != '}')
      return false;
    ++begin;
    --end;
  }
  if (end - begin != 36)
    return false;

  std::uint8_t bytes[16] = {};
  std::size_t digit = 0;
  for (std::size_t i = begin; i < end; ++i) {
    const std::size_t offset = i - begin;
    const char16_t ch = static_cast<char16_t>(text[i]);
    if (offset == 8 || offset == 13 || offset == 18 || offset == 23) {
      if (ch != u'-')
        return false;
      continue;
    }
    const int value = HexValue(ch);
    if (value < 0)
      return false;
    bytes[digit / 2] = static_cast<std::uint8_t>(bytes[digit / 2] << 4 | value);
    ++digit;
  }
  const std::uint32_t data1 = std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 |
                              std::uint32_t{bytes[2]} << 8 | bytes[3];
  const auto data2 = static_cast<std::uint16_t>(bytes[4] << 8 | bytes[5]);
  const auto data3 = static_cast<std::uint16_t>(bytes[6] << 8 | bytes[7]);
  std::array<std::uint8_t, 8> data4{};
  std::memcpy(data4.data(), bytes + 8, 8);
  guid = DKGuid(data1, data2, data3, data4);
  return true;
}

} // namespace

bool DKGuid::Parse(const DKString& text, DKGuid& guid) { return ParseUnits(text.c_str(), text.Length(), guid); }

bool DKGuid::Parse(const char* text, DKGuid& guid) {
  return text != nullptr && ParseUnits(text, std::strlen(text), guid);
}

DKGuid DKGuid::FromString(const DKString& text, bool* ok) {
  DKGuid guid;
  const bool parsed = Parse(text, guid);
  if (ok)
    *ok = parsed;
  return guid;
}

DKGuid DKGuid::FromString(const char* text, bool* ok) {
  DKGuid guid;
  const bool parsed = Parse(text, guid);
  if (ok)
    *ok = parsed;
  return guid;
}

DKGuid DKGuid::NewGuid() {
  // One generator per thread, seeded from the system's entropy source.
  thread_local std::mt19937_64 generator = [] {
    std::random_device device;
    std::seed_seq seed{device(), device(), device(), device(), device(), device()};
    return std::mt19937_64(seed);
  }();
  const std::uint64_t high = generator();
  const std::uint64_t low = generator();
  std::array<std::uint8_t, 8> data4{};
  for (int i = 0; i < 8; ++i)
    data4[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(low >> (56 - 8 * i));
  data4[0] = static_cast<std::uint8_t>((data4[0] & 0x3F) | 0x80); // RFC 4122 variant
  const auto data3 = static_cast<std::uint16_t>((high & 0x0FFF) | 0x4000); // version 4
  return DKGuid(static_cast<std::uint32_t>(high >> 32), static_cast<std::uint16_t>(high >> 16), data3, data4);
}

std::string DKGuid::AsUTF8() const {
  char text[40];
  std::snprintf(text, sizeof text, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", static_cast<unsigned>(m_data1),
                static_cast<unsigned>(m_data2), static_cast<unsigned>(m_data3), m_data4[0], m_data4[1], m_data4[2],
                m_data4[3], m_data4[4], m_data4[5], m_data4[6], m_data4[7]);
  return text;
}

DKString DKGuid::AsString() const {
  const std::string text = AsUTF8();
  DKString result;
  for (char ch : text)
    result += static_cast<DKChar>(ch);
  return result;
}

std::ostream& operator<<(std::ostream& out, const DKGuid& guid) { return out << guid.AsUTF8(); }
