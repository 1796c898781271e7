// DKFormat: the library's printf-style formatting engine, the same on every platform.
//
// Formats come in two kinds: wide (DKChar, UTF-16) producing a DKString, and narrow (char,
// UTF-8) producing a std::string. String and character arguments follow one convention
// whatever the platform:
//
//   conversion   in a wide format        in a narrow format
//   %s  %c       DKChar text / DKChar     char text / char
//   %S  %C       char text / char         DKChar text / DKChar
//   %ls %lc      DKChar (also %ws, %wc)   DKChar
//   %hs %hc      char                     char
//
// Characters are passed promoted to int. Narrow text written into wide output is decoded as
// UTF-8 (an invalid byte becomes U+FFFD); wide text written into narrow output is encoded as
// UTF-8 (an unpaired surrogate becomes U+FFFD). A null string argument prints "(null)".
//
// Conversion directives: %[flags][width][.precision][size]conversion
//   flags      "-" left-justify, "+" sign, " " space for sign, "0" zero padding, "#" alternate form
//   width      digits or "*" (an int argument; a negative value left-justifies)
//   precision  "." then digits or "*" (an int argument; a negative value means none)
//   size       "hh" "h" "l" "ll" "L" "I32" "I64" "I" (pointer-sized) "z" "j" "t" "w" (wide text);
//              "N", and "F" before s, S, p, n, c, C or a size, are accepted and ignored
//   conversion d i o u x X e E f F g G a A c C s S p n %
//
// Numbers come out exactly as the C library's snprintf writes them, with the decimal point of
// the locale chosen by setlocale (integers and most f/e/g conversions are written without
// calling it, to the same text). Integer arguments are read as the type the size names: int by
// default, long for "l", long long for "ll", "L", "I64" and "j", the size_t width for "z",
// "t" and "I"; "h" and "hh" then narrow the value to short and char. Floating-point
// arguments are double, long double with "L".
//
// Where this engine departs from the C functions:
//   - "%p" prints the pointer as 2 * sizeof(void*) uppercase hexadecimal digits without
//     "0x" (0000000000ABCDEF on a 64-bit system); width and "-" apply.
//   - "%n" is not supported, because writing through an argument is a well-known way to
//     turn a bad format into a memory write: it consumes its pointer argument and writes
//     nothing, neither to the pointer nor to the output.
//   - String precision counts code units of the argument (the argument is never read past
//     it). When the text is converted between UTF-8 and UTF-16, a character that the
//     precision would cut in two is left out instead. Width counts code units of the output.
//   - The "0" flag pads numbers only; strings and characters are padded with blanks.
//   - "%%" writes "%" whatever flags, width or size stand between the two signs.
//
// The engine never writes past its output and never guesses a length: the result is exact for
// any format. Malformed formats never fail:
//   - a "%" that ends the format is written as "%";
//   - a conversion letter that is not in the list above writes the whole directive
//     ("%" to the letter) as it stands and consumes no argument; so does a directive
//     that the end of the format cuts short;
//   - a width or precision above DKFormatMaxWidth (one million) is invalid and written as it
//     stands. Written as digits, nothing is consumed; given by "*", the "*" arguments and
//     the conversion's own argument are consumed so later arguments keep their places.
//     The limit bounds the memory a single conversion can ask for.
//   - a null format gives the empty result.
//
// The variadic functions capture their arguments with their types (DKFormatArgs.h), which
// makes a mismatched argument a visible "%!d(type)" in the output instead of undefined
// behaviour. There is no format attribute: the compiler would check formats against the
// host's printf, whose %S, %C and "I64" mean something else (or nothing) there.
#pragma once

#include <DorvikCore/DKFormatArgs.h>
#include <DorvikCore/DKString.h>
#include <DorvikCore/DKTypes.h>

#include <cstdarg>
#include <cstddef>
#include <string>

// Largest width or precision a conversion may ask for; above it the conversion is written as
// it stands.
inline constexpr int DKFormatMaxWidth = 1000000;

// Where the engine takes its arguments from. The engine calls exactly one getter per argument,
// of the type the conversion names, in format order, and never reads an argument it was not
// asked for. The va_list entry points use a source backed by the va_list; tests, fuzzers and
// language bindings can serve arguments from anything else.
class DK_EXPORT DKFormatArgSource {
public:
  virtual ~DKFormatArgSource();

  virtual int NextInt() = 0; // An int; also "*" widths and precisions, and characters (promoted).
  virtual unsigned int NextUnsigned() = 0;                // An unsigned int ("o", "u", "x", "X").
  virtual long NextLong() = 0;                            // A long ("l" with d or i).
  virtual unsigned long NextUnsignedLong() = 0;           // An unsigned long ("l" with o, u, x, X).
  virtual long long NextLongLong() = 0;                   // A long long ("ll", "L", "I64", "j").
  virtual unsigned long long NextUnsignedLongLong() = 0;  // Their unsigned form.
  virtual std::size_t NextSize() = 0; // size_t and ptrdiff_t ("z", "t", "I"), as the same bits.
  virtual double NextDouble() = 0;                        // A double ("e", "f", "g", "a").
  virtual long double NextLongDouble() = 0;               // A long double ("L" with those).
  virtual const void* NextPointer() = 0;          // The pointer of "%p".
  virtual const char* NextNarrowString() = 0;     // Terminated UTF-8 text; may be null.
  virtual const DKChar* NextWideString() = 0;     // Terminated UTF-16 text; may be null.
  virtual void* NextCountPointer() = 0;           // The pointer of "%n": consumed, never used.
};

// Appends the formatted text to out. The format and string arguments may point into out.
// The DKFormatArgList forms take arguments captured with their types (DKFormatArgs.h); the
// va_list and DKFormatArgSource forms read each argument as the type its conversion names.
DK_EXPORT void DKFormatAppend(DKString& out, const DKChar* format, DKFormatArgList args);
DK_EXPORT void DKFormatAppend(std::string& out, const char* format, DKFormatArgList args);
DK_EXPORT void DKFormatAppendV(DKString& out, const DKChar* format, va_list args);
DK_EXPORT void DKFormatAppend(DKString& out, const DKChar* format, DKFormatArgSource& args);
DK_EXPORT void DKFormatAppendV(std::string& out, const char* format, va_list args);
DK_EXPORT void DKFormatAppend(std::string& out, const char* format, DKFormatArgSource& args);

// The formatted text as a new string, with typed arguments.
template <class... Args>
DKString DKFormatString(const DKChar* format, const Args&... args) {
  DKString result;
  DKFormatAppend(result, format, DKMakeFormatArgs(args...));
  return result;
}
template <class... Args>
std::string DKFormatNarrow(const char* format, const Args&... args) {
  std::string result;
  DKFormatAppend(result, format, DKMakeFormatArgs(args...));
  return result;
}
// The formatted text as a new string, with the arguments in a va_list (read as the conversions
// name them).
DK_EXPORT DKString DKFormatStringV(const DKChar* format, va_list args);
DK_EXPORT std::string DKFormatNarrowV(const char* format, va_list args);
