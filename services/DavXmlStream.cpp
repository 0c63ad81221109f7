#include "services/DavXmlStream.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>

#include "core/LoggerWrapper.h"
#include "core/TimeUtils.h"

namespace {

constexpr std::size_t kBufferSize = DavXmlStream::kMaxTokenSize;
constexpr std::size_t kMaxDepth = 256;
// Longer than any reference a server writes; a bound keeps a reference that never ends cheap.
constexpr std::size_t kMaxReferenceSize = 64;

// What stops the scan of text: markup, references, a possible "]]>", line ends that aren't a
// single LF, control characters and whatever is not ASCII. Everything else is taken as it is, which
// is nearly every byte.
constexpr std::array<bool, 256> MakeTextStops() {
  std::array<bool, 256> stops{};
  for (int c = 0; c < 256; ++c) {
    stops[c] = c < 0x20 || c >= 0x80 || c == '<' || c == '&' || c == ']';
  }
  stops['\t'] = stops['\n'] = false;
  return stops;
}
constexpr std::array<bool, 256> kTextStops = MakeTextStops();

// Where the search for the end of a tag stops: its '>', and in a start tag the quotes of values,
// which may hold '>'.
constexpr std::array<bool, 256> MakeTagStops(bool quotes) {
  std::array<bool, 256> stops{};
  stops['>'] = true;
  stops['"'] = stops['\''] = quotes;
  return stops;
}
constexpr std::array<bool, 256> kTagEnd = MakeTagStops(false);
constexpr std::array<bool, 256> kTagEndOrQuote = MakeTagStops(true);

bool IsBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

const char* SkipBlanks(const char* p, const char* end) {
  while (p < end && IsBlank(*p)) {
    ++p;
  }
  return p;
}

bool IsXmlChar(char32_t c) {
  return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) ||
         (c >= 0xE000 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0x10FFFF);
}

// One UTF-8 sequence at `p`: its length, 0 when `end` cuts a sequence that is good so far, -1
// when it is no UTF-8 (overlong forms and surrogates included).
int DecodeUtf8(const char* p, const char* end, char32_t* c) {
  const auto byte = [](char b) { return static_cast<unsigned char>(b); };
  const unsigned char lead = byte(*p);
  int length = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (lead < 0x80) {
    *c = lead;
    return 1;
  } else if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
    *c = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    *c = lead & 0x0F;
    low = lead == 0xE0 ? 0xA0 : 0x80;
    high = lead == 0xED ? 0x9F : 0xBF;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    *c = lead & 0x07;
    low = lead == 0xF0 ? 0x90 : 0x80;
    high = lead == 0xF4 ? 0x8F : 0xBF;
  } else {
    return -1;
  }
  for (int i = 1; i < length; ++i) {
    if (p + i == end) {
      return 0;
    }
    const unsigned char next = byte(p[i]);
    if (next < (i == 1 ? low : 0x80) || next > (i == 1 ? high : 0xBF)) {
      return -1;
    }
    *c = (*c << 6) | (next & 0x3F);
  }
  return length;
}

