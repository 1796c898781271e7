// DKFormatArgs: the typed front end of the formatting engine. The variadic formatting
// functions (DKString::Format, DKFormatString, DKFormatNarrow, DKTrace::Msg) capture each
// argument with its type in a DKFormatArg, then call one compiled engine with the list.
//
// What the typed front end adds to the printf conventions of DKFormat.h:
//   - Text arguments carry their encoding: %s and %S print a `const char*` (UTF-8),
//     `std::string`, `std::string_view`, `const DKChar*`, `DKString`, `std::u16string(_view)`
//     and, where wchar_t is 32 bits, `const wchar_t*` and `std::wstring` correctly into either
//     kind of format. Counted text (the strings and views) is printed whole, up to its length.
//   - A null-pointer constant (`nullptr`, or a literal 0) is an argument like any other: 0 is
//     the int 0, and a null pointer prints "(null)" for %s.
//   - Integers keep their own type: "%d" of a long long or of an unsigned prints its value,
//     "%x" of a negative int prints its 32-bit two's complement. A size prefix ("h", "l",
//     "ll", "I64", "z", ...) converts the argument to the type it names, as a cast would.
//     Characters (char, DKChar, char32_t) are integers for %d and characters for %c.
//   - Floating-point conversions take any arithmetic argument.
//   - A conversion whose argument cannot match it is written as "%!" + the conversion letter
//     + "(" + the argument's type + ")", for example "%!d(text)" for a string given to %d,
//     and "%!s(missing)" when the arguments ran out; a "*" width or precision that is not an
//     integer is written "%!*(type)". The argument is consumed, so later ones keep their
//     places. Type names: int, unsigned int, int64, uint64, bool, char, DKChar, char32_t,
//     double, long double, pointer, nullptr, text.
//   - A type that can never be formatted (a struct, a class without a text form) does not
//     compile.
#pragma once

#include <DorvikCore/DKTypes.h>

#include <concepts>
#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>

// One captured argument. It refers to the caller's objects and lives only for the call.
struct DKFormatArg {
  // What the argument is, and which member of the union holds it.
  enum class Kind : unsigned char {
    Missing,    // No argument (the end of the list).
    Int,        // A signed integer in i; bytes is its width after the usual promotion.
    UInt,       // An unsigned integer in u.
    Bool,       // A bool: u is 0 or 1.
    Char,       // A narrow char, in i.
    Char16,     // One DKChar code unit, in u.
    Char32,     // One code point (char32_t; wchar_t where it is 32 bits), in u.
    Double,     // A double (or float) in d.
    LongDouble, // A long double, pointed at by ld.
    Pointer,    // A pointer that is not text, in p.
    Null,       // A null-pointer constant.
    NarrowText, // UTF-8 text in s.
    WideText,   // DKChar text in s.
    Utf32Text,  // 32-bit text (wchar_t where it is 32 bits, char32_t) in s.
  };
  // Length of a text that runs to its terminator.
  static constexpr std::size_t terminated = static_cast<std::size_t>(-1);

  // A text argument: where it starts and how long it is.
  struct Text {
    const void* text;   // The first code unit; null for a null text pointer.
    std::size_t length; // Code units, or `terminated`.
  };
  // The value; kind says which member holds it.
  union {
    long long i;           // Int and Char.
    unsigned long long u;  // UInt, Bool, Char16 and Char32.
    double d;              // Double.
    const long double* ld; // LongDouble: the caller's value, not a copy.
    const void* p;         // Pointer.
    Text s;                // The three kinds of text.
  };
  Kind kind;           // What the argument is.
  unsigned char bytes; // Integer width after promotion (4 or 8).

  // A Missing argument.
  constexpr DKFormatArg() noexcept : u(0), kind(Kind::Missing), bytes(0) {}
};

