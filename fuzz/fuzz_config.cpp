// Properties of the configuration file reader and writer on arbitrary bytes, read once with ';'
// as the only comment marker and once with '#' as well:
// - reading either loads, refuses the bytes (false, with an error text: not valid in their
//   encoding) or throws DKConfigStreamException with one of the reader's texts; nothing else
//   escapes;
// - no file gets shorter on a save except by the documented normalisations: the saved text is
//   exactly the normal form that fuzz/ConfigNormalForm.h works out line by line from
//   the README's rules (in the file's encoding; UTF-16 is compared unit by unit);
// - a tree that loads can be saved, and the saved bytes load again to the same tree and leading
//   text in the same encoding; saving that tree gives the same bytes again. (Saved text that is
//   empty has no encoding to find; UTF-16 without a byte-order mark is found again when all its
//   NUL bytes sit on one side, as a save only takes out whole units.)
// - load notes name lines of the text, in file order of their first line, and are counted;
// - a text without a byte-order mark or NUL bytes reads the same through a narrow stream as from
//   bytes: the same tree, leading text and notes, or the same error.
#include <DorvikCore/DKConfigFile.h>
#include <DorvikCore/DKException.h>

#include "FuzzCheck.h"
#include "ConfigNormalForm.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <string_view>

namespace {

bool IsReaderText(const std::string& text) {
  static const char* const texts[] = {
      "unexpected EOF while parsing a key name of a configuration line",
      "expecting a '[' at the beginning of a section",
      "unexpected EOF while parsing a section name",
      "unexpected character after the closing ']' of a section name",
  };
  return std::find(std::begin(texts), std::end(texts), text) != std::end(texts);
}

bool SameContent(const DKConfigFile& a, const DKConfigFile& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end()) && a.GetLeadingText() == b.GetLeadingText();
}

DKSmartPtr<DKConfigFile> NewFile(bool hash) {
  DKSmartPtr<DKConfigFile> file(new DKConfigFile());
  FUZZ_CHECK(file->SetCommentMarkers(hash ? DK_T(";#") : DK_T(";")));
  return file;
}

// Reads bytes; returns the error text when the reader threw, empty otherwise.
std::string Load(DKConfigFile& file, std::string_view bytes, bool& loaded) {
  loaded = false;
  try {
    loaded = file.ReloadFromBytes(bytes.data(), bytes.size());
  } catch (const DKConfigStreamException& e) {
    FUZZ_CHECK(IsReaderText(e.what()));
    return e.what();
  }
  FUZZ_CHECK(loaded || !file.GetLastErrorText().IsEmpty());
  return std::string();
}

std::string LoadFromStream(DKConfigFile& file, std::string_view bytes) {
  std::istringstream in{std::string(bytes)};
  try {
    in >> file;
  } catch (const DKConfigStreamException& e) {
    return e.what();
  }
  return std::string();
}

bool HasByteOrderMark(std::string_view bytes) {
  return bytes.starts_with("\xFF\xFE") || bytes.starts_with("\xFE\xFF") || bytes.starts_with("\xEF\xBB\xBF");
}

