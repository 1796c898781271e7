// Case mapping and folding of single code units and of whole buffers, through the generated
// Unicode tables.
#include <DorvikCore/DKCharacter.h>

#include "text/DKUnicodeTables.h"

using namespace DKUnicode;

DKChar DKtowupper(DKChar ch) noexcept { return Map<Upper>(ch); }
DKChar DKtowlower(DKChar ch) noexcept { return Map<Lower>(ch); }
DKChar DKFoldCase(DKChar ch) noexcept { return Map<Fold>(ch); }
DKChar DKFoldAccent(DKChar ch) noexcept { return Map<Accent>(ch); }
DKChar DKFoldCaseAndAccent(DKChar ch) noexcept { return Map<CaseAccent>(ch); }
bool DKiswspace(DKChar ch) noexcept { return IsWhiteSpace(ch); }
bool DKIsNonSpacingMark(DKChar ch) noexcept { return ch != 0 && MapFromTable<Accent>(ch) == 0; }
const char* DKUnicodeVersion() noexcept { return kUnicodeVersion; }

namespace {

template <Table T>
void MapInPlace(DKChar* text, std::size_t length) noexcept {
  for (std::size_t i = 0; i < length; ++i)
    text[i] = Map<T>(text[i]);
}

} // namespace

void DKStrUpper(DKChar* text, std::size_t length) noexcept { MapInPlace<Upper>(text, length); }
void DKStrLower(DKChar* text, std::size_t length) noexcept { MapInPlace<Lower>(text, length); }
