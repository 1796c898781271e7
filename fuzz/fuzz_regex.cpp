// Fuzz target for the regular-expression compiler and matcher (DKRegEx).
//
// Input: the pattern up to the first newline, then the text. Each part is UTF-8 when it is
// valid UTF-8, otherwise its bytes are taken in pairs as UTF-16 code units (lone surrogates
// included).
// Properties checked besides "no crash, no hang":
//   - a pattern either compiles into a program within the size limit, or is refused with an
//     "Invalid regular expression" error that names the pattern, a position inside it and the
//     problem; nothing is kept on refusal;
//   - the match does not depend on the cache: with the default cache, a cache that fills at
//     once, one that holds a few states (so that a thread's own cache is flushed and rebuilt
//     along the text) and no cache at all, the answers are the same; so are those of a copy;
//   - the bit-parallel engine, forced on from the start of the text and from its middle (the
//     plain automaton taking the first half), gives the same answers;
//   - a pattern without "$" that matches a text matches it followed by more under "(?:pattern).*";
//   - writing each character beyond ASCII that stands for itself as \uHHHH escapes (one per
//     UTF-16 code unit, so a pair becomes two escapes) changes neither whether the pattern
//     compiles nor what it matches.
#include <DorvikCore/DKRegEx.h>

#include "conditions/DKRegExBitParallel.h"

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

// The pattern with every code unit beyond ASCII that is not after a backslash written as \uHHHH.
DKString Escaped(const DKString& pattern) {
  DKString out;
  bool escaped = false;
  for (const DKChar c : pattern) {
    if (c >= 0x80 && !escaped)
      out += DKString().Format(DK_T("\\u%04X"), static_cast<unsigned>(c));
    else
      out += c;
    escaped = !escaped && c == '\\';
  }
  return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 4096)
    return 0;
  const auto* newline = static_cast<const std::uint8_t*>(std::memchr(data, '\n', size));
  const std::size_t patternSize = newline ? static_cast<std::size_t>(newline - data) : size;
  const DKString pattern = Decode(data, patternSize);
  const DKString text = newline ? Decode(newline + 1, size - patternSize - 1) : DKString();

  DKRegEx cached, tiny, small, uncached;
  const DKErrorID result = cached.Compile(pattern);
  const DKErrorID tinyResult = tiny.Compile(pattern, 256), smallResult = small.Compile(pattern, 2048),
                  uncachedResult = uncached.Compile(pattern, 0);
  Require(tinyResult.Good() == result.Good() && smallResult.Good() == result.Good() &&
              uncachedResult.Good() == result.Good() && tiny.IsCompiled() == cached.IsCompiled() &&
              small.IsCompiled() == cached.IsCompiled() && uncached.IsCompiled() == cached.IsCompiled(),
          "the cache size does not decide whether a pattern compiles");
  if (result.Bad()) {
    Require(result.GetCode() == DK_MSG_INVALID_REGEX, "a refused pattern gives Invalid regular expression");
    Require(!cached.IsCompiled() && cached.GetProgramSize() == 0, "nothing is kept on refusal");
    const auto* error = dynamic_cast<const DKErrorWithArgs*>(result.GetError().Get());
    DKString named;
    long position = -1;
    Require(error && error->GetParameterCount() == 3 && error->GetParam(named, 0) && error->GetParam(position, 1),
            "the error has the pattern, the position and the problem");
    Require(named == (pattern.Length() > 60 ? pattern.SubStr(0, 60) + DK_T("...") : pattern), "the error names the pattern");
    Require(position >= 0 && static_cast<std::size_t>(position) <= pattern.Length(), "the position is inside the pattern");
    Require(!cached.Match(text), "a refused pattern matches nothing");
    Require(DKRegEx(Escaped(pattern)).GetError().Bad(), "the escaped pattern is refused too");
    return 0;
  }
  Require(cached.GetProgramSize() > 0 && cached.GetProgramSize() <= DKRegEx::maxProgramSize, "the program size is bounded");

  const bool match = cached.Match(text);
  Require(cached.Match(text) == match, "a second match (on cached states) agrees");
  Require(tiny.Match(text) == match, "a full cache changes no answer");
  Require(small.Match(text) == match, "a cache flushed and rebuilt changes no answer");
  Require(uncached.Match(text) == match, "the uncached automaton agrees");
  const DKRegEx copy = cached;
  Require(copy.Match(text) == match, "a copy agrees");
  for (const std::size_t after : {std::size_t{0}, text.Length() / 2}) {
    dkre::ForceBitParallel(true, after);
    const bool bits = cached.Match(text), tinyBits = tiny.Match(text);
    dkre::ForceBitParallel(false);
    Require(bits == match && tinyBits == match, "the bit-parallel engine agrees");
  }

  // Any suffix that .* can take (no line terminator) keeps a match a match under (?:p).*.
  DKRegEx extended;
  if (match && pattern.Find(DK_T('$')) == DKString::npos &&
      extended.Compile(DKString(DK_T("(?:")) + pattern + DK_T(").*")).Good())
    Require(extended.Match(text + DK_T("tail")), "(?:p).* matches the text followed by more");

  const DKRegEx escaped(Escaped(pattern));
  Require(escaped.IsCompiled(), "the escaped pattern compiles");
  Require(escaped.Match(text) == match, "the escaped pattern matches alike");
  return 0;
}
