// DavXmlStream: the pull reader under the listing parser. It tokenizes the answer in one buffer
// that is refilled from the stream whenever a token runs past its end, so that a listing of any
// length costs the buffer, the names of the open elements and the text of one token.
//
// It knows what a multistatus needs and no more: elements, attributes (checked, then dropped),
// namespace prefixes (checked to be declared; only local names are handed out), text with its
// entities and character references, CDATA. Comments and processing instructions are skipped. A
// document type declaration is refused: no DAV server sends one, and entity expansion is where
// a hostile server would attack. UTF-8 only.
//
//   DavXmlStream stream(input);
//   while (stream.ReadNext()) {
//     if (stream.Kind() == DavXmlStream::kStartElement && stream.LocalName() == "href") {
//       stream.ReadElementText(&href);
//     }
//   }
//   if (stream.GetState() == DavXmlStream::kMalformed) { ... }
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/InputStream.h"

class DavXmlStream {
 public:
  // A state only ever moves away from kGood.
  enum State : std::uint32_t { kGood = 0, kMalformed = 1, kStreamFailed = 2 };
  enum TokenKind : std::uint32_t { kNone = 0, kStartElement = 1, kEndElement = 2, kText = 3 };
  // The longest markup (a tag with its attributes, a processing instruction) and so the buffer.
  static constexpr std::size_t kMaxTokenSize = 65536;

  explicit DavXmlStream(InputStream* input);
  DavXmlStream(const DavXmlStream&) = delete;
  DavXmlStream& operator=(const DavXmlStream&) = delete;

  // One token further. False at the end of the document and on a failure, told by GetState().
  bool ReadNext();
  TokenKind Kind() const { return kind_; }
  // The name of an element without its prefix, and the text of a kText token (entities
  // replaced): both valid until the next token. Text longer than the buffer, or cut by a CDATA
  // section or a comment, comes as consecutive kText tokens.
  std::string_view LocalName() const { return localName_; }
  std::string_view Text() const { return text_; }
  State GetState() const { return state_; }

  // Logs the buffer and the position, for the failures of a parse.
  void DumpXmlPosition() const;

  // Reads the text of the start element under the reader, up to its end tag, appended to `text`.
  // `hasCharacters` tells an empty element from one with text.
  bool ReadElementText(std::string* text, bool* hasCharacters = nullptr);
  // A decimal integer, surrounded by blanks or not; an empty element is 0.
  bool ReadIntegerElement(std::uint64_t* value);
  // An HTTP date as seconds since 1970; an empty element is 0.
  bool ReadDateElement(std::uint64_t* value);

 private:
  // An open element: its qualified name in names_, and how many prefixes it declared.
  struct OpenElement {
    std::size_t nameOffset;
    std::size_t nameSize;
    std::size_t prefixCount;
  };
  // A declared namespace prefix, in prefixNames_.
  struct Prefix {
    std::size_t offset;
    std::size_t size;
  };
  // The markup that may outlast the buffer: a CDATA section is text, a comment is skipped.
  enum class Section { kNone, kCdata, kComment };

  bool Refill();
  bool Need(std::size_t bytes);
  bool Fail(std::string_view reason);
  bool SkipByteOrderMark();
  bool ReadMarkup();
  bool ReadCommentOrCdata();
  bool FindMarkupEnd(std::size_t* end);
  bool ReadStartTag(std::size_t end);
  bool ReadAttributes(const char* p, const char* end, bool* empty);
  bool ReadEndTag(std::size_t end);
  bool ReadProcessingInstruction(std::size_t end);
  bool ReadXmlDeclaration(const char* p, const char* end);
  bool ReadSection();
  bool ReadText();
  bool ReadEndOfInput();
  bool DeclarePrefix(std::string_view prefix);
  bool IsDeclared(std::string_view prefix) const;
  void PushElement(std::string_view qualifiedName);
  void PopElement();
  bool FinishElementText(std::string* text, bool* hasCharacters);
  // The element's text into `elementText_`, parsed by `parse` unless the element is empty.
  bool ReadValueElement(std::uint64_t* value, bool (DavXmlStream::*parse)(std::uint64_t* value));
  bool ParseIntegerText(std::uint64_t* value);
  bool ParseDateText(std::uint64_t* value);

  InputStream* input_;
  State state_ = kGood;
  std::unique_ptr<char[]> buffer_;
  std::size_t pos_ = 0;         // the first byte not consumed
  std::size_t end_ = 0;         // the end of the bytes read
  std::uint64_t consumed_ = 0;  // bytes shifted out of the buffer before pos_
  bool started_ = false;
  bool closed_ = false;
  // How far the search for the end of the markup at pos_ went, and the quote it is in.
  std::size_t markupScanned_ = 0;
  char markupQuote_ = 0;
  Section section_ = Section::kNone;
  bool rootSeen_ = false;
  bool atDocumentStart_ = true;
  bool pendingEnd_ = false;  // an empty element's end, handed out next
  bool popPending_ = false;  // the end handed out last still names its element
  std::vector<OpenElement> open_;
  std::string names_;             // the qualified names of the open elements, one after the other
  std::vector<Prefix> prefixes_;  // declared by the open elements, innermost last
  std::string prefixNames_;
  std::vector<std::string_view> attributePrefixes_;  // of the tag being read
  TokenKind kind_ = kNone;
  std::string_view localName_;
  std::string_view text_;
  std::string decoded_;      // the text of a token that held references
  std::string elementText_;  // the text of a number or a date, reused
};
