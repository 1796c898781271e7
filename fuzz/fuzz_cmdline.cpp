// Fuzzes the command-line splitter and classifier.
//
// Input: one option byte, then the command line. Option bits: 0 case-sensitive look-ups;
// 1-2 the argument delimiters; 3-4 the value delimiters; 5 the text is UTF-8 (otherwise UTF-16
// little-endian code units). UTF-8 input is also cut at its NUL bytes into a main()-style vector.
//
// Properties checked besides "no crash, no hang, no exception":
//   - every classified argument is consistent with its word;
//   - every switch that is present is found by its name;
//   - the words, joined again with quoting, split into the same words;
//   - the caller's-vector constructor classifies the same words the same way;
//   - valid UTF-8 arguments of a main() vector decode to text that encodes back to the bytes.
#include "FuzzCheck.h"

#include <DorvikCore/DKCommandLine.h>
#include <DorvikCore/DKError.h>
#include <DorvikCore/DKFormat.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

const DKChar* const argDelimiterSets[] = {DK_T("/-"), DK_T("/"), DK_T("-\\/"), DK_T("+")};
const DKChar* const valueDelimiterSets[] = {DK_T(":"), DK_T("=:"), DK_T(""), DK_T("/")};

// The inverse of the splitter for one word: a word with blanks is wrapped in quotes, and every
// literal quote is doubled. An empty word has no spelling but as the last word of a text, where
// a lone quote opens and the end of the text closes it.
DKStdString Quote(const DKString& word, bool last) {
  if (word.IsEmpty()) {
    FUZZ_CHECK(last);
    return DK_T("\"");
  }
  const bool wrap = word.FindFirstOf(DK_T(" \t")) != DKString::npos;
  DKStdString out;
  if (wrap)
    out += DK_T('"');
  for (const DKChar ch : word) {
    out += ch;
    if (ch == DK_T('"'))
      out += ch;
  }
  if (wrap)
    out += DK_T('"');
  return out;
}

void CheckClassification(const DKCommandLine& cl) {
  const DKString& argDelimiters = cl.GetArgDelimiters();
  const DKString& valueDelimiters = cl.GetValueDelimiters();
  const std::vector<DKString> raw = cl.GetRawArgumentListVector();
  const std::vector<DKCommandLineArgument>& parsed = cl.GetParsedArgumentVector();
  FUZZ_CHECK(raw.size() == parsed.size());
  FUZZ_CHECK(cl.GetArgCount() == raw.size() + 1);
  std::size_t switches = 0;
  for (std::size_t i = 0; i < raw.size(); ++i) {
    const DKString& word = raw[i];
    const DKCommandLineArgument& a = parsed[i];
    const bool opensSwitch = !word.IsEmpty() && argDelimiters.Find(word[0]) != DKString::npos;
    switch (a.GetArgType()) {
    case DKCommandLine::Absent:
      FUZZ_CHECK(word.IsEmpty() && a.GetArgument().IsEmpty() && a.GetValueAsString().IsEmpty());
      break;
    case DKCommandLine::NonStandard:
      FUZZ_CHECK(a.GetArgument() == word && a.GetValueAsString().IsEmpty());
      FUZZ_CHECK(!opensSwitch || (word[0] == DK_T('/') && word.Find(DK_T('/'), 1) != DKString::npos));
      break;
    case DKCommandLine::Flag:
      ++switches;
      FUZZ_CHECK(opensSwitch && a.GetArgument() == word.SubStr(1) && a.GetValueAsString().IsEmpty());
      FUZZ_CHECK(valueDelimiters.IsEmpty() || word.FindFirstOf(valueDelimiters) == DKString::npos);
      break;
    case DKCommandLine::Valued: {
      ++switches;
      FUZZ_CHECK(opensSwitch);
      const DKString& value = a.GetValueAsString();
      const std::size_t at = word.Length() - value.Length() - 1; // the value delimiter
      FUZZ_CHECK(value.Length() < word.Length() && word.SubStr(at + 1) == value);
      FUZZ_CHECK(valueDelimiters.Find(word[at]) != DKString::npos);
      FUZZ_CHECK(word.FindFirstOf(valueDelimiters) == at);
      FUZZ_CHECK(a.GetArgument() == (at == 0 ? DKString() : word.SubStr(1, at - 1)));
      break;
    }
    default:
      FUZZ_CHECK(false);
    }
    // Look-ups find the first argument of a name; an earlier empty (absent) argument hides
    // the empty name.
    if (a.GetArgType() != DKCommandLine::Absent && !a.GetArgument().IsEmpty()) {
      FUZZ_CHECK(cl.ArgPresent(a.GetArgument()));
      (void)cl.GetArg(a.GetArgument(), 0);
      (void)cl.GetArg(a.GetArgument(), 0.0);
    }
  }
  std::vector<DKString> invalid;
  FUZZ_CHECK(cl.GetInvalidArguments({}, invalid) == switches);
  std::vector<DKString> allNames;
  for (const DKCommandLineArgument& a : parsed)
    allNames.push_back(a.GetArgument());
  invalid.clear();
  FUZZ_CHECK(cl.GetInvalidArguments(allNames, invalid) == 0);
  FUZZ_CHECK(cl.GetNonStandardArguments().size() == raw.size() - switches);
  (void)cl.GetFileName(0);
}

