// The Yandex Disk dialect as a client meets it: the binary snapshot byte for byte, the JSON
// snapshot's pages under one revision, the deltas that the account's changes make, Yandex's error
// bodies, and the WebDAV and REST roads of files with their hash checks.
#include "emulators/YandexDialect.h"

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUrl>

#include "emulators/Emulator.h"
#include "emulators/WebDavSurface.h"
#include "support/Fetch.h"

namespace {

using emulators::YandexDialect;

constexpr const char* kToken = "OAuth t";
const std::string kHelloMd5 = "5d41402abc4b2a76b9719d911017c592";
const std::string kHelloSha256 = "2cf24dba5fb0a30e26e83b2ac5b9e29e1b161e5c1fa7425e73043362938b9824";
// 300 bytes of 'x'.
const std::string kBigMd5 = "8a4876ea55d998a5d91ed59db796af28";
const std::string kBigSha256 = "0d4e2ca9e9cbced7a7a5380eb29e1a3783b9b6d0db72de36a1051038e1c1fbc7";

QJsonObject Json(const std::string& body) {
  return QJsonDocument::fromJson(QByteArray::fromStdString(body)).object();
}

std::string Raw(const std::string& hex) {
  return QByteArray::fromHex(QByteArray::fromStdString(hex)).toStdString();
}

std::string Param(const std::string& value) {
  return QUrl::toPercentEncoding(QString::fromStdString(value)).toStdString();
}

class YandexDialectTest : public ::testing::Test {
 protected:
  void Start(const emulators::YandexOptions& options = emulators::YandexOptions()) {
    std::string error;
    emulator_ = emulators::Emulator::Start(emulators::MakeYandexDialect(options), 0, &error);
    ASSERT_TRUE(emulator_) << error;
    emulators::CloudAccount& account = emulator_->account();
    emulators::Item docs;
    ASSERT_EQ(account.CreateFile(account.RootId(), "big", std::string(300, 'x'), 0, nullptr),
              emulators::AccountError::kNone);
    ASSERT_EQ(account.CreateFolder(account.RootId(), "Docs", &docs),
              emulators::AccountError::kNone);
    ASSERT_EQ(account.CreateFile(docs.id, "a.txt", "hello", 0, nullptr),
              emulators::AccountError::kNone);
  }
  void SetUp() override { Start(); }

  test::Answer Call(const std::string& verb, const std::string& path,
                    const std::string& body = std::string(), const std::string& header = "",
                    const std::string& token = kToken) {
    return test::Fetch(verb, emulator_->BaseUrl() + path, token, body, "", header);
  }
  std::string Revision() {
    return Json(Call("GET", "/v1/disk").body)["revision"].toVariant().toString().toStdString();
  }

