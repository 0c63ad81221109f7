// Text helpers. Strings are UTF-8 throughout.
//
// The lower case is Unicode's (as QString and the services see it), not only ASCII's: adapters of
// case insensitive services key their maps by ToLower of a name, so "Ä.txt" and "ä.txt" meet.
//
//   std::string key = ToLower(name);
//   if (IEqualsASCII(header_name, "content-length")) ...
#pragma once

#include <QString>

#include <string>
#include <string_view>

// The lower case of `text`. Bytes that are not valid UTF-8 are kept as they are.
std::string ToLower(std::string_view text);
// The same into `*out`; false when `text` held bytes that are not valid UTF-8.
bool ToLower(std::string_view text, std::string* out);
// Writes the lower case into `*out` only when it differs from `text` (`*changed` says which),
// sparing a copy for the common all-lower name. False as ToLower.
bool LowercaseIfNeeded(std::string_view text, std::string* out, bool* changed);
// Equal but for case; ASCII text is compared without a copy.
bool IEqualsASCII(std::string_view text, const char* other);

std::string ConvertToBase64(const std::string& bytes);

QString StrToQStr(const std::string& text);
std::string QStrToStr(const QString& text);
// As QStrToStr, without the UTF-8 encoder for text that is all ASCII (ids, hashes, URLs).
std::string QStrToStrFast(const QString& text);

namespace utils {

bool IsValidUtf8(std::string_view text);

// One UTF-8 sequence at `p`: its length, 0 when `end` cuts a sequence that is good so far, -1
// when it is no UTF-8 (overlong forms, surrogates and values beyond U+10FFFF included).
int DecodeUtf8(const char* p, const char* end, char32_t* c);
void AppendUtf8(char32_t c, std::string* out);

// `text` escaped for a JSON string, within double quotes when `quoted`. Control characters become
// \n, \t, ... or \u00XX; bytes that are not valid UTF-8 become U+FFFD, since JSON must be UTF-8.
std::string JSONEncodedString(const std::string& text, bool quoted);

// Bytes for a log line: printable ASCII as it is, everything else (and "\") escaped as \xNN.
std::string SafePrintBinary(std::string_view bytes);

}  // namespace utils
