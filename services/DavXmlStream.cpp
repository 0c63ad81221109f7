#include "services/DavXmlStream.h"

#include <QByteArray>
#include <QDateTime>
#include <QString>

#include <algorithm>
#include <string_view>

#include "core/LoggerWrapper.h"

namespace {

void AppendUtf8(const QStringRef& text, std::string* out) {
  const QByteArray utf8 = text.toUtf8();
  out->append(utf8.constData(), static_cast<std::size_t>(utf8.size()));
}

}  // namespace

bool DavXmlStream::FillBuffer(bool first) {
  // One byte stays free for the terminating zero, so that a dump of the buffer is a C string.
  const InputStream::Result status =
      input_->Read(reinterpret_cast<std::uint8_t*>(buffer_.data()), kBufferSize - 1, &filled_);
  if (status == InputStream::Result::FAILED) {
    LOG_WARNING << "Reading input stream failed.";
    state_ = kStreamFailed;
    return false;
  }
  if (filled_ == 0 || status == InputStream::Result::END) {
    closed_ = true;
  }
  if (filled_ == 0) {
    // The stream tells its end by an empty read. After a part of the document that is a document
    // cut short, which the reader reports as malformed on its next step.
    if (!first && status == InputStream::Result::END) {
      return true;
    }
    LOG_WARNING << "Input stream closed with no data.";
    state_ = kStreamFailed;
    return false;
  }
  buffer_[filled_] = '\0';
  // The reader appends the bytes to its own look-ahead, so the buffer is free for the next read.
  xml_.addData(QByteArray::fromRawData(buffer_.data(), static_cast<int>(filled_)));
  return true;
}

bool DavXmlStream::ReadNext() {
  if (state_ != kGood) {
    return false;
  }
  if (!started_) {
    started_ = true;
    if (!FillBuffer(true)) {
      return false;
    }
  }
  xml_.readNext();
  while (xml_.tokenType() == QXmlStreamReader::Invalid &&
         xml_.error() == QXmlStreamReader::PrematureEndOfDocumentError && !closed_) {
    if (!FillBuffer(false)) {
      return false;
    }
    xml_.readNext();
  }
  if (xml_.hasError()) {
    DumpXmlPosition();
    LOG_WARNING << "Failed to parse xml: " << xml_.errorString().toStdString() << " at "
                << xml_.lineNumber() << ":" << xml_.columnNumber();
    state_ = kMalformed;
    return false;
  }
  return true;
}

void DavXmlStream::DumpXmlPosition() const {
  LOG_INFO << "Xml input buffer: \n" << std::string_view(buffer_.data(), filled_);
  if (!xml_.atEnd()) {
    LOG_INFO << "Parsing at " << xml_.lineNumber() << ":" << xml_.columnNumber();
  }
}

bool DavXmlStream::ReadElementText(std::string* text, bool* hasCharacters) {
  if (state_ != kGood) {
    return false;
  }
  if (!xml_.isStartElement()) {
    LOG_WARNING << "ReadElementText called on not a start element.";
    return false;
  }
  return ReadNext() && FinishElementText(text, hasCharacters);
}

bool DavXmlStream::FinishElementText(std::string* text, bool* hasCharacters) {
  bool seen = false;
  while (xml_.isCharacters()) {
    seen = true;
    AppendUtf8(xml_.text(), text);
    if (!ReadNext()) {
      return false;
    }
  }
  if (hasCharacters) {
    *hasCharacters = seen;
  }
  if (xml_.isEndElement()) {
    return true;
  }
  LOG_WARNING << "ReadElementText encountered unknown element after characters: "
              << static_cast<int>(xml_.tokenType());
  return false;
}

bool DavXmlStream::ReadIntegerElement(std::uint64_t* value) {
  *value = 0;
  std::string text;
  bool hasCharacters = false;
  if (!ReadElementText(&text, &hasCharacters)) {
    return false;
  }
  if (!hasCharacters) {
    return true;
  }
  bool ok = false;
  const qulonglong parsed = QString::fromStdString(text).toULongLong(&ok, 10);
  if (!ok) {
    DumpXmlPosition();
    LOG_ERROR << "Failed to parse integer from: " << text;
    return false;
  }
  *value = parsed;
  return true;
}

bool DavXmlStream::ReadDateElement(std::uint64_t* value) {
  *value = 0;
  std::string text;
  bool hasCharacters = false;
  if (!ReadElementText(&text, &hasCharacters)) {
    return false;
  }
  if (!hasCharacters) {
    return true;
  }
  const QDateTime date = QDateTime::fromString(QString::fromStdString(text), Qt::RFC2822Date);
  if (date.isValid()) {
    // The tree keeps unsigned times: a date before 1970 is taken as 1970.
    *value = static_cast<std::uint64_t>(std::max<qint64>(date.toSecsSinceEpoch(), 0));
    return true;
  }
  if (!text.empty()) {
    LOG_WARNING << "Failed to parse date from: " << text;
    return false;
  }
  return true;
}
