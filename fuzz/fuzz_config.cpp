// Properties of the configuration file reader and writer on arbitrary bytes:
// - reading either loads, refuses the bytes (false: not valid in their encoding) or throws
//   DKConfigStreamException with one of the reader's texts; nothing else escapes;
// - a tree that loads can be saved, and the saved bytes load again to the same tree in the same
//   encoding; saving that tree gives the same bytes again;
// - a UTF-8 text without a byte-order mark or CR LF pairs reads the same through a narrow
//   stream as from bytes: the same tree or the same error.
#include <DorvikCore/DKConfigFile.h>
#include <DorvikCore/DKException.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <string_view>

namespace {

void Require(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "property violated: %s\n", what);
    std::abort();
  }
}

bool IsReaderText(const std::string& text) {
  static const char* const texts[] = {
      "unexpected EOF while parsing a key name of a configuration line",
      "expecting a '[' at the beginning of a section",
      "unexpected EOF while parsing a section name",
      "unexpected character after the closing ']' of a section name",
  };
  return std::find(std::begin(texts), std::end(texts), text) != std::end(texts);
}

bool SameTree(const DKConfigFile& a, const DKConfigFile& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end());
}

// Reads bytes; returns the error text when the reader threw, empty otherwise.
std::string Load(DKConfigFile& file, std::string_view bytes, bool& loaded) {
  loaded = false;
  try {
    loaded = file.ReloadFromBytes(bytes.data(), bytes.size());
  } catch (const DKConfigStreamException& e) {
    Require(IsReaderText(e.what()), "a syntax error has one of the reader's texts");
    return e.what();
  }
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

} // namespace

// Syntax errors are frequent here: their exceptions need no call stack.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("DK_DISABLE_STACK", "1", 0);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  DKSmartPtr<DKConfigFile> file(new DKConfigFile());
  bool loaded = false;
  const std::string error = Load(*file, bytes, loaded);
  if (!loaded && error.empty())
    return 0; // refused: not valid in its encoding

  if (!HasByteOrderMark(bytes) && bytes.find("\r\n") == std::string_view::npos) {
    DKSmartPtr<DKConfigFile> viaStream(new DKConfigFile());
    Require(LoadFromStream(*viaStream, bytes) == error, "the stream reader fails alike");
    Require(!loaded || SameTree(*file, *viaStream), "the stream reader reads the same tree");
  }
  if (!loaded)
    return 0;

  std::string saved;
  Require(file->SaveToBytes(saved), "a tree that loaded can be saved");
  DKSmartPtr<DKConfigFile> again(new DKConfigFile());
  bool reloaded = false;
  Require(Load(*again, saved, reloaded).empty() && reloaded, "saved bytes load again");
  Require(SameTree(*file, *again), "saved bytes load to the same tree");
  Require(again->GetEncoding() == file->GetEncoding(), "saved bytes keep the encoding");
  std::string savedAgain;
  Require(again->SaveToBytes(savedAgain) && savedAgain == saved, "saving is stable");
  return 0;
}
