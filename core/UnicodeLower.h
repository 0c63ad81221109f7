// Unicode lower case of UTF-8 text, the key of case-insensitive name comparison.
//
//   utils::UnicodeToLower("ÄÖ Straße") == "äö straße"
//
// Each code point is mapped by its lower case, U+0130 to two code points, the others one to one
// (no mapping depends on context or language: a final sigma stays as written). Bytes that are
// not valid UTF-8 pass through unchanged, so two different invalid names never become equal.
#pragma once

#include <string>
#include <string_view>

namespace utils {

std::string UnicodeToLower(std::string_view utf8);

// Whether `text` lowered equals `lowered` (already the output of UnicodeToLower), without
// allocating for ASCII text.
bool EqualsLowered(std::string_view text, std::string_view lowered);

}  // namespace utils