void AppendUtf8(char32_t c, std::string* out) {
  if (c < 0x80) {
    out->push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    out->push_back(static_cast<char>(0xC0 | (c >> 6)));
    out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else if (c < 0x10000) {
    out->push_back(static_cast<char>(0xE0 | (c >> 12)));
    out->push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else {
    out->push_back(static_cast<char>(0xF0 | (c >> 18)));
    out->push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
  }
}

bool IsNameStart(char32_t c) {
  if (c < 0x80) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
  }
  return (c >= 0xC0 && c <= 0xD6) || (c >= 0xD8 && c <= 0xF6) || (c >= 0xF8 && c <= 0x2FF) ||
         (c >= 0x370 && c <= 0x37D) || (c >= 0x37F && c <= 0x1FFF) || c == 0x200C || c == 0x200D ||
         (c >= 0x2070 && c <= 0x218F) || (c >= 0x2C00 && c <= 0x2FEF) ||
         (c >= 0x3001 && c <= 0xD7FF) || (c >= 0xF900 && c <= 0xFDCF) ||
         (c >= 0xFDF0 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0xEFFFF);
}

bool IsNameChar(char32_t c) {
  return IsNameStart(c) || (c >= '0' && c <= '9') || c == '-' || c == '.' || c == 0xB7 ||
         (c >= 0x300 && c <= 0x36F) || c == 0x203F || c == 0x2040;
}

// What a byte is to a name: ASCII that may be in one (kNameByte), ASCII that may not, or the
// first byte of a character to decode.
enum NameByte : unsigned char { kNotName, kNameByte, kDecode };
constexpr std::array<NameByte, 256> MakeNameBytes() {
  std::array<NameByte, 256> bytes{};
  for (int c = 0; c < 256; ++c) {
    const bool ascii = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '_' || c == '-' || c == '.';
    bytes[c] = c >= 0x80 ? kDecode : ascii ? kNameByte : kNotName;
  }
  return bytes;
}
constexpr std::array<NameByte, 256> kNameBytes = MakeNameBytes();

// A name without a colon, from `p`; its end, or `p` when there is none.
const char* ScanNcName(const char* p, const char* end) {
  char32_t c = 0;
  int length = p < end ? DecodeUtf8(p, end, &c) : 0;
  if (length <= 0 || !IsNameStart(c)) {
    return p;
  }
  const char* q = p + length;
  for (;;) {
    while (q < end && kNameBytes[static_cast<unsigned char>(*q)] == kNameByte) {
      ++q;
    }
    if (q == end || kNameBytes[static_cast<unsigned char>(*q)] != kDecode) {
      return q;
    }
    length = DecodeUtf8(q, end, &c);
    if (length <= 0 || !IsNameChar(c)) {
      return q;
    }
    q += length;
  }
}

struct QualifiedName {
  std::string_view qualified;
  std::string_view prefix;
  std::string_view local;
};

// A name with an optional prefix; false when there is none at `*p`.
bool ScanQualifiedName(const char** p, const char* end, QualifiedName* name) {
  const char* begin = *p;
  const char* q = ScanNcName(begin, end);
  if (q == begin) {
    return false;
  }
  const char* local = begin;
  if (q < end && *q == ':') {
    local = q + 1;
    q = ScanNcName(local, end);
    if (q == local) {
      return false;
    }
    name->prefix = std::string_view(begin, static_cast<std::size_t>(local - 1 - begin));
  } else {
    name->prefix = std::string_view();
  }
  name->qualified = std::string_view(begin, static_cast<std::size_t>(q - begin));
  name->local = std::string_view(local, static_cast<std::size_t>(q - local));
  *p = q;
  return true;
}

// A reference at `p` ('&'): its length up to ';', 0 when `end` cuts it, -1 when it is bad or
// names anything but a character.
int DecodeReference(const char* p, const char* end, char32_t* c) {
  const char* last = p + std::min<std::size_t>(end - p, kMaxReferenceSize);
  const char* semicolon = p + 1;
  while (semicolon < last &&
         ((*semicolon >= '0' && *semicolon <= '9') || (*semicolon >= 'a' && *semicolon <= 'z') ||
          (*semicolon >= 'A' && *semicolon <= 'Z') || *semicolon == '#')) {
    ++semicolon;
  }
  if (semicolon == end) {
    return 0;
  }
  if (semicolon == last || *semicolon != ';') {
    return -1;
  }
  const std::string_view body(p + 1, static_cast<std::size_t>(semicolon - p - 1));
  const int length = static_cast<int>(body.size() + 2);
  if (body.size() > 1 && body[0] == '#') {
    const bool hex = body[1] == 'x';
    const std::string_view digits = body.substr(hex ? 2 : 1);
    std::uint32_t value = 0;
    const auto [rest, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), value, hex ? 16 : 10);
    if (digits.empty() || error != std::errc() || rest != digits.data() + digits.size() ||
        !IsXmlChar(value)) {
      return -1;
    }
    *c = value;
    return length;
  }
  static constexpr std::pair<std::string_view, char> kEntities[] = {
      {"lt", '<'}, {"gt", '>'}, {"amp", '&'}, {"apos", '\''}, {"quot", '"'}};
  for (const auto& [entity, replacement] : kEntities) {
    if (body == entity) {
      *c = static_cast<unsigned char>(replacement);
      return length;
    }
  }
  return -1;
}

// Whether [p, end) is UTF-8 of characters XML allows, none of them cut at `end`.
bool AreXmlChars(const char* p, const char* end) {
  while (p < end) {
    if (static_cast<unsigned char>(*p) >= 0x20 && static_cast<unsigned char>(*p) < 0x80) {
      ++p;
      continue;
    }
    char32_t c = 0;
    const int length = DecodeUtf8(p, end, &c);
    if (length <= 0 || !IsXmlChar(c)) {
      return false;
    }
    p += length;
  }
  return true;
}

