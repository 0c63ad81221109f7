#include "services/DavXmlStream.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>

#include "core/LoggerWrapper.h"
#include "core/StringUtils.h"
#include "core/TimeUtils.h"
#include "services/XmlCharacters.h"

namespace {

constexpr std::size_t kBufferSize = DavXmlStream::kMaxTokenSize;
constexpr std::size_t kMaxDepth = 256;

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

struct QualifiedName {
  std::string_view qualified;
  std::string_view prefix;
  std::string_view local;
};

// A name with an optional prefix; false when there is none at `*p`.
bool ScanQualifiedName(const char** p, const char* end, QualifiedName* name) {
  const char* begin = *p;
  const char* q = xml_chars::ScanNcName(begin, end);
  if (q == begin) {
    return false;
  }
  const char* local = begin;
  if (q < end && *q == ':') {
    local = q + 1;
    q = xml_chars::ScanNcName(local, end);
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

// An attribute value or what follows a processing instruction's target: characters, and in a
// value no '<' and only good references.
bool IsGoodValue(const char* p, const char* end) {
  for (const char* q = p; q < end; ++q) {
    if (*q == '<') {
      return false;
    }
    if (*q == '&') {
      char32_t c = 0;
      const int length = xml_chars::DecodeReference(q, end, &c);
      if (length <= 0 || !xml_chars::AreXmlChars(p, q)) {
        return false;
      }
      p = q + length;
      q = p - 1;
    }
  }
  return xml_chars::AreXmlChars(p, end);
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
  const char* target = xml_chars::ScanNcName(p, body);
  const std::string_view name(p, static_cast<std::size_t>(target - p));
  if (name.empty() || (target != body && !IsBlank(*target))) {
    return Fail("a processing instruction without a good target");
  }
  if (name == "xml" && atDocumentStart_) {
    if (!ReadXmlDeclaration(target, body)) {
      return false;
    }
  } else if (IEqualsASCII(name, "xml")) {
    return Fail("an XML declaration not at the start");
  } else if (!xml_chars::AreXmlChars(target, body)) {
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
    p = xml_chars::ScanNcName(name, end);
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
    const bool good =
        (key == "version" && value.size() > 2 && StartsWith(value, "1.") &&
         value.find_first_not_of("0123456789", 2) == std::string_view::npos) ||
        (key == "encoding" && (IEqualsASCII(value, "UTF-8") || IEqualsASCII(value, "US-ASCII"))) ||
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
      stop = xml_chars::Utf8CutBefore(
          begin, begin + ahead.size() - std::min<std::size_t>(ahead.size(), 2));
    }
    if (stop != begin && stop[-1] == '\r') {
      --stop;
    }
  }
  if (!xml_chars::AreXmlChars(begin, stop)) {
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
    utils::AppendUtf8(c, &decoded_);
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
      length = xml_chars::DecodeReference(p, end, &c);
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
      length = utils::DecodeUtf8(p, end, &c);
      length = length > 0 && !xml_chars::IsXmlChar(c) ? -1 : length;
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

bool DavXmlStream::ReadValueElement(std::uint64_t* value,
                                    bool (DavXmlStream::*parse)(std::uint64_t* value)) {
  *value = 0;
  elementText_.clear();
  bool hasCharacters = false;
  if (!ReadElementText(&elementText_, &hasCharacters)) {
    return false;
  }
  return !hasCharacters || (this->*parse)(value);
}

bool DavXmlStream::ReadIntegerElement(std::uint64_t* value) {
  return ReadValueElement(value, &DavXmlStream::ParseIntegerText);
}

bool DavXmlStream::ParseIntegerText(std::uint64_t* value) {
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
  return ReadValueElement(value, &DavXmlStream::ParseDateText);
}

bool DavXmlStream::ParseDateText(std::uint64_t* value) {
  std::int64_t seconds = 0;
  if (!utils::TryParseHttpDate(elementText_, &seconds)) {
    LOG_WARNING << "Failed to parse date from: " << elementText_;
    return false;
  }
  // The tree keeps unsigned times: a date before 1970 is taken as 1970.
  *value = static_cast<std::uint64_t>(std::max<std::int64_t>(seconds, 0));
  return true;
}
