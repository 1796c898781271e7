// Character data for the whole Basic Multilingual Plane: simple case mapping and accent
// folding, from tables generated out of the Unicode Character Database.
#pragma once

#include <DorvikCore/DKTypes.h>

// Upper- and lower-case forms of one code unit; a unit without one (including surrogates) maps
// to itself.
DK_EXPORT DKChar DKtowupper(DKChar ch) noexcept;
DK_EXPORT DKChar DKtowlower(DKChar ch) noexcept;
