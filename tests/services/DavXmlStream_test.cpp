#include "services/DavXmlStream.h"

#include <gtest/gtest.h>

#include <QByteArray>
#include <QXmlStreamReader>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "core/InputStream.h"
#include "core/LoggerWrapper.h"
#include "support/XmlTokens.h"

namespace {

// Qt's reader over the whole document, in the form of test::ReadXmlTokens: what a well-formed
// document must give.
std::vector<std::string> ReferenceTokens(const std::string& document) {
  QXmlStreamReader xml(QByteArray::fromStdString(document));
  std::vector<std::string> tokens;
  int depth = 0;
  while (!xml.atEnd()) {
    switch (xml.readNext()) {
      case QXmlStreamReader::StartElement:
        ++depth;
        tokens.push_back("<" + xml.name().toString().toStdString());
        break;
      case QXmlStreamReader::EndElement:
        --depth;
        tokens.push_back(">" + xml.name().toString().toStdString());
        break;
      case QXmlStreamReader::Characters:
        if (depth > 0 && !xml.text().isEmpty()) {
          if (tokens.back()[0] != '=') {
            tokens.push_back("=");
          }
          tokens.back() += xml.text().toString().toStdString();
        }
        break;
      default:
        break;
    }
  }
  EXPECT_FALSE(xml.hasError()) << xml.errorString().toStdString();
  return tokens;
}

// Calls `check` with the document read whole, in pieces of 1, 2, 3 and 7 bytes, and split in two
// at every byte.
void ForEachSplit(const std::string& document,
                  const std::function<void(InputStream&, const std::string&)>& check) {
  for (const std::uint32_t piece : {UINT32_MAX, 1u, 2u, 3u, 7u}) {
    MemoryInputStream input(document, piece);
    check(input, "pieces of " + std::to_string(piece));
  }
  for (std::uint32_t first = 1; first < document.size(); ++first) {
    MemoryInputStream input(document);
    input.SetBlockSizes({first});
    check(input, "split at " + std::to_string(first));
  }
}

const std::string kReferences =
    "<a>&lt;&gt;&amp;&apos;&quot; &#65;&#x42;&#xe9;&#x1F600;&#10;&#9;&#13;&#x10FFFF;</a>";
const std::string kCdata = "<a><![CDATA[<b>&amp;]]]]><![CDATA[>]] ]>]]>x<![CDATA[]]></a>";
const std::string kNames =
    "<\xC3\xA9:\xC3\xBC xmlns:\xC3\xA9=\"u\">\xC3\x9F\xE2\x82\xAC\xF0\x9F\x98\x80 ]] ]></"
    "\xC3\xA9:\xC3\xBC>";

const std::vector<std::string> kWellFormed = {
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<D:multistatus xmlns:D=\"DAV:\">\n"
    "<D:response><D:href>/a%20b/</D:href><D:propstat><D:prop><D:resourcetype><D:collection/>"
    "</D:resourcetype></D:prop><D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response>\n"
    "</D:multistatus>\n",
    "\xEF\xBB\xBF<?xml version='1.0' encoding='UTF-8' standalone='yes' ?><a/>",
    "<?xml version=\"1.0\" encoding=\"us-ascii\"?><a/>",
    "<a x=\"1>2\" y='/>' z = \"'\" xmlns:p=\"u\" p:w=\"&lt;&#x41;\"><b/><c  /><d e='f'/></a >",
    "<!-- before --><?pi target?>\n<a><!---->t<!-- inside -->u<?x y?>v</a>\n<!-- after --><?z?> ",
    kReferences,
    kCdata,
    kNames,
    "<a xmlns=\"DAV:\"><b xmlns:q=\"x\"><q:c/></b><q:c xmlns:q=\"y\">\r\n\t</q:c><xml:lang/></a>",
    "<a>\n  <b>1</b>\n  <b>2</b>\n</a>",
};

TEST(DavXmlStreamTest, WellFormedDocumentsGiveQtsTokensWhateverTheReadsSplit) {
  for (const std::string& document : kWellFormed) {
    SCOPED_TRACE(document);
    const std::vector<std::string> reference = ReferenceTokens(document);
    ForEachSplit(document, [&](InputStream& input, const std::string& how) {
      const test::XmlTokens read = test::ReadXmlTokens(input);
      ASSERT_EQ(read.state, DavXmlStream::kGood) << how;
      ASSERT_EQ(read.tokens, reference) << how;
    });
  }
}

TEST(DavXmlStreamTest, ReferencesAndCdataBecomeTheirCharacters) {
  const std::vector<std::string> expected = {
      "<a", "=<>&'\" AB\xC3\xA9\xF0\x9F\x98\x80\n\t\r\xF4\x8F\xBF\xBF", ">a"};
  MemoryInputStream references(kReferences, 3);
  EXPECT_EQ(test::ReadXmlTokens(references).tokens, expected);
  MemoryInputStream cdata(kCdata, 2);
  EXPECT_EQ(test::ReadXmlTokens(cdata).tokens,
            (std::vector<std::string>{"<a", "=<b>&amp;]]>]] ]>x", ">a"}));
}

struct Malformed {
  const char* name;
  std::string document;
  const char* reason;
};

const std::vector<Malformed> kMalformed = {
    {"document type", "<!DOCTYPE a [<!ENTITY x \"y\">]><a>&x;</a>",
     "a document type declaration, which is refused"},
    {"mismatched tags", "<a><b></a></b>", "an end tag that doesn't match its start tag"},
    {"prefix differs at the end", "<D:a xmlns:D=\"d\"></a>",
     "an end tag that doesn't match its start tag"},
    {"end tag alone", "<a/></a>", "an end tag without its start tag"},
    {"unknown entity", "<a>&foo;</a>", "a bad reference or character in text"},
    {"reference to zero", "<a>&#0;</a>", "a bad reference or character in text"},
    {"reference to a surrogate", "<a>&#xD800;</a>", "a bad reference or character in text"},
    {"reference beyond unicode", "<a>&#x110000;</a>", "a bad reference or character in text"},
    {"reference without digits", "<a>&#x;</a>", "a bad reference or character in text"},
    {"reference with a sign", "<a>&#+65;</a>", "a bad reference or character in text"},
    {"reference without its end", "<a>&amp</a>", "a bad reference or character in text"},
    {"bad reference in an attribute", "<a b=\"&nbsp;\"/>", "a bad attribute value"},
    {"undeclared element prefix", "<p:a/>", "an undeclared prefix"},
    {"undeclared attribute prefix", "<a p:b=\"1\"/>", "an undeclared prefix"},
    {"prefix out of scope", "<a><b xmlns:p=\"u\"/><p:c/></a>", "an undeclared prefix"},
    {"empty namespace of a prefix", "<p:a xmlns:p=\"\"/>", "a prefix bound to no namespace"},
    {"two roots", "<a/><b/>", "an element after the root element"},
    {"text after the root", "<a/>x", "text outside the root element"},
    {"text before the root", "x<a/>", "text outside the root element"},
    {"no root", " <!-- c --> ", "no root element"},
    {"attribute without quotes", "<a x=1/>", "an attribute value without quotes"},
    {"attributes not apart", "<a x=\"1\"y=\"2\"/>", "a bad attribute"},
    {"'<' in a value", "<a x=\"<\"/>", "a bad attribute value"},
    {"']]>' in text", "<a>x]]>y</a>", "a ']]>' in text"},
    {"cut UTF-8", "<a>\xC3</a>", "a bad reference or character in text"},
    {"overlong UTF-8", "<a>\xC0\x80</a>", "a bad reference or character in text"},
    {"UTF-8 surrogate", "<a>\xED\xA0\x80</a>", "a bad reference or character in text"},
    {"not UTF-8", "<a>\xFF</a>", "a bad reference or character in text"},
    {"not UTF-8 in a name", "<a\xC3></a\xC3>", "a start tag without a good name"},
    {"not UTF-8 in a comment", "<a><!-- \xFE --></a>", "bad characters in a comment"},
    {"not UTF-8 in CDATA", "<a><![CDATA[\x80]]></a>", "bad characters in a CDATA section"},
    {"control character", "<a>\x01</a>", "a bad reference or character in text"},
    {"other encoding", "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><a/>",
     "an encoding other than UTF-8"},
    {"declaration without version", "<?xml encoding=\"UTF-8\"?><a/>", "a bad XML declaration"},
    {"declaration not first", " <?xml version=\"1.0\"?><a/>",
     "an XML declaration not at the start"},
    {"two declarations", "<?xml version=\"1.0\"?><?xml version=\"1.0\"?><a/>",
     "an XML declaration not at the start"},
    {"'--' in a comment", "<a><!-- x -- y --></a>", "a '--' inside a comment"},
    {"CDATA outside the root", "<![CDATA[x]]><a/>", "a CDATA section outside the root element"},
    {"unknown markup", "<a><!ELEMENT a ANY></a>", "unknown markup"},
    {"no name", "<a>< b/></a>", "a start tag without a good name"},
    {"name starting with a digit", "<1a/>", "a start tag without a good name"},
    {"two colons", "<p:q:r xmlns:p=\"u\"/>", "a start tag without a good name"},
};

TEST(DavXmlStreamTest, MalformedDocumentsFailWithTheirReasonWhateverTheReadsSplit) {
  for (const Malformed& test : kMalformed) {
    SCOPED_TRACE(test.name);
    ForEachSplit(test.document, [&](InputStream& input, const std::string& how) {
      LoggerWrapper::Capture log;
      const test::XmlTokens read = test::ReadXmlTokens(input);
      ASSERT_EQ(read.state, DavXmlStream::kMalformed) << how;
      ASSERT_TRUE(log.Contains(std::string("Failed to parse xml: ") + test.reason)) << how;
      ASSERT_TRUE(log.Contains("Xml input buffer: \n")) << how;
    });
  }
}

// A document cut anywhere before the end of its root is malformed, never a shorter listing.
TEST(DavXmlStreamTest, EveryTruncationIsMalformed) {
  LoggerWrapper::Capture log;
  for (const std::string& document :
       {kWellFormed[0].substr(0, kWellFormed[0].size() - 1), kCdata, kNames}) {
    for (std::size_t size = 1; size < document.size(); ++size) {
      for (const std::uint32_t piece : {UINT32_MAX, 1u}) {
        MemoryInputStream input(document.substr(0, size), piece);
        ASSERT_EQ(test::ReadXmlTokens(input).state, DavXmlStream::kMalformed)
            << document.substr(0, size);
      }
    }
  }
}

TEST(DavXmlStreamTest, ANameLongerThanTheBufferIsRefused) {
  LoggerWrapper::Capture log;
  const std::string name(DavXmlStream::kMaxTokenSize, 'n');
  for (const std::uint32_t piece : {UINT32_MAX, 4096u}) {
    MemoryInputStream input("<a><" + name + "/></a>", piece);
    EXPECT_EQ(test::ReadXmlTokens(input).state, DavXmlStream::kMalformed);
    EXPECT_TRUE(log.Contains("Failed to parse xml: a token longer than the buffer"));
  }
}

// Text has no bound: it comes in pieces that the reader joins, references and characters cut
// across the buffer's end included.
TEST(DavXmlStreamTest, TextLongerThanTheBufferIsWhole) {
  std::string text;
  std::string expected;
  for (int i = 0; text.size() < 3 * DavXmlStream::kMaxTokenSize; ++i) {
    text += i % 3 == 0 ? "&amp;\xE2\x82\xAC" : i % 3 == 1 ? "<![CDATA[<]]>" : "plain";
    expected += i % 3 == 0 ? "&\xE2\x82\xAC" : i % 3 == 1 ? "<" : "plain";
  }
  for (const std::uint32_t piece : {UINT32_MAX, 7u, 4097u}) {
    MemoryInputStream input("<a>" + text + "</a>", piece);
    const test::XmlTokens read = test::ReadXmlTokens(input);
    EXPECT_EQ(read.state, DavXmlStream::kGood);
    EXPECT_EQ(read.tokens, (std::vector<std::string>{"<a", "=" + expected, ">a"}));
  }
}

TEST(DavXmlStreamTest, AFailedStreamIsNoMalformedDocument) {
  LoggerWrapper::Capture log;
  const std::string document = kWellFormed[0];
  for (const std::uint64_t failAt : {std::uint64_t{0}, std::uint64_t{50}}) {
    MemoryInputStream input(document, 7, failAt);
    EXPECT_EQ(test::ReadXmlTokens(input).state, DavXmlStream::kStreamFailed);
  }
  EXPECT_TRUE(log.Contains("Reading input stream failed."));
  EXPECT_FALSE(log.Contains("Failed to parse xml: "));
}

}  // namespace