// Where [p, end) may be cut without cutting a UTF-8 sequence.
const char* Utf8CutBefore(const char* p, const char* end) {
  for (const char* q = end; q > p && end - q < 4;) {
    --q;
    const unsigned char byte = static_cast<unsigned char>(*q);
    if (byte < 0x80) {
      return end;
    }
    if (byte >= 0xC0) {
      const int length = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : 2;
      return end - q < length ? q : end;
    }
  }
  return end;
}

// An attribute value or what follows a processing instruction's target: characters, and in a
// value no '<' and only good references.
bool IsGoodValue(const char* p, const char* end) {
  for (const char* q = p; q < end; ++q) {
    if (*q == '<') {
      return false;
    }
    if (*q == '&') {
      char32_t c = 0;
      const int length = DecodeReference(q, end, &c);
      if (length <= 0 || !AreXmlChars(p, q)) {
        return false;
      }
      p = q + length;
      q = p - 1;
    }
  }
  return AreXmlChars(p, end);
}

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return (x >= 'A' && x <= 'Z' ? x + 32 : x) == (y >= 'A' && y <= 'Z' ? y + 32 : y);
         });
}

// `text` with each CR LF and each lone CR made one LF, as every line end reaches the application.
std::string_view WithLineFeeds(std::string_view text, std::string* scratch) {
  if (text.find('\r') == std::string_view::npos) {
    return text;
  }
  scratch->clear();
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\r') {
      scratch->push_back(text[i]);
    } else if (i + 1 == text.size() || text[i + 1] != '\n') {
      scratch->push_back('\n');
    }
  }
  return *scratch;
}

bool StartsWith(std::string_view text, std::string_view head) {
  return text.substr(0, head.size()) == head;
}

}  // namespace

DavXmlStream::DavXmlStream(InputStream* input) : input_(input), buffer_(new char[kBufferSize]) {}

bool DavXmlStream::Fail(std::string_view reason) {
  DumpXmlPosition();
  LOG_WARNING << "Failed to parse xml: " << reason << " at byte " << consumed_ + pos_;
  state_ = kMalformed;
  return false;
}

void DavXmlStream::DumpXmlPosition() const {
  LOG_INFO << "Xml input buffer: \n" << std::string_view(buffer_.get(), end_);
  LOG_INFO << "Parsing at byte " << consumed_ + pos_;
}

bool DavXmlStream::Refill() {
  // What is left is the beginning of a token: it moves to the front, the rest is read after it.
  if (pos_ > 0) {
    std::memmove(buffer_.get(), buffer_.get() + pos_, end_ - pos_);
    consumed_ += pos_;
    end_ -= pos_;
    pos_ = 0;
  }
  if (end_ == kBufferSize) {
    return Fail("a token longer than the buffer");
  }
  std::uint32_t done = 0;
  const InputStream::Result status =
      input_->Read(reinterpret_cast<std::uint8_t*>(buffer_.get() + end_),
                   static_cast<std::uint32_t>(kBufferSize - end_), &done);
  if (status == InputStream::Result::FAILED) {
    LOG_WARNING << "Reading input stream failed.";
    state_ = kStreamFailed;
    return false;
  }
  if (done == 0) {
    // The end of a stream that gave something: a document cut short is found malformed by the
    // scan that needed more.
    if (status == InputStream::Result::END && consumed_ + end_ > 0) {
      closed_ = true;
      return true;
    }
    LOG_WARNING << "Input stream closed with no data.";
    state_ = kStreamFailed;
    return false;
  }
  end_ += done;
  return true;
}

bool DavXmlStream::Need(std::size_t bytes) {
  while (end_ - pos_ < bytes && !closed_) {
    if (!Refill()) {
      return false;
    }
  }
  return true;
}

