// Fuzz target for the regular-expression compiler and matcher (DKRegEx).
//
// Input: the pattern up to the first newline, then the text. Each part is UTF-8 when it is
// valid UTF-8, otherwise its bytes are taken in pairs as UTF-16 code units (lone surrogates
// included).
// Properties checked besides "no crash, no hang":
//   - a pattern either compiles into a program within the size limit, or is refused with an
//     "Invalid argument" error that names the pattern's problem; nothing is kept on refusal;
//   - the match does not depend on the cache: with the default cache, a cache that fills at
//     once and no cache at all, the answers are the same; so are those of a copy;
//   - a pattern without "$" that matches a text matches it followed by more under "(?:pattern).*".
#include <DorvikCore/DKRegEx.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

void Require(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "property violated: %s\n", what);
    std::abort();
  }
}

DKString Decode(const std::uint8_t* data, std::size_t size) {
  DKString text;
  if (text.SetFromUTF8(reinterpret_cast<const char*>(data), size).Good())
    return text;
  for (std::size_t i = 0; i + 1 < size; i += 2)
    text += static_cast<DKChar>(data[i] | (data[i + 1] << 8));
  return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 4096)
    return 0;
  const auto* newline = static_cast<const std::uint8_t*>(std::memchr(data, '\n', size));
  const std::size_t patternSize = newline ? static_cast<std::size_t>(newline - data) : size;
  const DKString pattern = Decode(data, patternSize);
  const DKString text = newline ? Decode(newline + 1, size - patternSize - 1) : DKString();

  DKRegEx cached, tiny, uncached;
  const DKErrorID result = cached.Compile(pattern);
  tiny.Compile(pattern, 256);
  uncached.Compile(pattern, 0);
  Require(tiny.IsCompiled() == cached.IsCompiled() && uncached.IsCompiled() == cached.IsCompiled(),
          "the cache size does not decide whether a pattern compiles");
  if (result.Bad()) {
    Require(result.GetCode() == DK_MSG_INVALID_ARGUMENT, "a refused pattern gives Invalid argument");
    Require(!cached.IsCompiled() && cached.GetProgramSize() == 0, "nothing is kept on refusal");
    Require(result.AsString().Find(DK_T("regular expression \"")) != DKString::npos, "the error names the pattern");
    Require(!cached.Match(text), "a refused pattern matches nothing");
    return 0;
  }
  Require(cached.GetProgramSize() > 0 && cached.GetProgramSize() <= DKRegEx::maxProgramSize, "the program size is bounded");

  const bool match = cached.Match(text);
  Require(cached.Match(text) == match, "a second match (on cached states) agrees");
  Require(tiny.Match(text) == match, "a full cache changes no answer");
  Require(uncached.Match(text) == match, "the uncached automaton agrees");
  const DKRegEx copy = cached;
  Require(copy.Match(text) == match, "a copy agrees");

  // Any suffix that .* can take (no line terminator) keeps a match a match under (?:p).*.
  DKRegEx extended;
  if (match && pattern.Find(DK_T('$')) == DKString::npos &&
      extended.Compile(DKString(DK_T("(?:")) + pattern + DK_T(").*")).Good())
    Require(extended.Match(text + DK_T("tail")), "(?:p).* matches the text followed by more");
  return 0;
}
