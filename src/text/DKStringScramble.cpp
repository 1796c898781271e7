// Reversible scrambling of a string's text, so that a value such as a password in a
// configuration file cannot be read at a glance. This is obfuscation, not encryption: the key
// is built into the library, and anyone who has the library can undo it.
//
// A scrambled text is the marker "{DKS1}" followed by the base-64 form (alphabet A-Z a-z 0-9
// '-' '_', no padding) of a sequence of 16-bit units, each written as two bytes, high first:
//   units 0 and 1: a 32-bit check of the text, masked with a fixed key;
//   unit 2 + i:    text[i] XOR a keystream unit drawn from the key, the check and i.
// Seeding the keystream with the check makes texts that differ anywhere scramble differently
// throughout. The alphabet keeps the result on one line and free of the characters that
// configuration files and command lines treat specially. A body that is not well formed, does
// not match its check or would decode to a 0 unit is not a scrambled text.
#include <DorvikCore/DKString.h>

#include <cstdint>
#include <optional>
#include <string_view>

namespace {

using DKStringView = std::basic_string_view<DKChar>;

constexpr DKStringView marker = DK_T("{DKS1}");
constexpr std::uint64_t key = 0x6A09E667F3BCC909ull;
constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

// A 64-bit mixing function (the finaliser of SplitMix64): every input bit affects every
// output bit.
constexpr std::uint64_t Mix(std::uint64_t z) noexcept {
  z += 0x9E3779B97F4A7C15ull;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

// FNV-1a over the code units.
std::uint32_t Check(const DKChar* text, std::size_t length) noexcept {
  std::uint32_t h = 2166136261u;
  for (std::size_t i = 0; i < length; ++i) {
    h = (h ^ (text[i] & 0xFFu)) * 16777619u;
    h = (h ^ (text[i] >> 8)) * 16777619u;
  }
  return h;
}

constexpr std::uint32_t checkMask = static_cast<std::uint32_t>(Mix(key));

// The keystream unit for position i of a text with the given check.
inline DKChar StreamUnit(std::uint32_t check, std::size_t i) noexcept {
  return static_cast<DKChar>(Mix(key ^ (static_cast<std::uint64_t>(check) << 32) ^ i));
}

int Base64Value(DKChar c) noexcept {
  if (c >= DK_T('A') && c <= DK_T('Z'))
    return c - DK_T('A');
  if (c >= DK_T('a') && c <= DK_T('z'))
    return c - DK_T('a') + 26;
  if (c >= DK_T('0') && c <= DK_T('9'))
    return c - DK_T('0') + 52;
  if (c == DK_T('-'))
    return 62;
  if (c == DK_T('_'))
    return 63;
  return -1;
}

// Appends the base-64 form of the units' bytes (two per unit, high byte first).
void AppendBase64(const DKStdString& units, DKStdString& out) {
  std::uint32_t bits = 0;
  int count = 0;
  for (const DKChar u : units) {
    bits = (bits << 16) | u;
    count += 16;
    while (count >= 6) {
      count -= 6;
      out.push_back(static_cast<DKChar>(alphabet[(bits >> count) & 0x3F]));
    }
    bits &= (1u << count) - 1;
  }
  if (count > 0)
    out.push_back(static_cast<DKChar>(alphabet[(bits << (6 - count)) & 0x3F]));
}

// Decodes base-64 text into 16-bit units; nothing when a character is outside the alphabet,
// the bytes do not make whole units, or the unused low bits of the last character are set.
std::optional<DKStdString> DecodeBase64(DKStringView text) {
  DKStdString units;
  units.reserve(text.size() * 6 / 16);
  std::uint32_t bits = 0;
  int count = 0;
  for (const DKChar c : text) {
    const int v = Base64Value(c);
    if (v < 0)
      return std::nullopt;
    bits = (bits << 6) | static_cast<std::uint32_t>(v);
    count += 6;
    if (count >= 16) {
      count -= 16;
      units.push_back(static_cast<DKChar>(bits >> count));
      bits &= (1u << count) - 1;
    }
  }
  // A canonical encoding leaves fewer than 6 unused bits, all zero.
  if (count >= 6 || bits != 0)
    return std::nullopt;
  return units;
}

// The text behind a scrambled string, or nothing when s is not one.
std::optional<DKStdString> Unscramble(const DKString& s) {
  const DKStringView all(s.c_str(), s.Length());
  if (!all.starts_with(marker))
    return std::nullopt;
  std::optional<DKStdString> units = DecodeBase64(all.substr(marker.size()));
  if (!units || units->size() < 2)
    return std::nullopt;
  const std::uint32_t check = ((static_cast<std::uint32_t>((*units)[0]) << 16) | (*units)[1]) ^ checkMask;
  DKStdString text(units->size() - 2, 0);
  for (std::size_t i = 0; i < text.size(); ++i) {
    text[i] = static_cast<DKChar>((*units)[i + 2] ^ StreamUnit(check, i));
    if (text[i] == 0)
      return std::nullopt;
  }
  if (Check(text.data(), text.size()) != check)
    return std::nullopt;
  return text;
}

} // namespace

DKString& DKString::Encrypt() {
  if (IsEncrypted())
    return *this;
  const std::size_t length = Length();
  const DKChar* text = c_str();
  const std::uint32_t check = Check(text, length);
  DKStdString units;
  units.reserve(length + 2);
  units.push_back(static_cast<DKChar>((check ^ checkMask) >> 16));
  units.push_back(static_cast<DKChar>(check ^ checkMask));
  for (std::size_t i = 0; i < length; ++i)
    units.push_back(static_cast<DKChar>(text[i] ^ StreamUnit(check, i)));
  DKStdString scrambled(marker.begin(), marker.end());
  scrambled.reserve(marker.size() + (units.size() * 16 + 5) / 6);
  AppendBase64(units, scrambled);
  return Assign(scrambled.data(), scrambled.size());
}

DKString& DKString::Decrypt() {
  if (std::optional<DKStdString> text = Unscramble(*this))
    Assign(text->data(), text->size()); // an empty text has count 0 and clears the string
  return *this;
}

bool DKString::IsEncrypted() const { return Unscramble(*this).has_value(); }
