// DavXmlStream: the pull reader under the listing parser. It feeds QXmlStreamReader from one fixed
// buffer that is refilled from the answer's stream whenever the reader runs dry, so that a listing
// of any length costs the buffer and the reader's own look-ahead, never the whole document.
//
//   DavXmlStream stream(input);
//   while (!stream.AtEnd() && stream.ReadNext()) {
//     if (stream.Xml().isStartElement() && stream.Xml().name() == QLatin1String("href")) {
//       stream.ReadElementText(&href);
//     }
//   }
//   if (stream.GetState() == DavXmlStream::kMalformed) { ... }
#pragma once

#include <QXmlStreamReader>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "core/InputStream.h"

class DavXmlStream {
 public:
  // A state only ever moves away from kGood.
  enum State : std::uint32_t { kGood = 0, kMalformed = 1, kStreamFailed = 2 };
  static constexpr std::size_t kBufferSize = 32768;

  explicit DavXmlStream(InputStream* input) : input_(input) {}
  DavXmlStream(const DavXmlStream&) = delete;
  DavXmlStream& operator=(const DavXmlStream&) = delete;

  // One token further, refilling the buffer as often as a token split over reads needs.
  bool ReadNext();
  bool AtEnd() const { return started_ && xml_.atEnd(); }
  const QXmlStreamReader& Xml() const { return xml_; }
  State GetState() const { return state_; }

  // Logs the buffer and the position, for the failures of a parse.
  void DumpXmlPosition() const;

  // Reads the text of the start element under the reader, up to its end tag. `hasCharacters`
  // tells an empty element from one with text. CDATA and entities are joined into one text.
  bool ReadElementText(std::string* text, bool* hasCharacters = nullptr);
  // A decimal integer; an empty element is 0.
  bool ReadIntegerElement(std::uint64_t* value);
  // An RFC 2822 date as seconds since 1970; an empty element is 0.
  bool ReadDateElement(std::uint64_t* value);

 private:
  bool FillBuffer(bool first);
  bool FinishElementText(std::string* text, bool* hasCharacters);

  QXmlStreamReader xml_;
  InputStream* input_;
  State state_ = kGood;
  bool closed_ = false;
  bool started_ = false;
  std::array<char, kBufferSize> buffer_;
  std::uint32_t filled_ = 0;
};