namespace dkformat_detail {

template <class T>
inline constexpr bool always_false = false;

template <class T>
concept CharacterType = std::is_same_v<T, char> || std::is_same_v<T, char8_t> || std::is_same_v<T, char16_t> ||
                        std::is_same_v<T, char32_t> || std::is_same_v<T, wchar_t>;

// A text class with c_str() and Length() over DKChar: DKString.
template <class T>
concept DKCharTextClass = requires(const T& t) {
  { t.c_str() } -> std::convertible_to<const DKChar*>;
  { t.Length() } -> std::convertible_to<std::size_t>;
};

template <class CharT>
constexpr DKFormatArg::Kind TextKind() noexcept {
  if constexpr (std::is_same_v<CharT, char> || std::is_same_v<CharT, char8_t>)
    return DKFormatArg::Kind::NarrowText;
  else if constexpr (sizeof(CharT) == sizeof(DKChar))
    return DKFormatArg::Kind::WideText;
  else
    return DKFormatArg::Kind::Utf32Text;
}

template <class CharT>
DKFormatArg Text(const CharT* text, std::size_t length) noexcept {
  DKFormatArg a;
  a.kind = TextKind<CharT>();
  a.s.text = text;
  a.s.length = length;
  return a;
}

template <class T>
DKFormatArg Integer(T value) noexcept {
  DKFormatArg a;
  a.bytes = sizeof(T) < sizeof(int) ? sizeof(int) : sizeof(T);
  if constexpr (std::is_same_v<T, bool>) {
    a.kind = DKFormatArg::Kind::Bool;
    a.u = value ? 1 : 0;
  } else if constexpr (std::is_same_v<T, char>) {
    a.kind = DKFormatArg::Kind::Char;
    a.i = value;
  } else if constexpr (std::is_same_v<T, char8_t>) {
    a.kind = DKFormatArg::Kind::Char;
    a.i = static_cast<char>(value);
  } else if constexpr (CharacterType<T>) {
    a.kind = sizeof(T) == sizeof(DKChar) ? DKFormatArg::Kind::Char16 : DKFormatArg::Kind::Char32;
    a.u = static_cast<unsigned long long>(value);
  } else if constexpr (std::is_signed_v<T>) {
    a.kind = DKFormatArg::Kind::Int;
    a.i = value;
  } else {
    a.kind = DKFormatArg::Kind::UInt;
    a.u = value;
  }
  return a;
}

} // namespace dkformat_detail

// Captures one argument. Arrays of characters are text; other arrays and class types without
// a text form are refused at compile time.
template <class T>
DKFormatArg DKMakeFormatArg(const T& value) noexcept {
  namespace d = dkformat_detail;
  using U = std::remove_cv_t<T>;
  if constexpr (std::is_enum_v<U>) {
    return d::Integer(static_cast<std::underlying_type_t<U>>(value));
  } else if constexpr (std::is_integral_v<U>) {
    return d::Integer(value);
  } else if constexpr (std::is_floating_point_v<U>) {
    DKFormatArg a;
    if constexpr (std::is_same_v<U, long double>) {
      a.kind = DKFormatArg::Kind::LongDouble;
      a.ld = &value;
    } else {
      a.kind = DKFormatArg::Kind::Double;
      a.d = value;
    }
    return a;
  } else if constexpr (std::is_null_pointer_v<U>) {
    DKFormatArg a;
    a.kind = DKFormatArg::Kind::Null;
    return a;
  } else if constexpr (std::is_array_v<U>) {
    using E = std::remove_cv_t<std::remove_extent_t<U>>;
    static_assert(d::CharacterType<E>, "only arrays of characters (text) can be formatted");
    return d::Text<E>(value, DKFormatArg::terminated);
  } else if constexpr (std::is_pointer_v<U>) {
    using E = std::remove_cv_t<std::remove_pointer_t<U>>;
    if constexpr (d::CharacterType<E>) {
      return d::Text<E>(value, DKFormatArg::terminated);
    } else {
      DKFormatArg a;
      a.kind = DKFormatArg::Kind::Pointer;
      a.p = reinterpret_cast<const void*>(value);
      return a;
    }
  } else if constexpr (d::DKCharTextClass<U>) {
    return d::Text<DKChar>(value.c_str(), value.Length());
  } else if constexpr (requires {
                         typename U::traits_type;
                         { value.data() } -> std::convertible_to<const typename U::value_type*>;
                         { value.size() } -> std::convertible_to<std::size_t>;
                       }) {
    // The standard strings and string views.
    using E = typename U::value_type;
    static_assert(d::CharacterType<E>, "only text of characters can be formatted");
    return d::Text<E>(value.data(), value.size());
  } else {
    static_assert(d::always_false<T>, "this type cannot be formatted: pass a number, a pointer or text");
    return DKFormatArg();
  }
}

// The captured arguments of one call.
struct DKFormatArgList {
  const DKFormatArg* args; // The first argument.
  std::size_t count;       // The number of arguments.
};

// Captures a call's arguments into an array that lives for the full expression.
template <std::size_t N>
struct DKFormatArgStore {
  DKFormatArg args[N == 0 ? 1 : N]; // The captured arguments (one unused slot when N is 0).
  // The list of the N arguments, valid while the store lives.
  operator DKFormatArgList() const noexcept { return {args, N}; }
};

// Captures each argument as DKMakeFormatArg does; pass the result straight to the engine.
template <class... Args>
DKFormatArgStore<sizeof...(Args)> DKMakeFormatArgs(const Args&... args) noexcept {
  return {{DKMakeFormatArg(args)...}};
}
