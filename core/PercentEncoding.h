// Percent encoding of URL parts (RFC 3986): the unreserved characters (letters, digits, "-", ".",
// "_", "~") stay as they are, every other byte becomes "%XX" in upper-case hex.
//
//   utils::PercentEncoded("/a b/c#1", true);   // "/a%20b/c%231"
//   utils::PercentEncoded("/a b/c#1", false);  // "%2Fa%20b%2Fc%231"
//   utils::PercentDecoded("a%20b");            // "a b"
#pragma once

#include <string>
#include <string_view>

namespace utils {

std::string PercentEncoded(std::string_view text, bool keep_slash);
// Appends the encoded text to `out`.
void PercentEncode(std::string_view text, std::string* out, bool keep_slash);
// A "%" not followed by two hex digits is kept as it is; "+" stays "+" (it is no blank in a path).
std::string PercentDecoded(std::string_view text);

}  // namespace utils