bool DavXmlStream::ReadNext() {
  if (state_ != kGood) {
    return false;
  }
  kind_ = kNone;
  if (popPending_) {
    popPending_ = false;
    PopElement();
  }
  if (pendingEnd_) {
    pendingEnd_ = false;
    popPending_ = true;
    kind_ = kEndElement;
    return true;
  }
  if (!started_) {
    started_ = true;
    if (!SkipByteOrderMark()) {
      return false;
    }
  }
  while (kind_ == kNone) {
    bool ok = true;
    if (section_ != Section::kNone) {
      ok = ReadSection();
    } else if (pos_ == end_) {
      ok = closed_ ? ReadEndOfInput() : Refill();
    } else if (buffer_[pos_] == '<') {
      ok = ReadMarkup();
    } else {
      ok = ReadText();
    }
    if (!ok) {
      return false;
    }
  }
  return true;
}

bool DavXmlStream::SkipByteOrderMark() {
  if (!Need(3)) {
    return false;
  }
  if (StartsWith(std::string_view(buffer_.get() + pos_, end_ - pos_), "\xEF\xBB\xBF")) {
    pos_ += 3;
  }
  return true;
}

bool DavXmlStream::ReadEndOfInput() {
  if (!rootSeen_) {
    return Fail("no root element");
  }
  if (!open_.empty()) {
    return Fail("the document ends inside an element");
  }
  return false;
}

bool DavXmlStream::ReadMarkup() {
  if (!Need(2)) {
    return false;
  }
  if (end_ - pos_ < 2) {
    return Fail("the document ends inside markup");
  }
  const char kind = buffer_[pos_ + 1];  // the search for the end may move the buffer
  if (kind == '!') {
    return ReadCommentOrCdata();
  }
  std::size_t end = 0;
  if (!FindMarkupEnd(&end)) {
    return false;
  }
  switch (kind) {
    case '/':
      return ReadEndTag(end);
    case '?':
      return ReadProcessingInstruction(end);
    default:
      return ReadStartTag(end);
  }
}

bool DavXmlStream::ReadCommentOrCdata() {
  if (!Need(9)) {
    return false;
  }
  const std::string_view ahead(buffer_.get() + pos_, end_ - pos_);
  if (StartsWith(ahead, "<!--")) {
    pos_ += 4;
    section_ = Section::kComment;
    atDocumentStart_ = false;
    return true;
  }
  if (StartsWith(ahead, "<![CDATA[")) {
    if (open_.empty()) {
      return Fail("a CDATA section outside the root element");
    }
    pos_ += 9;
    section_ = Section::kCdata;
    return true;
  }
  if (StartsWith(ahead, "<!DOCTYPE")) {
    return Fail("a document type declaration, which is refused");
  }
  return Fail("unknown markup");
}

bool DavXmlStream::FindMarkupEnd(std::size_t* end) {
  const char kind = buffer_[pos_ + 1];
  const std::array<bool, 256>& stops = kind == '/' || kind == '?' ? kTagEnd : kTagEndOrQuote;
  for (;;) {
    std::size_t i = pos_ + std::max<std::size_t>(markupScanned_, 1);
    while (i < end_) {
      if (markupQuote_ != 0) {
        const void* close = std::memchr(buffer_.get() + i, markupQuote_, end_ - i);
        i = close ? static_cast<const char*>(close) - buffer_.get() + 1 : end_;
        markupQuote_ = close ? 0 : markupQuote_;
        continue;
      }
      while (i < end_ && !stops[static_cast<unsigned char>(buffer_[i])]) {
        ++i;
      }
      if (i == end_) {
        break;
      }
      if (buffer_[i] != '>') {
        markupQuote_ = buffer_[i];
      } else if (kind != '?' || (i > pos_ + 2 && buffer_[i - 1] == '?')) {
        *end = i + 1;
        markupScanned_ = 0;
        return true;
      }
      ++i;
    }
    markupScanned_ = i - pos_;
    if (closed_) {
      return Fail("the document ends inside markup");
    }
    if (!Refill()) {
      return false;
    }
  }
}

bool DavXmlStream::ReadStartTag(std::size_t end) {
  const char* p = buffer_.get() + pos_ + 1;
  const char* tagEnd = buffer_.get() + end - 1;
  QualifiedName name;
  if (!ScanQualifiedName(&p, tagEnd, &name) || (p < tagEnd && !IsBlank(*p) && *p != '/')) {
    return Fail("a start tag without a good name");
  }
  if (rootSeen_ && open_.empty()) {
    return Fail("an element after the root element");
  }
  if (open_.size() == kMaxDepth) {
    return Fail("elements nested too deep");
  }
  PushElement(name.qualified);
  bool empty = false;
  if (!ReadAttributes(p, tagEnd, &empty)) {
    return false;
  }
  if (!name.prefix.empty() && !IsDeclared(name.prefix)) {
    return Fail("an undeclared prefix");
  }
  rootSeen_ = true;
  atDocumentStart_ = false;
  pos_ = end;
  kind_ = kStartElement;
  localName_ = name.local;
  pendingEnd_ = empty;
  return true;
}

