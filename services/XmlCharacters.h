// The characters of an XML document in UTF-8, for DavXmlStream: which code points a document and
// a name may hold, and references to characters.
//
//   char32_t c = 0;
//   const int length = xml_chars::DecodeReference(p, end, &c);  // "&#xE9;" gives 6 and U+00E9
#pragma once

#include <string>

namespace xml_chars {

// A code point a document may hold.
bool IsXmlChar(char32_t c);
// A name without a colon, from `p`; its end, or `p` when there is none.
const char* ScanNcName(const char* p, const char* end);
// A reference at `p` ('&'): its length up to ';', 0 when `end` cuts it, -1 when it is bad or
// names anything but a character.
int DecodeReference(const char* p, const char* end, char32_t* c);
// Whether [p, end) is UTF-8 of characters a document may hold, none of them cut at `end`.
bool AreXmlChars(const char* p, const char* end);
// Where [p, end) may be cut without cutting a UTF-8 sequence.
const char* Utf8CutBefore(const char* p, const char* end);

}  // namespace xml_chars
