#include "services/DavListingParser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "core/Clock.h"
#include "core/InputStream.h"
#include "core/LoggerWrapper.h"
#include "core/RadarsLogger.h"
#include "support/DavListingGenerator.h"
#include "support/HeapUsage.h"
#include "support/WindowsNameMapper.h"

namespace {

constexpr std::uint64_t kNowSec = 1'700'000'000;
constexpr char kFolderUrl[] = "https://dav.example.com/dav/my%20folder/";

// Records what reached it as lines; refuses the entry numbered `refuseAt` (1-based).
class RecordingListener : public auxil::ParseFolderListener {
 public:
  bool AddFolder(std::string&& name) override {
    events.push_back("folder " + name);
    return events.size() != refuseAt;
  }
  bool AddFile(std::string&& name, std::uint64_t size, std::uint64_t modified,
               const std::string& etag) override {
    events.push_back("file " + name + " " + std::to_string(size) + " " + std::to_string(modified) +
                     " " + etag);
    return events.size() != refuseAt;
  }

  std::vector<std::string> events;
  std::size_t refuseAt = 0;
};

struct Outcome {
  bool ok;
  std::vector<std::string> events;
};

Outcome Parse(InputStream& input, const std::string& url = kFolderUrl) {
  test::WindowsNameMapper mapper;
  RecordingListener listener;
  const bool ok = auxil::ParsePropfindResponse(&input, listener, url, &mapper);
  return {ok, listener.events};
}

Outcome ParseText(const std::string& body, const std::string& url = kFolderUrl) {
  MemoryInputStream input(body);
  return Parse(input, url);
}

std::string Multistatus(const std::string& responses) {
  return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<D:multistatus xmlns:D=\"DAV:\">" +
         responses + "</D:multistatus>\n";
}

std::string Response(const std::string& href, const std::string& props,
                     const std::string& status = "HTTP/1.1 200 OK") {
  return "<D:response><D:href>" + href + "</D:href><D:propstat><D:prop>" + props +
         "</D:prop><D:status>" + status + "</D:status></D:propstat></D:response>";
}

std::string FolderEntry(const std::string& href) {
  return Response(href, "<D:resourcetype><D:collection/></D:resourcetype>");
}

std::string FileEntry(const std::string& href, const std::string& extra = "") {
  return Response(href,
                  "<D:resourcetype/><D:getcontentlength>7</D:getcontentlength>"
                  "<D:getetag>\"e1\"</D:getetag>"
                  "<D:getlastmodified>Tue, 14 Nov 2023 10:00:00 GMT</D:getlastmodified>" +
                      extra);
}

const std::string kSelf = FolderEntry("/dav/my%20folder/");

// Answers of real servers in their own shapes: prefixes, default namespaces, absolute hrefs,
// properties that a server hasn't reported in a 404 propstat.
struct GoodDocument {
  const char* server;
  std::string url;
  std::string body;
  std::vector<std::string> events;
};

std::vector<GoodDocument> GoodDocuments() {
  return {
      {"apache mod_dav",
       kFolderUrl,
       "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
       "<D:multistatus xmlns:D=\"DAV:\" xmlns:ns0=\"DAV:\">\n"
       "<D:response xmlns:lp1=\"DAV:\" xmlns:lp2=\"http://apache.org/dav/props/\">\n"
       "<D:href>/dav/my%20folder/</D:href>\n<D:propstat>\n<D:prop>\n"
       "<lp1:resourcetype><D:collection/></lp1:resourcetype>\n"
       "<lp1:creationdate>2023-11-14T10:00:00Z</lp1:creationdate>\n"
       "<lp1:getlastmodified>Tue, 14 Nov 2023 10:00:00 GMT</lp1:getlastmodified>\n"
       "<lp1:getetag>\"1000-60a1b2c3d4e5f\"</lp1:getetag>\n"
       "<D:supportedlock>\n<D:lockentry>\n<D:lockscope><D:exclusive/></D:lockscope>\n"
       "<D:locktype><D:write/></D:locktype>\n</D:lockentry>\n</D:supportedlock>\n"
       "<D:lockdiscovery/>\n<D:getcontenttype>httpd/unix-directory</D:getcontenttype>\n"
       "</D:prop>\n<D:status>HTTP/1.1 200 OK</D:status>\n</D:propstat>\n</D:response>\n"
       "<D:response xmlns:lp1=\"DAV:\" xmlns:lp2=\"http://apache.org/dav/props/\">\n"
       "<D:href>/dav/my%20folder/r%C3%A9sum%C3%A9%20%26%20co.txt</D:href>\n<D:propstat>\n"
       "<D:prop>\n<lp1:resourcetype/>\n"
       "<lp1:getcontentlength>123</lp1:getcontentlength>\n"
       "<lp1:getlastmodified>Wed, 15 Nov 2023 10:00:00 GMT</lp1:getlastmodified>\n"
       "<lp1:getetag>\"7b-60a1b2c3d4e5f\"</lp1:getetag>\n<lp2:executable>F</lp2:executable>\n"
       "</D:prop>\n<D:status>HTTP/1.1 200 OK</D:status>\n</D:propstat>\n</D:response>\n"
       "<D:response xmlns:lp1=\"DAV:\">\n<D:href>/dav/my%20folder/sub/</D:href>\n"
       "<D:propstat>\n<D:prop>\n<lp1:resourcetype><D:collection/></lp1:resourcetype>\n"
       "</D:prop>\n<D:status>HTTP/1.1 200 OK</D:status>\n</D:propstat>\n</D:response>\n"
       "</D:multistatus>\n",
       {"file r\xC3\xA9sum\xC3\xA9 & co.txt 123 1700042400 \"7b-60a1b2c3d4e5f\"", "folder sub"}},
      {"lighttpd, absolute hrefs",
       "http://localhost:8080/dav/my%20folder/",
       "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
       "<D:multistatus xmlns:D=\"DAV:\" "
       "xmlns:ns0=\"urn:uuid:c2f41010-65b3-11d1-a29f-00aa00c14882/\">\n"
       "<D:response>\n<D:href>http://localhost:8080/dav/my%20folder/</D:href>\n"
       "<D:propstat>\n<D:prop>\n<D:resourcetype><D:collection/></D:resourcetype>\n"
       "<D:getlastmodified ns0:dt=\"dateTime.rfc1123\">Tue, 14 Nov 2023 10:00:00 GMT"
       "</D:getlastmodified>\n</D:prop>\n<D:status>HTTP/1.1 200 OK</D:status>\n"
       "</D:propstat>\n</D:response>\n"
       "<D:response>\n<D:href>http://localhost:8080/dav/my%20folder/a.bin</D:href>\n"
       "<D:propstat>\n<D:prop>\n<D:resourcetype/>\n"
       "<D:getcontentlength>0</D:getcontentlength>\n"
       "<D:getetag>\"3521906592\"</D:getetag>\n"
       "<D:getlastmodified ns0:dt=\"dateTime.rfc1123\">Tue, 14 Nov 2023 10:00:00 GMT"
       "</D:getlastmodified>\n</D:prop>\n<D:status>HTTP/1.1 200 OK</D:status>\n"
       "</D:propstat>\n</D:response>\n</D:multistatus>\n",
       {"file a.bin 0 1699956000 \"3521906592\""}},
      {"rclone, default namespace, 404 propstat",
       "http://127.0.0.1:8081/my%20folder",
       "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
       "<multistatus xmlns=\"DAV:\"><response><href>/my%20folder/</href><propstat><prop>"
       "<resourcetype><collection xmlns=\"DAV:\"/></resourcetype>"
       "<getlastmodified>Tue, 14 Nov 2023 10:00:00 GMT</getlastmodified></prop>"
       "<status>HTTP/1.1 200 OK</status></propstat></response>"
       "<response><href>/my%20folder/x%2By.txt</href><propstat><prop><resourcetype></resourcetype>"
       "<getcontentlength>5</getcontentlength>"
       "<getlastmodified>Tue, 14 Nov 2023 10:00:01 GMT</getlastmodified>"
       "<getetag>\"179781a3c005\"</getetag></prop><status>HTTP/1.1 200 OK</status></propstat>"
       "<propstat><prop><quota-used-bytes/></prop><status>HTTP/1.1 404 Not Found</status>"
       "</propstat></response></multistatus>",
       {"file x+y.txt 5 1699956001 \"179781a3c005\""}},
      {"nginx dav-ext, no getetag",
       "http://h/dav/my%20folder/",
       "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n<D:multistatus xmlns:D=\"DAV:\">\n"
       "<D:response>\n<D:href>/dav/my%20folder/</D:href>\n<D:propstat>\n<D:prop>\n"
       "<D:displayname>my folder</D:displayname>\n"
       "<D:resourcetype><D:collection/></D:resourcetype>\n</D:prop>\n"
       "<D:status>HTTP/1.1 200 OK</D:status>\n</D:propstat>\n</D:response>\n"
       "<D:response>\n<D:href>/dav/my%20folder/n.txt</D:href>\n<D:propstat>\n<D:prop>\n"
       "<D:displayname>n.txt</D:displayname>\n<D:getcontentlength>11</D:getcontentlength>\n"
       "<D:getlastmodified>Tue, 14 Nov 2023 10:00:00 GMT</D:getlastmodified>\n"
       "<D:resourcetype></D:resourcetype>\n</D:prop>\n<D:status>HTTP/1.1 200 OK</D:status>\n"
       "</D:propstat>\n</D:response>\n</D:multistatus>\n",
       {"file n.txt 11 1699956000 "}},
      {"yandex-like, sha256 and status first",
       "https://webdav.yandex.ru/my%20folder/",
       "<?xml version='1.0' encoding='UTF-8'?><d:multistatus xmlns:d=\"DAV:\">"
       "<d:response><d:href>/my%20folder/</d:href><d:propstat><d:status>HTTP/1.1 200 OK"
       "</d:status><d:prop><d:resourcetype><d:collection/></d:resourcetype></d:prop>"
       "</d:propstat></d:response>"
       "<d:response><d:href>/my%20folder/%D0%BF%D1%80%D0%B8%D0%B2%D0%B5%D1%82.jpg</d:href>"
       "<d:propstat><d:status>HTTP/1.1 200 OK</d:status><d:prop>"
       "<d:getetag>0cc175b9c0f1b6a8</d:getetag><d:getcontentlength>1</d:getcontentlength>"
       "<sha256 xmlns=\"urn:yandex:disk:meta\">ca978112ca1bbdca</sha256>"
       "<d:getlastmodified>Tue, 14 Nov 2023 10:00:00 GMT</d:getlastmodified>"
       "<d:resourcetype/></d:prop></d:propstat></d:response></d:multistatus>",
       {"file \xD0\xBF\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82.jpg 1 1699956000 "
        "0cc175b9c0f1b6a8_ca978112ca1bbdca"}},
      {"CDATA, entities, comments and a processing instruction",
       kFolderUrl,
       Multistatus("<!-- listing -->" + kSelf +
                   "<?php ignored ?><D:response><D:href><![CDATA[/dav/my%20folder/]]>a&amp;b"
                   "&#x41;%5B1%5D</D:href><D:propstat><D:prop><D:getcontentlength> 42 "
                   "</D:getcontentlength><D:getetag>&quot;q&quot;</D:getetag>"
                   "<D:getlastmodified>Tue, 14 Nov 2023 10:00:00 GMT</D:getlastmodified>"
                   "</D:prop><D:status>HTTP/1.1 200</D:status></D:propstat></D:response>"),
       {"file a&bA[1] 42 1699956000 \"q\""}},
  };
}

class DavListingParserTest : public ::testing::Test {
 protected:
  utils::ManualClock clock_{kNowSec * 1000};
  utils::ScopedClock scopedClock_{&clock_};
  LoggerWrapper::Capture log_;
  RadarsLogger::Capture metrics_;
};

TEST_F(DavListingParserTest, ServerShapesGiveTheirEntriesWhateverTheReadsSplit) {
  std::mt19937 random(7);
  for (const GoodDocument& document : GoodDocuments()) {
    SCOPED_TRACE(document.server);
    const Outcome whole = ParseText(document.body, document.url);
    EXPECT_TRUE(whole.ok);
    EXPECT_EQ(whole.events, document.events);

    MemoryInputStream byteByByte(document.body, 1);
    const Outcome bytes = Parse(byteByByte, document.url);
    EXPECT_TRUE(bytes.ok);
    EXPECT_EQ(bytes.events, document.events);

    for (int round = 0; round < 20; ++round) {
      MemoryInputStream input(document.body);
      std::vector<std::uint32_t> sizes;
      for (std::size_t total = 0; total < document.body.size(); total += sizes.back()) {
        sizes.push_back(1 + random() % 97);
      }
      input.SetBlockSizes(sizes);
      const Outcome split = Parse(input, document.url);
      EXPECT_TRUE(split.ok);
      EXPECT_EQ(split.events, document.events);
    }
  }
  EXPECT_TRUE(log_.LinesAtLevel(LogType::kWarning).empty());
  EXPECT_TRUE(log_.LinesAtLevel(LogType::kError).empty());
}

TEST_F(DavListingParserTest, EverySplitInTwoReadsGivesTheSameListing) {
  const GoodDocument document = GoodDocuments().front();
  for (std::uint32_t first = 1; first < document.body.size(); ++first) {
    MemoryInputStream input(document.body);
    input.SetBlockSizes({first});
    const Outcome split = Parse(input, document.url);
    ASSERT_TRUE(split.ok) << "split at " << first;
    ASSERT_EQ(split.events, document.events) << "split at " << first;
  }
}

// Which `response` is the listed folder itself, and which are its subfolders.
TEST_F(DavListingParserTest, TheListedFolderIsRecognisedByTheTailOfItsPath) {
  struct Case {
    const char* name;
    std::string url;
    std::string body;
    std::vector<std::string> events;
  };
  const std::vector<Case> cases = {
      {"doubled slashes and escapes",
       "https://h/dav/my%20folder",
       Multistatus(FolderEntry("/dav//my%20folder/") + FolderEntry("/dav/my%20folder/b/")),
       {"folder b"}},
      {"child named as its parent after the parent",
       "http://h/a",
       Multistatus(FolderEntry("/a/") + FolderEntry("/a/a/")),
       {"folder a"}},
      {"a proxy's longer path",
       "http://h/a/b/",
       Multistatus(FolderEntry("/prefix/a/b/") + FolderEntry("/prefix/a/b/c/")),
       {"folder c"}},
      {"a proxy's shorter path",
       "http://h/remote/a/",
       Multistatus(FolderEntry("/a/") + FolderEntry("/a/c/")),
       {"folder c"}},
      {"the root", "https://h", Multistatus(FolderEntry("/") + FolderEntry("/x/")), {"folder x"}},
      {"a partial segment is neither the folder nor in it",
       "http://h/older/",
       Multistatus(FolderEntry("/folder/") + FolderEntry("/older/x/")),
       {"folder x"}},
      {"the folder listed twice is never its own child",
       "http://h/a",
       Multistatus(FolderEntry("/a/") + FileEntry("/a/f") + FolderEntry("/a/")),
       {"file f 7 1699956000 \"e1\""}},
      {"no response at all", kFolderUrl, Multistatus(""), {}},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    const Outcome outcome = ParseText(test.body, test.url);
    EXPECT_TRUE(outcome.ok);
    EXPECT_EQ(outcome.events, test.events);
  }
}

// Entries a careless or hostile server puts in the answer that aren't direct children of the
// listed folder are skipped with a line, whatever their last segment says.
TEST_F(DavListingParserTest, EntriesOutsideTheListedFolderAreSkipped) {
  const std::string body =
      Multistatus(kSelf + FileEntry("/dav/my%20folder/kept") + FileEntry("/etc/shadow") +
                  FileEntry("/dav/other/x") + FolderEntry("/dav/my%20folder/deeper/down/") +
                  FileEntry("https://elsewhere.example/etc/passwd") + FileEntry("/dav/") +
                  FolderEntry("///") + FileEntry("") + FolderEntry("/dav/my%20folder/sub/"));
  LoggerWrapper::Capture log;
  const Outcome outcome = ParseText(body);
  EXPECT_TRUE(outcome.ok);
  EXPECT_EQ(outcome.events,
            (std::vector<std::string>{"file kept 7 1699956000 \"e1\"", "folder sub"}));
  for (const char* href : {"/etc/shadow", "/dav/other/x", "/dav/my%20folder/deeper/down/",
                           "https://elsewhere.example/etc/passwd", "/dav/", "///"}) {
    EXPECT_TRUE(log.Contains(std::string("Skipping an entry outside the listed folder: ") + href))
        << href;
  }
}

TEST_F(DavListingParserTest, PropertiesOfAFile) {
  struct Case {
    const char* name;
    std::string props;
    std::string event;
    const char* warning;
  };
  const std::vector<Case> cases = {
      {"empty length is zero", "<D:getcontentlength/><D:getetag>e</D:getetag>",
       "file f 0 1700000000 e", nullptr},
      {"largest length", "<D:getcontentlength>18446744073709551615</D:getcontentlength>",
       "file f 18446744073709551615 1700000000 ", nullptr},
      {"ISO date falls back to the time of the parse",
       "<D:getcontentlength>1</D:getcontentlength>"
       "<D:getlastmodified>2023-11-14T10:00:00Z</D:getlastmodified>",
       "file f 1 1700000000 ", "Failed to parse date from: 2023-11-14T10:00:00Z"},
      {"empty date is zero",
       "<D:getcontentlength>1</D:getcontentlength><D:getlastmodified></D:getlastmodified>",
       "file f 1 0 ", nullptr},
      {"date with an offset",
       "<D:getcontentlength>1</D:getcontentlength>"
       "<D:getlastmodified>Tue, 14 Nov 2023 13:00:00 +0300</D:getlastmodified>",
       "file f 1 1699956000 ", nullptr},
      {"sha256 without etag", "<D:getcontentlength>1</D:getcontentlength><D:sha256>ab</D:sha256>",
       "file f 1 1700000000 _ab", nullptr},
      {"a later etag replaces an earlier one",
       "<D:getetag>old</D:getetag><D:getcontentlength>1</D:getcontentlength>"
       "<D:getetag>new</D:getetag>",
       "file f 1 1700000000 new", nullptr},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    log_.Clear();
    const Outcome outcome =
        ParseText(Multistatus(kSelf + Response("/dav/my%20folder/f", test.props)));
    EXPECT_TRUE(outcome.ok);
    EXPECT_EQ(outcome.events, std::vector<std::string>{test.event});
    if (test.warning) {
      EXPECT_EQ(log_.LinesAtLevel(LogType::kWarning).size(), 1u);
      EXPECT_TRUE(log_.Contains(test.warning));
    } else {
      EXPECT_TRUE(log_.LinesAtLevel(LogType::kWarning).empty());
    }
  }
}

// One bad entry fails the whole listing; the entries before it stay with the listener.
TEST_F(DavListingParserTest, ABadEntryFailsTheListing) {
  struct Case {
    const char* name;
    std::string entry;
    std::vector<const char*> errors;
  };
  const std::string length = "<D:getcontentlength>1</D:getcontentlength>";
  const std::vector<Case> cases = {
      {"no length",
       Response("/dav/my%20folder/f.txt", "<D:getetag>e</D:getetag>"),
       {"No content length for element \"f.txt\"."}},
      {"length beyond 64 bits",
       Response("/dav/my%20folder/f",
                "<D:getcontentlength>18446744073709551616</D:getcontentlength>"),
       {"Failed to parse integer from: 18446744073709551616", "No content length for element"}},
      {"negative length",
       Response("/dav/my%20folder/f", "<D:getcontentlength>-1</D:getcontentlength>"),
       {"Failed to parse integer from: -1", "No content length for element"}},
      {"no status",
       "<D:response><D:href>/dav/my%20folder/f</D:href><D:propstat><D:prop>" + length +
           "</D:prop></D:propstat></D:response>",
       {"Non successful http status in: /dav/my%20folder/f"}},
      {"lower case ok",
       Response("/dav/my%20folder/f", length, "HTTP/1.1 200 ok"),
       {"Non successful http status in: /dav/my%20folder/f"}},
      {"multi-status",
       Response("/dav/my%20folder/f", length, "HTTP/1.1 207 Multi-Status"),
       {"Non successful http status in: /dav/my%20folder/f"}},
      {"forbidden",
       Response("/dav/my%20folder/f", length, "HTTP/1.1 403 Forbidden"),
       {"Non successful http status in: /dav/my%20folder/f"}},
      {"dot dot",
       Response("/dav/my%20folder/..", length),
       {"Failed to get item name from href: /dav/my%20folder/.."}},
      {"slash once decoded",
       Response("/dav/my%20folder/a%2Fb", length),
       {"Failed to get item name from href: /dav/my%20folder/a%2Fb"}},
      {"zero byte once decoded",
       Response("/dav/my%20folder/a%00b", length),
       {"Failed to get item name from href: /dav/my%20folder/a%00b"}},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    log_.Clear();
    const Outcome outcome =
        ParseText(Multistatus(kSelf + FolderEntry("/dav/my%20folder/before/") + test.entry +
                              FolderEntry("/dav/my%20folder/after/")));
    EXPECT_FALSE(outcome.ok);
    EXPECT_EQ(outcome.events, std::vector<std::string>{"folder before"});
    for (const char* error : test.errors) {
      EXPECT_TRUE(log_.Contains(error)) << error;
    }
    EXPECT_FALSE(log_.LinesAtLevel(LogType::kError).empty());
    EXPECT_TRUE(log_.Contains("Xml input buffer: \n"));
  }
  EXPECT_EQ(metrics_.Count("failed_parse_webdav_listing"), 0u);
}

TEST_F(DavListingParserTest, AListenerThatRefusesEndsTheParse) {
  const std::string body =
      Multistatus(kSelf + FolderEntry("/dav/my%20folder/a/") + FileEntry("/dav/my%20folder/b") +
                  FileEntry("/dav/my%20folder/c"));
  for (std::size_t refuseAt : {1u, 2u}) {
    SCOPED_TRACE(refuseAt);
    log_.Clear();
    MemoryInputStream input(body);
    test::WindowsNameMapper mapper;
    RecordingListener listener;
    listener.refuseAt = refuseAt;
    EXPECT_FALSE(auxil::ParsePropfindResponse(&input, listener, kFolderUrl, &mapper));
    EXPECT_EQ(listener.events.size(), refuseAt);
    EXPECT_TRUE(log_.Contains(refuseAt == 1 ? "Failed to add folder." : "Failed to add file."));
  }
}

// Malformed XML is told from a stream that died: only the first reaches the metric.
TEST_F(DavListingParserTest, MalformedXmlAndFailedStreams) {
  const std::string good = Multistatus(kSelf + FileEntry("/dav/my%20folder/f"));
  struct Case {
    const char* name;
    std::string body;
    std::uint64_t failAt;
    std::vector<std::string> words;
    std::size_t metrics;
  };
  const std::vector<Case> cases = {
      {"empty stream", "", UINT64_MAX, {"Input stream closed with no data."}, 0},
      {"cut inside the document",
       good.substr(0, good.size() / 2),
       UINT64_MAX,
       {"Failed to parse xml: ", "Malformed xml received while parsing propstat response for " +
                                     std::string(kFolderUrl) + "."},
       1},
      {"mismatched tag",
       Multistatus("<D:response><D:href>/x</D:hre></D:response>"),
       UINT64_MAX,
       {"Failed to parse xml: "},
       1},
      {"undeclared prefix",
       "<D:multistatus><D:response/></D:multistatus>",
       UINT64_MAX,
       {"Failed to parse xml: "},
       1},
      {"a document type, the way to entity expansion",
       "<!DOCTYPE m [<!ENTITY a \"aaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;\">]>" + good,
       UINT64_MAX,
       {"Failed to parse xml: a document type declaration, which is refused"},
       1},
      {"not xml",
       "HTTP/1.1 500 Internal Server Error\r\n",
       UINT64_MAX,
       {"Failed to parse xml: "},
       1},
      {"stream fails inside", good, 100, {"Reading input stream failed."}, 0},
      {"stream fails at once", good, 0, {"Reading input stream failed."}, 0},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    log_.Clear();
    metrics_.Clear();
    MemoryInputStream input(test.body, 7, test.failAt);
    EXPECT_FALSE(Parse(input).ok);
    for (const std::string& word : test.words) {
      EXPECT_TRUE(log_.Contains(word)) << word;
    }
    EXPECT_EQ(metrics_.Count("failed_parse_webdav_listing"), test.metrics);
  }
}

TEST_F(DavListingParserTest, ATextElementWithChildrenIsRefused) {
  const Outcome outcome = ParseText(Multistatus(
      kSelf + Response("/dav/my%20folder/f", "<D:getcontentlength>1<D:x/></D:getcontentlength>")));
  EXPECT_FALSE(outcome.ok);
  EXPECT_TRUE(log_.Contains("ReadElementText encountered unknown element after characters: "));
  EXPECT_TRUE(log_.Contains("No content length for element \"f\"."));
}

TEST(DavPathsTest, PathOfUrl) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", ""},
      {"/dav/a", "/dav/a"},
      {"dav/a", "dav/a"},
      {"https://host/dav/a/", "/dav/a/"},
      {"http://host:8080/a", "/a"},
      {"https://host", ""},
      {"https://", ""},
      {"https://host/", "/"},
      {"http://user@host/a%20b?x=/y", "/a%20b?x=/y"},
  };
  for (const auto& [url, path] : cases) {
    EXPECT_EQ(auxil::PathOfUrl(url), path) << url;
  }
}