bool DavXmlStream::ReadAttributes(const char* p, const char* end, bool* empty) {
  attributePrefixes_.clear();
  for (;;) {
    const char* name = SkipBlanks(p, end);
    if (name == end || (*name == '/' && name + 1 == end)) {
      *empty = name != end;
      break;
    }
    QualifiedName attribute;
    const bool separated = name != p;
    p = name;
    if (!separated || !ScanQualifiedName(&p, end, &attribute)) {
      return Fail("a bad attribute");
    }
    p = SkipBlanks(p, end);
    if (p == end || *p != '=') {
      return Fail("an attribute without a value");
    }
    p = SkipBlanks(p + 1, end);
    if (p == end || (*p != '"' && *p != '\'')) {
      return Fail("an attribute value without quotes");
    }
    const char* value = p + 1;
    const char* close = std::find(value, end, *p);
    if (close == end || !IsGoodValue(value, close)) {
      return Fail("a bad attribute value");
    }
    p = close + 1;
    if (attribute.prefix == "xmlns") {
      if (value == close) {
        return Fail("a prefix bound to no namespace");
      }
      if (!DeclarePrefix(attribute.local)) {
        return false;
      }
    } else if (!attribute.prefix.empty()) {
      attributePrefixes_.push_back(attribute.prefix);
    }
  }
  for (const std::string_view prefix : attributePrefixes_) {
    if (!IsDeclared(prefix)) {
      return Fail("an undeclared prefix");
    }
  }
  return true;
}

bool DavXmlStream::ReadEndTag(std::size_t end) {
  const char* p = buffer_.get() + pos_ + 2;
  const char* tagEnd = buffer_.get() + end - 1;
  QualifiedName name;
  if (!ScanQualifiedName(&p, tagEnd, &name) || SkipBlanks(p, tagEnd) != tagEnd) {
    return Fail("an end tag without a good name");
  }
  if (open_.empty()) {
    return Fail("an end tag without its start tag");
  }
  const OpenElement& top = open_.back();
  if (std::string_view(names_).substr(top.nameOffset, top.nameSize) != name.qualified) {
    return Fail("an end tag that doesn't match its start tag");
  }
  pos_ = end;
  kind_ = kEndElement;
  localName_ = name.local;
  popPending_ = true;
  return true;
}

bool DavXmlStream::ReadProcessingInstruction(std::size_t end) {
  const char* p = buffer_.get() + pos_ + 2;
  const char* body = buffer_.get() + end - 2;
  const char* target = ScanNcName(p, body);
  const std::string_view name(p, static_cast<std::size_t>(target - p));
  if (name.empty() || (target != body && !IsBlank(*target))) {
    return Fail("a processing instruction without a good target");
  }
  if (name == "xml" && atDocumentStart_) {
    if (!ReadXmlDeclaration(target, body)) {
      return false;
    }
  } else if (EqualsIgnoringCase(name, "xml")) {
    return Fail("an XML declaration not at the start");
  } else if (!AreXmlChars(target, body)) {
    return Fail("a processing instruction with bad characters");
  }
  atDocumentStart_ = false;
  pos_ = end;
  return true;
}