void CheckString(const DKString& text, const DKString& argDelimiters, const DKString& valueDelimiters,
                 bool caseSensitive) {
  const DKCommandLine cl(text, argDelimiters, valueDelimiters, caseSensitive);
  CheckClassification(cl);
  const std::vector<DKString> raw = cl.GetRawArgumentListVector();

  // Join the words again and split the result: the same program name and arguments.
  DKStdString joined;
  if (!cl.GetAppName().IsEmpty() || raw.empty())
    joined = Quote(cl.GetAppName(), raw.empty());
  for (std::size_t i = 0; i < raw.size(); ++i) {
    if (!joined.empty())
      joined += DK_T(' ');
    joined += Quote(raw[i], i + 1 == raw.size());
  }
  const DKCommandLine again(DKString(joined), argDelimiters, valueDelimiters, caseSensitive);
  FUZZ_CHECK(again.GetAppName() == cl.GetAppName());
  FUZZ_CHECK(again.GetRawArgumentListVector() == raw);

  // The caller's-vector form classifies the same words alike.
  std::vector<const DKChar*> argv{cl.GetAppName().c_str()};
  for (const DKString& word : raw)
    argv.push_back(word.c_str());
  const DKCommandLine fromVector(argv.size(), argv.data(), argDelimiters, valueDelimiters, caseSensitive);
  const std::vector<DKCommandLineArgument>& a = cl.GetParsedArgumentVector();
  const std::vector<DKCommandLineArgument>& b = fromVector.GetParsedArgumentVector();
  FUZZ_CHECK(a.size() == b.size());
  for (std::size_t i = 0; i < a.size(); ++i)
    FUZZ_CHECK(a[i].GetArgType() == b[i].GetArgType() && a[i].GetArgument() == b[i].GetArgument() &&
               a[i].GetValueAsString() == b[i].GetValueAsString());

  const DKCommandLine copy(cl);
  FUZZ_CHECK(copy.GetRawArgumentListVector() == raw);
}

void CheckMainVector(const std::string& bytes, const DKString& argDelimiters, const DKString& valueDelimiters,
                     bool caseSensitive) {
  std::vector<std::string> pieces(1);
  for (const char c : bytes) {
    if (c == 0)
      pieces.emplace_back();
    else
      pieces.back() += c;
  }
  std::vector<const char*> argv;
  for (const std::string& piece : pieces)
    argv.push_back(piece.c_str());
  const DKCommandLine cl(argv.size(), argv.data(), argDelimiters, valueDelimiters, caseSensitive);
  CheckClassification(cl);
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    const DKString word(cl.GetArgValues()[i]);
    DKString strict;
    if (strict.SetFromUTF8(pieces[i].c_str()).Good())
      FUZZ_CHECK(word == strict && word.AsUTF8() == pieces[i]);
  }
  FUZZ_CHECK(cl.GetArgValues()[pieces.size()] == nullptr);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0)
    return 0;
  const unsigned options = data[0];
  const bool caseSensitive = options & 1;
  const DKString argDelimiters(argDelimiterSets[(options >> 1) & 3]);
  const DKString valueDelimiters(valueDelimiterSets[(options >> 3) & 3]);
  ++data;
  --size;

  DKString text;
  if (options & 0x20) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    // Decoded leniently piece by piece, with the NULs kept: the splitter must stop at the first.
    for (std::size_t start = 0; start <= bytes.size();) {
      const std::size_t nul = std::min(bytes.find('\0', start), bytes.size());
      text += DKFormatString(DK_T("%S"), bytes.substr(start, nul - start).c_str());
      if (nul < bytes.size())
        text += DKChar(0);
      start = nul + 1;
    }
    CheckMainVector(bytes, argDelimiters, valueDelimiters, caseSensitive);
  } else {
    DKStdString units(size / 2, DK_T('\0'));
    for (std::size_t i = 0; i < units.size(); ++i)
      units[i] = static_cast<DKChar>(data[2 * i] | (data[2 * i + 1] << 8));
    text = units;
  }
  CheckString(text, argDelimiters, valueDelimiters, caseSensitive);
  return 0;
}
