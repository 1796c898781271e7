// DKGuid: a 128-bit globally unique identifier, the identity of plug-ins and interfaces.
//
// Text form: 32 hexadecimal digits in groups of 8-4-4-4-12, optionally in braces:
//   {6B29FC40-CA47-1067-B31D-00DD010662DA}
// AsString writes that form with the braces and upper-case digits; Parse reads either case,
// with or without the braces, and blanks around it.
#pragma once

#include <DorvikCore/DKString.h>
#include <DorvikCore/DKTypes.h>

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

// A value type: 16 bytes, copied and compared like an integer.
class DK_EXPORT DKGuid {
public:
  // The null identifier: every bit 0.
  constexpr DKGuid() noexcept = default;
  // The fields of the text form: 8, 4 and 4 digits, then the last 16 digits as eight bytes.
  constexpr DKGuid(std::uint32_t data1, std::uint16_t data2, std::uint16_t data3,
                   const std::array<std::uint8_t, 8>& data4) noexcept
      : m_data1(data1), m_data2(data2), m_data3(data3), m_data4(data4) {}

  // Reads the text form; false (guid unchanged) when the text is not one.
  static bool Parse(const DKString& text, DKGuid& guid);
  static bool Parse(const char* text, DKGuid& guid);
  // The identifier of the text; the null identifier when the text is not one (ok says which).
  static DKGuid FromString(const DKString& text, bool* ok = nullptr);
  static DKGuid FromString(const char* text, bool* ok = nullptr);
  // A new random identifier (version 4).
  static DKGuid NewGuid();

  // The text form "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}", as a string or as UTF-8.
  DKString AsString() const;
  std::string AsUTF8() const;

  // True for the null identifier.
  constexpr bool IsNull() const noexcept { return *this == DKGuid(); }
  // The fields: the first 8, 4 and 4 digits of the text form, then the last 16 as eight bytes.
  constexpr std::uint32_t Data1() const noexcept { return m_data1; }
  constexpr std::uint16_t Data2() const noexcept { return m_data2; }
  constexpr std::uint16_t Data3() const noexcept { return m_data3; }
  constexpr const std::array<std::uint8_t, 8>& Data4() const noexcept { return m_data4; }

  // Equality and an order of the fields in the order of the text form.
  friend constexpr bool operator==(const DKGuid&, const DKGuid&) noexcept = default;
  friend constexpr auto operator<=>(const DKGuid&, const DKGuid&) noexcept = default;

private:
  std::uint32_t m_data1 = 0;
  std::uint16_t m_data2 = 0;
  std::uint16_t m_data3 = 0;
  std::array<std::uint8_t, 8> m_data4{};
};

// Hashing of identifiers, for std::unordered_map and std::unordered_set keys.
template <>
struct std::hash<DKGuid> {
  // A hash of all 128 bits.
  std::size_t operator()(const DKGuid& guid) const noexcept {
    std::size_t h = guid.Data1();
    h = h * 1000003u ^ guid.Data2();
    h = h * 1000003u ^ guid.Data3();
    for (std::uint8_t byte : guid.Data4())
      h = h * 1000003u ^ byte;
    return h;
  }
};

// Writes the text form.
DK_EXPORT std::ostream& operator<<(std::ostream& out, const DKGuid& guid);