bool DavXmlStream::ReadXmlDeclaration(const char* p, const char* end) {
  // version="1.x" [encoding="..."] [standalone="yes|no"], in that order.
  static constexpr std::string_view kNames[] = {"version", "encoding", "standalone"};
  std::size_t next = 0;
  for (;;) {
    const char* name = SkipBlanks(p, end);
    if (name == end) {
      break;
    }
    if (name == p) {
      return Fail("a bad XML declaration");
    }
    p = ScanNcName(name, end);
    const std::string_view key(name, static_cast<std::size_t>(p - name));
    std::size_t known = next;
    while (known < std::size(kNames) && kNames[known] != key) {
      ++known;
    }
    p = SkipBlanks(p, end);
    if (known == std::size(kNames) || (next == 0 && known != 0) || p == end || *p != '=') {
      return Fail("a bad XML declaration");
    }
    p = SkipBlanks(p + 1, end);
    const char* close = p < end && (*p == '"' || *p == '\'') ? std::find(p + 1, end, *p) : end;
    if (close == end) {
      return Fail("a bad XML declaration");
    }
    const std::string_view value(p + 1, static_cast<std::size_t>(close - p - 1));
    const bool good = (key == "version" && value.size() > 2 && StartsWith(value, "1.") &&
                       value.find_first_not_of("0123456789", 2) == std::string_view::npos) ||
                      (key == "encoding" && (EqualsIgnoringCase(value, "UTF-8") ||
                                             EqualsIgnoringCase(value, "US-ASCII"))) ||
                      (key == "standalone" && (value == "yes" || value == "no"));
    if (!good) {
      return Fail(key == "encoding" ? "an encoding other than UTF-8" : "a bad XML declaration");
    }
    p = close + 1;
    next = known + 1;
  }
  return next > 0 ? true : Fail("an XML declaration without a version");
}

bool DavXmlStream::ReadSection() {
  const bool cdata = section_ == Section::kCdata;
  const std::string_view ahead(buffer_.get() + pos_, end_ - pos_);
  const std::size_t found = ahead.find(cdata ? "]]>" : "--");
  const char* begin = ahead.data();
  const char* stop = begin + std::min(found, ahead.size());
  const bool complete = found != std::string_view::npos && (cdata || found + 2 < ahead.size());
  if (complete && !cdata && ahead[found + 2] != '>') {
    return Fail("a '--' inside a comment");
  }
  if (!complete) {
    if (closed_) {
      return Fail(cdata ? "the document ends inside a CDATA section"
                        : "the document ends inside a comment");
    }
    // The bytes that may begin the terminator or cut a character wait for the next read.
    if (found == std::string_view::npos) {
      stop = Utf8CutBefore(begin, begin + ahead.size() - std::min<std::size_t>(ahead.size(), 2));
    }
    if (stop != begin && stop[-1] == '\r') {
      --stop;
    }
  }
  if (!AreXmlChars(begin, stop)) {
    return Fail(cdata ? "bad characters in a CDATA section" : "bad characters in a comment");
  }
  pos_ += static_cast<std::size_t>(stop - begin);
  if (cdata && stop != begin) {
    text_ =
        WithLineFeeds(std::string_view(begin, static_cast<std::size_t>(stop - begin)), &decoded_);
    kind_ = kText;
  }
  if (complete) {
    pos_ += 3;
    section_ = Section::kNone;
    return true;
  }
  return stop != begin || Refill();
}

bool DavXmlStream::ReadText() {
  const char* begin = buffer_.get() + pos_;
  const char* end = buffer_.get() + end_;
  const char* p = begin;
  const char* copied = begin;  // once something is replaced, the text goes through decoded_
  bool decoding = false;
  const auto replace = [&](const char* at, int length, char32_t c) {
    if (!decoding) {
      decoded_.clear();
      decoding = true;
    }
    decoded_.append(copied, at);
    AppendUtf8(c, &decoded_);
    copied = at + length;
  };
  while (p < end) {
    while (p < end && !kTextStops[static_cast<unsigned char>(*p)]) {
      ++p;
    }
    if (p == end || *p == '<') {
      break;
    }
    char32_t c = 0;
    int length = 0;
    if (*p == '&') {
      length = DecodeReference(p, end, &c);
      if (length > 0 && open_.empty()) {
        return Fail("a reference outside the root element");
      }
      if (length > 0) {
        replace(p, length, c);
      }
    } else if (*p == '\r') {
      length = p + 1 < end ? (p[1] == '\n' ? 2 : 1) : closed_ ? 1 : 0;
      if (length > 0) {
        replace(p, length, '\n');
      }
    } else if (*p == ']') {
      length = end - p < 3 ? 0 : 1;
      if (length > 0 && p[1] == ']' && p[2] == '>') {
        return Fail("a ']]>' in text");
      }
    } else if (static_cast<unsigned char>(*p) >= 0x80) {
      length = DecodeUtf8(p, end, &c);
      length = length > 0 && !IsXmlChar(c) ? -1 : length;
    } else {
      length = -1;  // a control character
    }
    if (length == 0 && closed_) {
      return Fail("the document ends inside text");
    }
    if (length < 0) {
      return Fail("a bad reference or character in text");
    }
    if (length == 0) {
      break;  // cut by the end of the buffer: the rest comes with the next read
    }
    p += length;
  }
  if (p == begin) {
    return Refill();
  }
  if (decoding) {
    decoded_.append(copied, p);
    text_ = decoded_;
  } else {
    text_ = std::string_view(begin, static_cast<std::size_t>(p - begin));
  }
  pos_ += static_cast<std::size_t>(p - begin);
  atDocumentStart_ = false;
  if (!open_.empty()) {
    kind_ = kText;
  } else if (std::find_if_not(text_.begin(), text_.end(), IsBlank) != text_.end()) {
    return Fail("text outside the root element");
  }
  return true;
}