// The text of bytes in the file's encoding as UTF-8, without the byte-order mark. UTF-16 goes
// unit by unit, each unit its own UTF-8 sequence, a surrogate too (never paired): the compare then
// sees every unit as it stands. (Paired, a save that brings two lone halves together by taking
// out the bare carriage returns between them would read as a new character on one side only.)
std::string AsUtf8(std::string_view bytes, DKConfigFile::Encoding encoding) {
  switch (encoding) {
  case DKConfigFile::Utf8: return std::string(bytes);
  case DKConfigFile::Utf8WithBom: return std::string(bytes.substr(3));
  default: break;
  }
  const bool little = encoding == DKConfigFile::Utf16LE || encoding == DKConfigFile::Utf16LEWithoutBom;
  if (encoding == DKConfigFile::Utf16LE || encoding == DKConfigFile::Utf16BE)
    bytes.remove_prefix(2);
  std::string text;
  for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
    const unsigned first = static_cast<unsigned char>(bytes[i]), second = static_cast<unsigned char>(bytes[i + 1]);
    const unsigned unit = little ? first | second << 8 : first << 8 | second;
    if (unit < 0x80) {
      text += static_cast<char>(unit);
    } else if (unit < 0x800) {
      text += static_cast<char>(0xC0 | unit >> 6);
      text += static_cast<char>(0x80 | (unit & 0x3F));
    } else {
      text += static_cast<char>(0xE0 | unit >> 12);
      text += static_cast<char>(0x80 | (unit >> 6 & 0x3F));
      text += static_cast<char>(0x80 | (unit & 0x3F));
    }
  }
  return text;
}

void Check(std::string_view bytes, bool hash) {
  const DKSmartPtr<DKConfigFile> file = NewFile(hash);
  bool loaded = false;
  const std::string error = Load(*file, bytes, loaded);
  if (!loaded && error.empty())
    return; // refused: not valid in its encoding

  if (!HasByteOrderMark(bytes) && bytes.find('\0') == std::string_view::npos) {
    const DKSmartPtr<DKConfigFile> viaStream = NewFile(hash);
    FUZZ_CHECK(LoadFromStream(*viaStream, bytes) == error);
    FUZZ_CHECK(!loaded || SameContent(*file, *viaStream));
    FUZZ_CHECK(!loaded || viaStream->GetLoadNotes() == file->GetLoadNotes());
  }
  if (!loaded)
    return;

  const std::vector<DKConfigLoadNote> notes = file->GetLoadNotes();
  FUZZ_CHECK(file->GetLoadNoteCount() >= notes.size() && notes.size() <= DKConfigFile::maxLoadNotes);
  const std::size_t lines = static_cast<std::size_t>(std::count(bytes.begin(), bytes.end(), '\n')) + 1;
  for (std::size_t i = 0; i < notes.size(); ++i) {
    FUZZ_CHECK(notes[i].firstLine >= 1 && notes[i].firstLine <= notes[i].lastLine);
    FUZZ_CHECK(file->GetEncoding() > DKConfigFile::Utf8WithBom || notes[i].lastLine <= lines);
    FUZZ_CHECK(i == 0 || notes[i - 1].firstLine <= notes[i].firstLine);
  }

  std::string saved;
  FUZZ_CHECK(file->SaveToBytes(saved));
  const DKConfigFile::Encoding encoding = file->GetEncoding();
  FUZZ_CHECK(AsUtf8(saved, encoding) == dkconfigref::NormalForm(AsUtf8(bytes, encoding), hash));

  if (encoding == DKConfigFile::Utf16LEWithoutBom || encoding == DKConfigFile::Utf16BEWithoutBom) {
    const std::size_t otherSide = encoding == DKConfigFile::Utf16LEWithoutBom ? 0 : 1;
    for (std::size_t i = otherSide; i < bytes.size(); i += 2)
      if (bytes[i] == 0)
        return; // a character such as U+4E00: the pattern may not stay plain
  }
  const DKSmartPtr<DKConfigFile> again = NewFile(hash);
  bool reloaded = false;
  FUZZ_CHECK(Load(*again, saved, reloaded).empty() && reloaded);
  FUZZ_CHECK(SameContent(*file, *again));
  FUZZ_CHECK(again->GetEncoding() == encoding || saved.empty());
  std::string savedAgain;
  FUZZ_CHECK(again->SaveToBytes(savedAgain) && savedAgain == saved);
}

} // namespace

// Syntax errors are frequent here: their exceptions need no call stack.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  if (!std::getenv("DK_DISABLE_STACK"))
    dktest::SetEnvironment("DK_DISABLE_STACK", "1");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  Check(bytes, false);
  Check(bytes, true);
  return 0;
}
