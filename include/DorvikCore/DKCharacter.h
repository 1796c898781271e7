// Character data for the whole Basic Multilingual Plane: simple case mapping, case folding and
// accent folding, from tables generated out of the Unicode Character Database. Each function maps
// one UTF-16 code unit; code points above U+FFFF are not covered, and surrogate units (the halves
// of such code points) map to themselves.
#pragma once

#include <DorvikCore/DKTypes.h>

#include <cstddef>

// Upper- and lower-case forms of one code unit (the simple, one-to-one mappings: the German sharp
// s stays as it is in upper case, the Turkish dotless i uppercases to I and the dotted capital I
// lowercases to i). A unit without such a form maps to itself.
DK_EXPORT DKChar DKtowupper(DKChar ch) noexcept;
DK_EXPORT DKChar DKtowlower(DKChar ch) noexcept;

// Maps every unit of text[0, length) in place.
DK_EXPORT void DKStrUpper(DKChar* text, std::size_t length) noexcept;
DK_EXPORT void DKStrLower(DKChar* text, std::size_t length) noexcept;

// The one case that case-insensitive comparison brings both sides to: the lower case of the upper
// case. Sigma, final sigma and capital sigma fold alike, as do k, K and the Kelvin sign, or i, I,
// the dotless i and the dotted capital I.
DK_EXPORT DKChar DKFoldCase(DKChar ch) noexcept;

// Accent folding: a character whose canonical decomposition starts with a base character maps to
// that base, recursively (e-acute to e, u-horn-dot-below to u, the Angstrom sign to A). A
// nonspacing mark (general category Mn) has no base and maps to 0: accent-insensitive comparison
// skips it. Letters without a canonical decomposition, such as o-slash, l-stroke, ae or the
// dotless i, are letters of their own and map to themselves. U+0000 maps to itself.
DK_EXPORT DKChar DKFoldAccent(DKChar ch) noexcept;

// DKFoldCase and DKFoldAccent together; 0 for a nonspacing mark.
DK_EXPORT DKChar DKFoldCaseAndAccent(DKChar ch) noexcept;

// True for a nonspacing combining mark (general category Mn), such as U+0301 COMBINING ACUTE
// ACCENT or a variation selector.
DK_EXPORT bool DKIsNonSpacingMark(DKChar ch) noexcept;

// True for white space: the code points of the BMP with the Unicode White_Space property
// (U+0009-U+000D, U+0020, U+0085, U+00A0, U+1680, U+2000-U+200A, U+2028, U+2029, U+202F,
// U+205F, U+3000). The same on every platform and in every locale, unlike the C library's
// iswspace. The library skips white space with it wherever it skips by meaning rather than by
// a listed set (number conversions, natural comparison).
DK_EXPORT bool DKiswspace(DKChar ch) noexcept;

// The version of the Unicode Character Database the tables were generated from, e.g. "15.0.0".
DK_EXPORT const char* DKUnicodeVersion() noexcept;