void DavXmlStream::PushElement(std::string_view qualifiedName) {
  open_.push_back({names_.size(), qualifiedName.size(), 0});
  names_.append(qualifiedName);
}

void DavXmlStream::PopElement() {
  const OpenElement& top = open_.back();
  if (top.prefixCount > 0) {
    const std::size_t kept = prefixes_.size() - top.prefixCount;
    prefixNames_.resize(prefixes_[kept].offset);
    prefixes_.resize(kept);
  }
  names_.resize(top.nameOffset);
  open_.pop_back();
}

bool DavXmlStream::DeclarePrefix(std::string_view prefix) {
  if (prefix == "xmlns") {
    return Fail("the prefix xmlns declared");
  }
  prefixes_.push_back({prefixNames_.size(), prefix.size()});
  prefixNames_.append(prefix);
  ++open_.back().prefixCount;
  return true;
}

bool DavXmlStream::IsDeclared(std::string_view prefix) const {
  if (prefix == "xml") {
    return true;
  }
  const std::string_view names(prefixNames_);
  return std::any_of(prefixes_.rbegin(), prefixes_.rend(), [&](const Prefix& declared) {
    return names.substr(declared.offset, declared.size) == prefix;
  });
}

bool DavXmlStream::ReadElementText(std::string* text, bool* hasCharacters) {
  if (state_ != kGood) {
    return false;
  }
  if (kind_ != kStartElement) {
    LOG_WARNING << "ReadElementText called on not a start element.";
    return false;
  }
  return ReadNext() && FinishElementText(text, hasCharacters);
}

bool DavXmlStream::FinishElementText(std::string* text, bool* hasCharacters) {
  bool seen = false;
  while (kind_ == kText) {
    seen = true;
    text->append(text_);
    if (!ReadNext()) {
      return false;
    }
  }
  if (hasCharacters) {
    *hasCharacters = seen;
  }
  if (kind_ == kEndElement) {
    return true;
  }
  LOG_WARNING << "ReadElementText encountered unknown element after characters: "
              << static_cast<int>(kind_);
  return false;
}

bool DavXmlStream::ReadIntegerElement(std::uint64_t* value) {
  *value = 0;
  elementText_.clear();
  bool hasCharacters = false;
  if (!ReadElementText(&elementText_, &hasCharacters)) {
    return false;
  }
  if (!hasCharacters) {
    return true;
  }
  const std::size_t first = elementText_.find_first_not_of(" \t\r\n");
  const std::size_t last = elementText_.find_last_not_of(" \t\r\n");
  const char* begin = elementText_.data() + std::min(first, elementText_.size());
  const char* end = last == std::string::npos ? begin : elementText_.data() + last + 1;
  const auto [rest, error] = std::from_chars(begin, end, *value, 10);
  if (begin == end || error != std::errc() || rest != end) {
    *value = 0;
    DumpXmlPosition();
    LOG_ERROR << "Failed to parse integer from: " << elementText_;
    return false;
  }
  return true;
}

bool DavXmlStream::ReadDateElement(std::uint64_t* value) {
  *value = 0;
  elementText_.clear();
  bool hasCharacters = false;
  if (!ReadElementText(&elementText_, &hasCharacters)) {
    return false;
  }
  if (!hasCharacters) {
    return true;
  }
  std::int64_t seconds = 0;
  if (!utils::TryParseHttpDate(elementText_, &seconds)) {
    LOG_WARNING << "Failed to parse date from: " << elementText_;
    return false;
  }
  // The tree keeps unsigned times: a date before 1970 is taken as 1970.
  *value = static_cast<std::uint64_t>(std::max<std::int64_t>(seconds, 0));
  return true;
}