TEST(DavPathsTest, NormalizeDavPath) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", "/"},         {"/", "/"},        {"///", "/"},
      {"a", "/a"},       {"a//b/", "/a/b"}, {"//a///b//", "/a/b"},
      {"/a b/", "/a b"},
  };
  for (auto [path, normalized] : cases) {
    const std::string original = path;
    auxil::NormalizeDavPath(&path);
    EXPECT_EQ(path, normalized) << original;
  }
}

TEST(DavPathsTest, ItemNameFromHref) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"/dav/a%20b/", "a b"},
      {"https://h/dav/file.txt", "file.txt"},
      {"name", "name"},
      {"/a//", "a"},
      {"///", ""},
      {"", ""},
      {"/a/%25", "%"},
      {"/a/%zz%4", "%zz%4"},
      {"/a/.", ""},
      {"/a/..", ""},
      {"/a/%2E%2E", ""},
      {"/a/...", "..."},
      {"/a/x%2fy", ""},
  };
  for (const auto& [href, name] : cases) {
    EXPECT_EQ(auxil::ItemNameFromHref(href), name) << href;
  }
}

// The parser keeps no more than its buffer and the reader's look-ahead: heap use while a folder of
// 100,000 entries goes through stays far below the size of the document.
TEST_F(DavListingParserTest, AHugeFolderIsParsedInBoundedMemory) {
  class CountingListener : public auxil::ParseFolderListener {
   public:
    bool AddFolder(std::string&&) override { return false; }
    bool AddFile(std::string&& name, std::uint64_t size, std::uint64_t modified,
                 const std::string& etag) override {
      if (size != DavListingGenerator::kFileSize || modified != DavListingGenerator::kModified ||
          etag.empty() || name.compare(0, 5, "file ") != 0) {
        return false;
      }
      if (++files % 1000 == 0) {
        peak = std::max(peak, test::HeapInUse());
      }
      return true;
    }
    std::uint64_t files = 0;
    std::size_t peak = 0;
  };
  constexpr std::uint64_t kCount = 100'000;
  DavListingGenerator input(kCount);
  test::WindowsNameMapper mapper;
  CountingListener listener;
  const std::size_t before = test::HeapInUse();
  EXPECT_TRUE(auxil::ParsePropfindResponse(&input, listener, "http://h/dav/big/", &mapper));
  EXPECT_EQ(listener.files, kCount);
  EXPECT_GT(input.Produced(), 20u << 20);
  EXPECT_LT(listener.peak - std::min(before, listener.peak), 512u << 10);
}

}  // namespace
