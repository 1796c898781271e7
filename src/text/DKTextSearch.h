// Searching UTF-16 text: the first occurrence of a unit or of a run of units. Internal to the
// library; DKString's Find, Replace and Split use it.
//
// A run is found by testing its first and last units together, eight positions a step with
// SSE2 where the processor has it, and comparing the rest only where both match; text whose
// units keep matching that filter (very repetitive text) switches to a Boyer-Moore search,
// so no text costs more than a constant times its length.
#pragma once

#include <DorvikCore/DKTypes.h>

#include <cstddef>

namespace dktext {

// Position of the first ch in text[start, length), or DKString::npos.
std::size_t FindUnit(const DKChar* text, std::size_t length, DKChar ch, std::size_t start) noexcept;

// Position of the first occurrence of needle[0, n) that starts in text[start, length), or
// npos. An empty needle is found at start (when start <= length).
std::size_t FindUnits(const DKChar* text, std::size_t length, const DKChar* needle, std::size_t n,
                      std::size_t start);

} // namespace dktext
