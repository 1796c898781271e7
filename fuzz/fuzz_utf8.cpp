// Properties of the text conversions on arbitrary bytes:
// - lenient UTF-8 decoding never fails, and strict decoding succeeds exactly when the lenient
//   result holds no U+FFFD besides those the input encodes itself;
// - a strict failure names the first invalid byte: the text before it decodes, and the lenient
//   result replaces from there;
// - a valid text re-encodes to the same bytes; a lenient result encodes strictly and decodes
//   back to itself;
// - Latin-1 round-trips every byte string, and code page 1252 every one it accepts;
// - scrambling round-trips any UTF-16 text, lone surrogates included, into the marker and a body
//   of letters, digits, '-' and '_', leaving the strings that shared the text alone; and
//   unscrambling anything else leaves it alone.
#include <DorvikCore/DKError.h>
#include <DorvikCore/DKString.h>
#include <DorvikCore/DKStringConverter.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

void Require(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "property violated: %s\n", what);
    std::abort();
  }
}

std::size_t CountReplacements(const DKString& s) {
  std::size_t n = 0;
  for (const DKChar u : s)
    n += u == 0xFFFD;
  return n;
}

// Occurrences of EF BF BD, the encoded U+FFFD. 0xEF never continues a sequence, so each
// occurrence is one whole character of a valid or a lenient decoding.
std::size_t CountEncodedReplacements(std::string_view bytes) {
  std::size_t n = 0;
  for (std::size_t pos = bytes.find("\xEF\xBF\xBD"); pos != std::string_view::npos; pos = bytes.find("\xEF\xBF\xBD", pos + 3))
    ++n;
  return n;
}

long FirstParam(const DKErrorID& id) {
  const DKErrorI* e = id.GetError().Get();
  Require(e && e->GetParameterType(0) == DKErrorI::ParamLong, "the error carries a position");
  return *static_cast<const long*>(e->GetParameterValue(0));
}

void CheckUtf8(std::string_view bytes) {
  using Policy = DKStringConverter::Policy;
  const auto strict = DKStringConverter::ForCodePage(65001);
  const auto lenient = DKStringConverter::ForCodePage(65001, Policy::Replace);

  DKString replaced;
  Require(lenient->ToUnicode(bytes.data(), bytes.size(), replaced).Good(), "lenient decoding never fails");
  DKString decoded;
  const DKErrorID result = strict->ToUnicode(bytes.data(), bytes.size(), decoded);
  const bool clean = CountReplacements(replaced) == CountEncodedReplacements(bytes);
  Require(result.Good() == clean, "strict decoding succeeds exactly when nothing was replaced");

  if (result.Good()) {
    Require(decoded == replaced, "valid text decodes the same either way");
    std::string encoded;
    Require(strict->FromUnicode(decoded.c_str(), decoded.Length(), encoded).Good(), "a decoded text encodes");
    Require(encoded == bytes, "a valid text re-encodes to the same bytes");
  } else {
    Require(result.GetCode() == DK_MSG_INVALID_UTF8, "invalid UTF-8 is reported as such");
    Require(decoded.IsEmpty(), "a failed decoding leaves the output alone");
    const long offset = FirstParam(result);
    Require(offset >= 0 && static_cast<std::size_t>(offset) < bytes.size(), "the offset lies inside the text");
    DKString prefix;
    Require(strict->ToUnicode(bytes.data(), static_cast<std::size_t>(offset), prefix).Good(), "the text before the offset is valid");
    Require(replaced.Length() > prefix.Length() && replaced.SubStr(0, prefix.Length()) == prefix &&
                replaced[prefix.Length()] == 0xFFFD,
            "the lenient result replaces from the offset on");
  }

  std::string reencoded;
  Require(strict->FromUnicode(replaced.c_str(), replaced.Length(), reencoded).Good(), "a lenient result has no lone surrogate");
  DKString again;
  Require(strict->ToUnicode(reencoded.data(), reencoded.size(), again).Good() && again == replaced,
          "a lenient result survives a second round trip");
  Require(replaced.AsUTF8() == reencoded, "AsUTF8 agrees with the converter");
}

void CheckSingleByte(std::string_view bytes) {
  const auto latin1 = DKStringConverter::ForCodePage(28591);
  DKString text;
  Require(latin1->ToUnicode(bytes.data(), bytes.size(), text).Good() && text.Length() == bytes.size(), "Latin-1 decodes every byte");
  std::string back;
  Require(latin1->FromUnicode(text.c_str(), text.Length(), back).Good() && back == bytes, "Latin-1 round trip");

  const auto windows1252 = DKStringConverter::ForCodePage(1252);
  DKString decoded;
  const bool undefined = bytes.find_first_of(std::string_view("\x81\x8D\x8F\x90\x9D", 5)) != std::string_view::npos;
  const DKErrorID result = windows1252->ToUnicode(bytes.data(), bytes.size(), decoded);
  Require(result.Good() == !undefined, "1252 rejects exactly its undefined bytes");
  if (result.Good()) {
    std::string encoded;
    Require(windows1252->FromUnicode(decoded.c_str(), decoded.Length(), encoded).Good() && encoded == bytes, "1252 round trip");
  }
}

void CheckScramble(std::string_view bytes) {
  // The bytes as UTF-16 units, lone surrogates and all; 0 units are dropped (text is terminated).
  DKString text;
  for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
    const auto unit = static_cast<DKChar>(static_cast<unsigned char>(bytes[i]) | static_cast<unsigned char>(bytes[i + 1]) << 8);
    if (unit)
      text.Append(unit);
  }
  DKString s = text;
  if (text.IsEncrypted()) {
    s.Encrypt();
    Require(s == text, "encrypting a scrambled text does nothing");
    return;
  }
  s.Decrypt();
  Require(s == text, "decrypting a plain text does nothing");
  const DKString original(text.c_str(), text.Length());
  s.Encrypt();
  Require(s.IsEncrypted() && s.StartsWith(DK_T("{DKS1}")), "a scrambled text is recognised");
  for (std::size_t i = 6; i < s.Length(); ++i)
    Require((s[i] >= DK_T('A') && s[i] <= DK_T('Z')) || (s[i] >= DK_T('a') && s[i] <= DK_T('z')) ||
                (s[i] >= DK_T('0') && s[i] <= DK_T('9')) || s[i] == DK_T('-') || s[i] == DK_T('_'),
            "the body is letters, digits, '-' and '_'");
  Require(text == original, "a string that shared the text keeps it");
  s.Decrypt();
  Require(s == text, "scrambling round trip");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  CheckUtf8(bytes);
  CheckSingleByte(bytes);
  CheckScramble(bytes);
  // The same bytes read as text that may already carry the scrambling marker.
  DKString asText;
  Require(DKStringConverter::ForCodePage(65001, DKStringConverter::Replace)->ToUnicode(bytes.data(), bytes.size(), asText).Good(),
          "lenient decoding never fails");
  DKString copy = asText;
  copy.Decrypt();
  Require(asText.IsEncrypted() || copy == asText, "decrypting a text that is not scrambled does nothing");
  return 0;
}