  std::unique_ptr<emulators::Emulator> emulator_;
};

TEST_F(YandexDialectTest, BinarySnapshotIsServedByteForByteForTheExactQueryOnly) {
  const std::string file_big = "\x01" + Raw(kBigMd5) + Raw(kBigSha256) + "\xAC\x02\x03" + "big";
  const std::string folder_docs = std::string("\x02\x04") + "Docs";
  const std::string file_a =
      "\x01" + Raw(kHelloMd5) + Raw(kHelloSha256) + "\x05\x0A" + "Docs/a.txt";
  struct Case {
    const char* what;
    std::string path;
    long status;
    std::string body;  // checked when the status is 200
    const char* count;
  };
  const Case cases[] = {
      {"the whole disk", "/webdav/disk?index&v=3", 200, file_big + folder_docs + file_a, "3"},
      {"a mounted folder, its own record first", "/webdav/disk/Docs?index&v=3", 200,
       folder_docs + file_a, "2"},
      {"a query with '='", "/webdav/disk?index=&v=3", 400, "", ""},
      {"another version", "/webdav/disk?index&v=2", 400, "", ""},
      {"no query", "/webdav/disk", 400, "", ""},
      {"a folder that isn't there", "/webdav/disk/Nope?index&v=3", 404, "", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    test::Answer answer = Call("GET", c.path);
    EXPECT_EQ(answer.status, c.status) << answer.body;
    if (c.status == 200) {
      EXPECT_EQ(QByteArray::fromStdString(answer.body).toHex(),
                QByteArray::fromStdString(c.body).toHex());
      EXPECT_EQ(answer.Header("Item-Count"), c.count);
    }
  }
}

TEST_F(YandexDialectTest, ASnapshotCanBeSpoiledOnPurpose) {
  emulators::YandexOptions options;
  options.edit_snapshot = [](std::string* body) { body->push_back('\x07'); };
  Start(options);
  test::Answer answer = Call("GET", "/webdav/disk/Docs?index&v=3");
  EXPECT_EQ(answer.body.substr(0, 6), std::string("\x02\x04") + "Docs");
  EXPECT_EQ(answer.body.back(), '\x07');
  EXPECT_EQ(answer.Header("Item-Count"), "2");
}

TEST_F(YandexDialectTest, ItemCountSaysWhatTheTestAsks) {
  for (const char* said : {"-1", "0", "4", ""}) {
    SCOPED_TRACE(said);
    emulators::YandexOptions options;
    options.item_count = said;
    Start(options);
    test::Answer answer = Call("GET", "/webdav/disk?index&v=3");
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.Header("Item-Count"), said);
    EXPECT_EQ(answer.headers.find("Item-Count") != std::string::npos, *said != '\0');
  }
}

TEST_F(YandexDialectTest, JsonSnapshotPagesShareOneRevision) {
  // 1. Five more files, pages of two.
  emulators::YandexOptions options;
  options.snapshot_page = 2;
  Start(options);
  for (int i = 0; i < 5; ++i) {
    emulator_->account().CreateFile(emulator_->account().RootId(), "f" + std::to_string(i), "", 0,
                                    nullptr);
  }
  const std::string revision = Revision();
  ASSERT_EQ(revision,
            std::to_string(YandexDialect::kRevisionBase + emulator_->account().Sequence()));
  // 2. The pages; a change meanwhile doesn't enter the snapshot taken.
  std::vector<std::string> paths;
  std::string key, last_key;
  int pages = 0;
  do {
    test::Answer answer = Call("GET",
                               "/v1/disk/resources/snapshot?fields=iteration_key,revision,"
                               "items.path&iteration_key=" +
                                   Param(key));
    ASSERT_EQ(answer.status, 200) << answer.body;
    ASSERT_NE(answer.body.find("\"revision\":" + revision), std::string::npos) << answer.body;
    QJsonObject page = Json(answer.body);
    for (const QJsonValue& item : page["items"].toArray()) {
      paths.push_back(item.toObject()["path"].toString().toStdString());
      EXPECT_EQ(item.toObject().keys(), QStringList{"path"});  // what "fields" asked, no more
    }
    if (!key.empty())
      last_key = key;
    key = page["iteration_key"].toString().toStdString();
    if (++pages == 1)
      emulator_->account().CreateFolder(emulator_->account().RootId(), "later", nullptr);
  } while (!key.empty() && pages < 10);
  EXPECT_EQ(pages, 4);
  const std::vector<std::string> expected = {"disk:/big",  "disk:/f0",        "disk:/f1",
                                             "disk:/f2",   "disk:/f3",        "disk:/f4",
                                             "disk:/Docs", "disk:/Docs/a.txt"};
  EXPECT_EQ(paths, expected);
  // 3. The last page again, as after a lost answer; a key that was never given is refused.
  EXPECT_EQ(Call("GET", "/v1/disk/resources/snapshot?iteration_key=" + Param(last_key)).status,
            200);
  EXPECT_EQ(Call("GET", "/v1/disk/resources/snapshot?iteration_key=9:0").status, 400);
}

TEST_F(YandexDialectTest, DeltasFollowTheAccountsChanges) {
  // 1. Changes by every road after the revision.
  emulators::YandexOptions options;
  options.deltas_page = 3;
  Start(options);
  const std::string base = Revision();
  ASSERT_EQ(Call("PUT", "/v1/disk/resources?path=disk%3A%2FNew").status, 201);
  ASSERT_EQ(Call("PUT", "/webdav/New/f.txt", "abc").status, 201);
  ASSERT_EQ(Call("PUT", "/webdav/New/f.txt", "abcd").status, 201);
  ASSERT_EQ(Call("MOVE", "/webdav/Docs", "", "Destination: /webdav/Moved").status, 201);
  ASSERT_EQ(Call("POST", "/v1/disk/resources/move?from=disk:/New/f.txt&path=disk:/g.txt").status,
            201);
  ASSERT_EQ(Call("DELETE", "/webdav/g.txt").status, 204);
  // A folder that isn't empty goes by operation, which has done its work when it is answered.
  ASSERT_EQ(Call("DELETE", "/v1/disk/resources?path=disk:/Moved&permanently=true").status, 202);
  const std::string now = Revision();
  // 2. The deltas over pages, each under the revision that the first page fixed.
  std::vector<std::string> seen;
  std::string key;
  std::int64_t last_revision = 0;
  for (int pages = 0; pages < 10; ++pages) {
    test::Answer answer =
        Call("GET", "/v1/disk/resources/deltas?allow_moved_deltas=1&base_revision=" + base +
                        "&iteration_key=" + Param(key));
    ASSERT_EQ(answer.status, 200) << answer.body;
    EXPECT_NE(answer.body.find("\"revision\":" + now), std::string::npos) << answer.body;
    QJsonObject page = Json(answer.body);
    for (const QJsonValue& value : page["items"].toArray()) {
      QJsonObject item = value.toObject();
      std::string line = item["change_type"].toString().toStdString() + " " +
                         item["type"].toString().toStdString() + " " +
                         item["path"].toString().toStdString();
      if (item.contains("new_path"))
        line += " -> " + item["new_path"].toString().toStdString();
      if (item["resource"].toObject().contains("md5"))
        line += " " + item["resource"].toObject()["md5"].toString().toStdString();
      seen.push_back(line);
      std::int64_t revision = item["revision"].toVariant().toLongLong();
      EXPECT_GE(revision, last_revision);
      last_revision = revision;
    }
    key = page["iteration_key"].toString().toStdString();
    if (key.empty())
      break;
  }
  const std::vector<std::string> expected = {
      "new dir disk:/New",
      "new file disk:/New/f.txt 900150983cd24fb0d6963f7d28e17f72",
      "changed file disk:/New/f.txt e2fc714c4727ee9395f324cd2e7f331f",
      "moved dir disk:/Docs -> disk:/Moved",
      "deleted file disk:/New/f.txt",
      "new file disk:/g.txt e2fc714c4727ee9395f324cd2e7f331f",
      "deleted file disk:/g.txt",
      "deleted dir disk:/Moved",
  };
  EXPECT_EQ(seen, expected);
  // 3. Nothing new since now.
  test::Answer quiet = Call("GET", "/v1/disk/resources/deltas?base_revision=" + now);
  EXPECT_EQ(Json(quiet.body)["items"].toArray().size(), 0) << quiet.body;
}

TEST_F(YandexDialectTest, FilesStillBeingHashedComeWithoutDigests) {
  emulators::YandexOptions options;
  options.unhashed_answers = 2;
  Start(options);
  const std::string base = Revision();
  ASSERT_EQ(Call("PUT", "/webdav/Docs/fresh.txt", "abc").status, 201);
  for (bool hashed : {false, false, true}) {
    QJsonObject resource =
        Json(Call("GET", "/v1/disk/resources/deltas?base_revision=" + base).body)["items"]
            .toArray()
            .at(0)["resource"]
            .toObject();
    EXPECT_EQ(resource.contains("md5"), hashed);
    EXPECT_EQ(resource.contains("sha256"), hashed);
    EXPECT_EQ(resource["size"].toInt(), 3);
  }
}

TEST_F(YandexDialectTest, ErrorsCarryYandexBodies) {
  using emulators::FaultRule;
  emulator_->faults().Add(FaultRule::On("", "/v1/disk/resources/move").Status(423));
  emulator_->faults().Add(FaultRule::On("", "/v1/disk/resources/publish").Status(429));
  emulator_->faults().Add(FaultRule::On("", "/v1/disk/resources/upload")
                              .Status(507)
                              .Error("DiskStorageQuotaExhaustedError"));
  struct Case {
    const char* what;
    std::string verb, path, token;
    long status;
    const char* error;
  };
  const Case cases[] = {
      {"no token", "GET", "/v1/disk", "", 401, "UnauthorizedError"},
      {"the wrong scheme", "GET", "/v1/disk", "Bearer t", 401, "UnauthorizedError"},
      {"a rejected token", "GET", "/v1/disk", "OAuth rejected-token", 401, "UnauthorizedError"},
      {"a missing resource", "GET", "/v1/disk/resources?path=disk:/nope", kToken, 404,
       "DiskNotFoundError"},
      {"a folder that exists", "PUT", "/v1/disk/resources?path=disk:/Docs", kToken, 409,
       "DiskPathPointsToExistentDirectoryError"},
      {"no parent", "PUT", "/v1/disk/resources?path=disk:/no/x", kToken, 409,
       "DiskPathDoesntExistsError"},
      {"a file over a file", "POST", "/v1/disk/resources/move?from=disk:/big&path=disk:/Docs/a.txt",
       kToken, 423, "DiskResourceLockedError"},
      {"rate limit", "PUT", "/v1/disk/resources/publish?path=disk:/big", kToken, 429,
       "TooManyRequestsError"},
      {"a named error", "GET", "/v1/disk/resources/upload?path=disk:/x", kToken, 507,
       "DiskStorageQuotaExhaustedError"},
      {"an absurd revision", "GET", "/v1/disk/resources/deltas?base_revision=1e9", kToken, 400,
       "FieldValidationError"},
      {"a path that climbs", "GET", "/v1/disk/resources?path=disk:/../x", kToken, 400,
       "FieldValidationError"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    test::Answer answer = test::Fetch(c.verb, emulator_->BaseUrl() + c.path, c.token);
    EXPECT_EQ(answer.status, c.status) << answer.body;
    QJsonObject body = Json(answer.body);
    EXPECT_EQ(body["error"].toString().toStdString(), c.error) << answer.body;
    EXPECT_FALSE(body["message"].toString().isEmpty());
    EXPECT_FALSE(body["description"].toString().isEmpty());
  }
}

TEST_F(YandexDialectTest, WebDavAnswersAsYandexDoes) {
  const std::string listing =
      R"(<?xml version="1.0"?><propfind xmlns="DAV:"><prop><resourcetype/><getetag/>)"
      R"(<getcontentlength/><sha256 xmlns="urn:yandex:disk:meta"/></prop></propfind>)";
  const std::string quota =
      R"(<?xml version="1.0"?><propfind xmlns="DAV:" xmlns:y="urn:yandex:disk:meta"><prop>)"
      R"(<quota-available-bytes/><quota-used-bytes/><y:max-file-size/><y:trash-used-bytes/>)"
      R"(</prop></propfind>)";
  struct Case {
    const char* what;
    std::string verb, path, body, headers;
    long status;
    std::vector<std::string> contains;
  };
  const Case cases[] = {
      {"a listing",
       "PROPFIND",
       "/webdav/Docs",
       listing,
       "Depth: 1",
       207,
       {"<d:href>/webdav/Docs/</d:href>", "<d:href>/webdav/Docs/a.txt</d:href>",
        "<d:getetag>" + kHelloMd5 + "</d:getetag>", "<d:getcontentlength>5</d:getcontentlength>",
        "<sha256 xmlns=\"urn:yandex:disk:meta\">" + kHelloSha256 + "</sha256>",
        "<d:resourcetype><d:collection/></d:resourcetype>"}},
      {"the alias of the root",
       "PROPFIND",
       "/webdav/disk/Docs",
       listing,
       "Depth: 0",
       207,
       {"<d:href>/webdav/disk/Docs/</d:href>"}},
      {"the quota",
       "PROPFIND",
       "/webdav/",
       quota,
       "Depth: 0",
       207,
       {"<d:quota-used-bytes>305</d:quota-used-bytes>",
        "<max-file-size xmlns=\"urn:yandex:disk:meta\">53687091200</max-file-size>",
        "<trash-used-bytes xmlns=\"urn:yandex:disk:meta\">0</trash-used-bytes>"}},
      {"a path glued to the host's", "PROPFIND", "/webdavDocs", listing, "Depth: 0", 404, {}},
      {"depth infinity", "PROPFIND", "/webdav/", listing, "Depth: infinity", 403, {}},
      {"malformed XML",
       "PROPFIND",
       "/webdav/",
       "<propfind xmlns=\"DAV:\"><prop>",
       "Depth: 0",
       400,
       {}},
      {"PROPPATCH with a propfind", "PROPPATCH", "/webdav/big", listing, "", 400, {}},
      {"a root outside DAV:",
       "PROPFIND",
       "/webdav/",
       "<propfind xmlns=\"x:\"/>",
       "Depth: 0",
       400,
       {}},
      {"MKCOL over a folder", "MKCOL", "/webdav/Docs", "", "", 405, {}},
      {"MKCOL without parent", "MKCOL", "/webdav/a/b", "", "", 409, {}},
      {"MKCOL", "MKCOL", "/webdav/Fresh", "", "", 201, {}},
      {"PUT without parent", "PUT", "/webdav/a/b.txt", "x", "", 409, {}},
      {"PUT that must create", "PUT", "/webdav/Docs/a.txt", "x", "If-None-Match: *", 412, {}},
      {"PUT over another version", "PUT", "/webdav/Docs/a.txt", "x", "If-Match: 00", 412, {}},
      {"PUT whose body lies",
       "PUT",
       "/webdav/new.txt",
       "abd",
       "Etag: 900150983cd24fb0d6963f7d28e17f72\nSha256: "
       "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad",
       400,
       {}},
      {"MOVE onto a file without overwrite",
       "MOVE",
       "/webdav/big",
       "",
       "Destination: http://h/webdav/Docs/a.txt\nOverwrite: F",
       412,
       {}},
      {"DELETE of another version", "DELETE", "/webdav/big", "", "If-Match: " + kHelloMd5, 412, {}},
      {"a ranged read", "GET", "/webdav/Docs/a.txt", "", "Range: bytes=1-3", 206, {"ell"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    test::Answer answer = Call(c.verb, c.path, c.body, c.headers);
    EXPECT_EQ(answer.status, c.status) << answer.body;
    for (const std::string& piece : c.contains)
      EXPECT_NE(answer.body.find(piece), std::string::npos) << piece << "\n" << answer.body;
  }
  // What the refusals left: "a.txt" as it was, no "new.txt", a new folder.
  emulators::CloudAccount& account = emulator_->account();
  EXPECT_EQ(*account.FindByPath("Docs/a.txt")->content, "hello");
  EXPECT_FALSE(account.FindByPath("new.txt"));
  EXPECT_TRUE(account.FindByPath("Fresh"));
  EXPECT_EQ(account.FindByPath("big")->size, 300u);
}

TEST_F(YandexDialectTest, KnownContentIsTakenOnTheHead) {
  // 1. A PUT announcing content the disk holds: 201 at once, before any body byte.
  std::string headers =
      "Etag: " + kHelloMd5 + "\nSha256: " + kHelloSha256 + "\nExpect: 100-continue";
  test::Answer answer = Call("PUT", "/webdav/Docs/copy.txt", "hello", headers);
  EXPECT_EQ(answer.status, 201) << answer.body;
  std::optional<emulators::Item> copy = emulator_->account().FindByPath("Docs/copy.txt");
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->digests.sha256, kHelloSha256);
  // 2. Unknown content must come, and does.
  std::string body(2000, 'y');
  answer = Call("PUT", "/webdav/Docs/new.bin", body,
                "Etag: " + emulators::ContentHasher::Of(body).md5 +
                    "\nSha256: " + emulators::ContentHasher::Of(body).sha256);
  EXPECT_EQ(answer.status, 201) << answer.body;
  EXPECT_EQ(emulator_->account().FindByPath("Docs/new.bin")->size, body.size());
  // 3. Without the token the head is refused as well.
  answer = Call("PUT", "/webdav/Docs/stolen.txt", "hello", headers, "");
  EXPECT_EQ(answer.status, 401);
  EXPECT_FALSE(emulator_->account().FindByPath("Docs/stolen.txt"));
}

TEST_F(YandexDialectTest, DeadPropertiesAndPublicLinksOverProppatch) {
  // 1. The metainfo of a backup, with characters XML must escape.
  const std::string set =
      R"(<?xml version="1.0" encoding="utf-8" ?><propertyupdate xmlns="DAV:" )"
      R"(xmlns:u="backups_metainfo"><set><prop><u:local_path>C:\a&amp;&lt;b</u:local_path>)"
      R"(<u:size>42</u:size></prop></set></propertyupdate>)";
  ASSERT_EQ(Call("PROPPATCH", "/webdav/disk/Docs", set).status, 207);
  EXPECT_EQ(emulator_->account().FindByPath("Docs")->properties.at("{backups_metainfo}local_path"),
            "C:\\a&<b");
  const std::string ask =
      R"(<propfind xmlns="DAV:"><prop><local_path xmlns="backups_metainfo"/>)"
      R"(<size xmlns="backups_metainfo"/><cloud_path xmlns="backups_metainfo"/></prop></propfind>)";
  test::Answer found = Call("PROPFIND", "/webdav/disk/Docs", ask, "Depth: 0");
  EXPECT_EQ(found.status, 207);
  EXPECT_NE(found.body.find(R"(<local_path xmlns="backups_metainfo">C:\a&amp;&lt;b</local_path>)"),
            std::string::npos)
      << found.body;
  EXPECT_NE(found.body.find(R"(<size xmlns="backups_metainfo">42</size>)"), std::string::npos);
  // The property never set comes in the 404 propstat.
  std::size_t missing = found.body.find("404 Not Found");
  EXPECT_NE(missing, std::string::npos);
  EXPECT_LT(found.body.find(R"(<cloud_path xmlns="backups_metainfo"/>)"), missing);
  // 2. A public link made and closed.
  const std::string publish =
      R"(<?xml version="1.0"?><propertyupdate xmlns="DAV:"><set><prop><public_url )"
      R"(xmlns="urn:yandex:disk:meta">true</public_url></prop></set></propertyupdate>)";
  test::Answer published = Call("PROPPATCH", "/webdav/big", publish);
  std::string link = emulator_->account().FindByPath("big")->public_link;
  ASSERT_FALSE(link.empty());
  EXPECT_NE(published.body.find(">" + link + "</public_url>"), std::string::npos) << published.body;
  EXPECT_NE(published.body.find("HTTP/1.1 200 OK"), std::string::npos);
  ASSERT_EQ(Call("PUT", "/v1/disk/resources/unpublish?path=disk:/big").status, 200);
  EXPECT_TRUE(emulator_->account().FindByPath("big")->public_link.empty());
}

TEST_F(YandexDialectTest, FilesGoByLinks) {
  // 1. Download link, read in a range.
  QJsonObject link = Json(Call("GET", "/v1/disk/resources/download?path=disk:/Docs/a.txt").body);
  ASSERT_EQ(link["method"].toString(), "GET");
  test::Answer read = test::Fetch("GET", link["href"].toString().toStdString(), "", "", "bytes=1-");
  EXPECT_EQ(read.status, 206);
  EXPECT_EQ(read.body, "ello");
  EXPECT_EQ(read.Header("ETag"), kHelloMd5);
  // 2. An upload link with the digests of known content: 201, no link.
  std::string known = "/v1/disk/resources/upload?path=disk:/k.txt&md5=" + kHelloMd5 +
                      "&sha256=" + kHelloSha256 + "&size=5";
  EXPECT_EQ(Call("GET", known).status, 200);  // the documented form always gives a link
  EXPECT_EQ(Call("PUT", known).status, 201);
  EXPECT_EQ(*emulator_->account().FindByPath("k.txt")->content, "hello");
  // 3. A link for new bytes, the bytes, and the operation that ends with them.
  QJsonObject answer =
      Json(Call("PUT", "/v1/disk/resources/upload?path=disk:/k.txt&overwrite=true").body);
  QJsonObject upload = answer["upload_link"].toObject();
  ASSERT_EQ(upload["method"].toString(), "PUT");
  EXPECT_EQ(upload["templated"].toBool(), false);
  std::string operation = answer["operation_link"].toString().toStdString();
  EXPECT_EQ(Json(test::Fetch("GET", operation, kToken).body)["status"], "in-progress");
  EXPECT_EQ(test::Fetch("PUT", upload["href"].toString().toStdString(), "", "new!").status, 201);
  EXPECT_EQ(Json(test::Fetch("GET", operation, kToken).body)["status"], "success");
  EXPECT_EQ(*emulator_->account().FindByPath("k.txt")->content, "new!");
  // A link is used once.
  EXPECT_EQ(test::Fetch("PUT", upload["href"].toString().toStdString(), "", "x").status, 404);
}

TEST_F(YandexDialectTest, LargeFoldersAndAcceptedUploadsGoByOperation) {
  emulators::YandexOptions options;
  options.async_items = 1;
  options.operation_polls = 2;
  options.upload_accepted = true;
  options.listing_limit = 1;
  Start(options);
  emulator_->account().CreateFile(emulator_->account().FindByPath("Docs")->id, "b", "", 0, nullptr);
  // 1. A listing page is the server's size, whatever was asked.
  QJsonObject embedded =
      Json(Call("GET", "/v1/disk/resources?path=disk:/Docs&limit=100&offset=1").body)["_embedded"]
          .toObject();
  EXPECT_EQ(embedded["limit"].toInt(), 1);
  EXPECT_EQ(embedded["total"].toInt(), 2);
  EXPECT_EQ(embedded["items"].toArray().at(0).toObject()["path"], "disk:/Docs/b");
  // 2. Deleting two files' folder: 202, two polls in progress, then success.
  test::Answer deleted = Call("DELETE", "/v1/disk/resources?path=disk:/Docs");
  ASSERT_EQ(deleted.status, 202);
  std::string href = Json(deleted.body)["href"].toString().toStdString();
  for (const char* status : {"in-progress", "in-progress", "success"})
    EXPECT_EQ(Json(test::Fetch("GET", href, kToken).body)["status"], status);
  EXPECT_FALSE(emulator_->account().FindByPath("Docs"));
  // The same operation by path.
  std::string id = href.substr(href.find("?id=") + 4);
  EXPECT_EQ(Json(Call("GET", "/v1/disk/operations/" + id).body)["status"], "success");
  // 3. An upload answered 202 ends by its operation.
  QJsonObject link = Json(Call("GET", "/v1/disk/resources/upload?path=disk:/u").body);
  test::Answer put = test::Fetch("PUT", link["href"].toString().toStdString(), "", "data");
  ASSERT_EQ(put.status, 202);
  EXPECT_EQ(Json(put.body)["href"].toString().toStdString(),
            link["operation_link"].toString().toStdString());
}

}  // namespace

TEST_F(YandexDialectTest, BigUploadsKeepOnlyTheirDigests) {
  emulators::YandexOptions options;
  options.max_file_size = 5000;
  Start(options);
  emulator_->server().SetBodyKeepLimit(100);
  const std::string bytes(1000, 'z');
  const emulators::ContentDigests digests = emulators::ContentHasher::Of(bytes);
  const std::string announced = "Etag: " + digests.md5 + "\nSha256: " + digests.sha256;
  // 1. Over WebDAV: checked against its headers, kept as size and digests.
  EXPECT_EQ(Call("PUT", "/webdav/lie.bin", bytes + "!", announced).status, 400);
  EXPECT_EQ(Call("PUT", "/webdav/big.bin", bytes, announced).status, 201);
  std::optional<emulators::Item> big = emulator_->account().FindByPath("big.bin");
  ASSERT_TRUE(big);
  EXPECT_EQ(big->size, bytes.size());
  EXPECT_FALSE(big->content);
  EXPECT_EQ(big->digests.sha256, digests.sha256);
  EXPECT_FALSE(emulator_->account().FindByPath("lie.bin"));
  // Its hashes are in the snapshot; its bytes can't be read.
  EXPECT_NE(Call("GET", "/webdav/disk?index&v=3").body.find(Raw(digests.sha256)),
            std::string::npos);
  EXPECT_EQ(Call("GET", "/webdav/big.bin").status, 404);
  // 2. By an upload link, the same.
  QJsonObject link = Json(Call("GET", "/v1/disk/resources/upload?path=disk:/linked.bin").body);
  EXPECT_EQ(test::Fetch("PUT", link["href"].toString().toStdString(), "", bytes).status, 201);
  EXPECT_EQ(emulator_->account().FindByPath("linked.bin")->digests.md5, digests.md5);
  // 3. Above the largest file, refused before the bytes.
  const std::string huge(6000, 'h');
  EXPECT_EQ(Call("PUT", "/webdav/huge.bin", huge).status, 413);
  test::Answer refused = Call("GET", "/v1/disk/resources/upload?path=disk:/huge.bin&size=6000");
  EXPECT_EQ(refused.status, 413);
  EXPECT_EQ(Json(refused.body)["error"], "FileTooBigError");
}

TEST_F(YandexDialectTest, FaultsReachTheWebDavHost) {
  // 1. A snapshot cut after ten bytes.
  emulator_->faults().Add(emulators::FaultRule::On("GET", "/webdav/disk").CutAfter(10));
  test::Answer answer = Call("GET", "/webdav/disk?index&v=3");
  EXPECT_EQ(answer.code, CURLE_PARTIAL_FILE);
  EXPECT_EQ(answer.body.size(), 10u);
  // 2. A listing answered 503, with Yandex's body, then served again.
  emulator_->faults().Add(emulators::FaultRule::On("PROPFIND").Status(503));
  answer = Call("PROPFIND", "/webdav/", "", "Depth: 1");
  EXPECT_EQ(answer.status, 503);
  EXPECT_EQ(Json(answer.body)["error"], "DiskServiceUnavailableError");
  EXPECT_EQ(Call("PROPFIND", "/webdav/", "", "Depth: 1").status, 207);
  // The request log shows the snapshot's query as sent.
  std::vector<emulators::HttpRequest> log = emulator_->server().Requests();
  ASSERT_FALSE(log.empty());
  EXPECT_EQ(log.front().query, YandexDialect::kSnapshotQuery);
}

TEST_F(YandexDialectTest, NamesThatNeedEncodingRoundTrip) {
  for (const std::string name : {"a b+c.txt", "Мой файл.txt", "emoji 😀", "100%.txt", "q?&#.bin"}) {
    SCOPED_TRACE(name);
    const std::string href = "/webdav/Docs/" + emulators::EncodePath(name);
    ASSERT_EQ(Call("PUT", href, name).status, 201);
    // The listing names it by its encoded href, the read and the REST API by its name.
    test::Answer listing = Call("PROPFIND", "/webdav/Docs", "", "Depth: 1");
    EXPECT_NE(listing.body.find("<d:href>" + href + "</d:href>"), std::string::npos)
        << listing.body;
    EXPECT_EQ(Call("GET", href).body, name);
    QJsonObject resource =
        Json(Call("GET", "/v1/disk/resources?path=" + Param("disk:/Docs/" + name)).body);
    EXPECT_EQ(resource["name"].toString().toStdString(), name);
    EXPECT_EQ(resource["size"].toInt(), static_cast<int>(name.size()));
    // The snapshot carries the name as it is.
    EXPECT_NE(Call("GET", "/webdav/disk/Docs?index&v=3").body.find("Docs/" + name),
              std::string::npos);
  }
}
