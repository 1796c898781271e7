// Fuzzes the reader of plug-in list files (osx.lst) and the GUID text form.
//
// Input: one option byte, then the text. Option bit 0: read the text as a GUID instead of a list.
//
// Properties checked besides "no crash, no hang, no exception":
//   - a list gives one module per line at most, each an absolute path in the search directory
//     (or a name that was absolute already) whose name carries no surrounding blanks;
//   - a refused line is never also a module, and every line over 260 characters is refused;
//   - a GUID that reads prints in the braced upper-case form, and that form reads back to it.
#include "FuzzCheck.h"

#include <DorvikCore/DKApplication.h>
#include <DorvikCore/DKError.h>
#include <DorvikCore/DKGuid.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

void CheckList(const std::string& text) {
  const DKString base(DK_T("/plugins"));
  std::vector<DKString> problems;
  const std::vector<DKString> modules = DKApplicationWithPlugIns::ParsePlugInList(text, base, problems);

  std::size_t lines = 0;
  std::size_t overlong = 0;
  for (std::size_t start = 0; start < text.size();) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos)
      end = text.size();
    ++lines;
    // A line longer than 260 bytes of one-byte characters is longer than 260 characters.
    std::size_t length = end - start;
    if (length > 0 && text[end - 1] == '\r')
      --length;
    bool ascii = true;
    for (std::size_t i = start; i < start + length; ++i)
      ascii = ascii && static_cast<unsigned char>(text[i]) < 0x80;
    if (ascii && length > DKApplicationWithPlugIns::MaxListLine)
      ++overlong;
    start = end + 1;
  }
  FUZZ_CHECK(modules.size() + problems.size() <= lines);
  FUZZ_CHECK(problems.size() >= overlong);
  for (const DKString& module : modules) {
    FUZZ_CHECK(!module.IsEmpty() && module[0] == DK_T('/'));
    const DKChar last = module[module.Length() - 1];
    FUZZ_CHECK(last != DK_T(' ') && last != DK_T('\t'));
    if (module.Find(base + DK_T("/")) == 0) {
      const DKChar first = module[base.Length() + 1];
      FUZZ_CHECK(first != DK_T(' ') && first != DK_T('\t') && first != DK_T('#') && first != DK_T(';'));
    }
  }
}

void CheckGuid(const std::string& text) {
  DKGuid guid;
  if (!DKGuid::Parse(text.c_str(), guid))
    return;
  const std::string printed = guid.AsUTF8();
  FUZZ_CHECK(printed.size() == 38 && printed.front() == '{' && printed.back() == '}');
  DKGuid again;
  FUZZ_CHECK(DKGuid::Parse(printed.c_str(), again) && again == guid);
  FUZZ_CHECK(DKGuid::FromString(guid.AsString()) == guid);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0)
    return 0;
  const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  if (data[0] & 1)
    CheckGuid(text.substr(0, text.find('\0')));
  else
    CheckList(text);
  return 0;
}
