// The Drive dialect as a client of Drive's reference sees it: partial answers, the "q" subset,
// paging with empty pages, about's required fields, the change list, Drive's error bodies,
// resumable uploads and downloads with a range.
#include "emulators/GoogleDialect.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUrl>

#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "core/URLProcessor.h"
#include "emulators/Emulator.h"
#include "support/Fetch.h"

namespace {

using emulators::Item;

class GoogleDialectTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto dialect = std::make_unique<emulators::GoogleDialect>();
    dialect_ = dialect.get();
    std::string error;
    emulator_ = emulators::Emulator::Start(std::move(dialect), 0, &error);
    ASSERT_TRUE(emulator_) << error;
    emulators::CloudAccount& account = emulator_->account();
    account.CreateFolder(account.RootId(), "Jane's", &folder_);
    account.CreateFile(folder_.id, "a.txt", "hello", 1700000000000, &file_);
    account.CreateFile(account.RootId(), "b.txt", "world", 1700000000000, &other_);
  }

  // GET of the Drive API; the answer's body as an object.
  QJsonObject Get(const std::string& path_and_query, long* status = nullptr,
                  const std::string& token = "Bearer t") {
    test::Answer answer =
        test::Fetch("GET", emulator_->BaseUrl() + "/drive/v3" + path_and_query, token);
    if (status) {
      *status = answer.status;
    }
    return QJsonDocument::fromJson(QByteArray::fromStdString(answer.body)).object();
  }
  static std::string Ids(const QJsonObject& list) {
    std::string ids;
    for (const QJsonValue& file : list.value("files").toArray()) {
      ids += (ids.empty() ? "" : ",") + file.toObject().value("id").toString().toStdString();
    }
    return ids;
  }

  emulators::GoogleDialect* dialect_ = nullptr;
  std::unique_ptr<emulators::Emulator> emulator_;
  Item folder_, file_, other_;
};

TEST_F(GoogleDialectTest, FieldsNarrowTheAnswer) {
  QJsonObject list = Get("/files?fields=files(id,%20capabilities%20/%20canEdit),nextPageToken");
  QJsonObject first = list.value("files").toArray().at(0).toObject();
  EXPECT_EQ(first.keys(), (QStringList{"capabilities", "id"}));
  EXPECT_EQ(first.value("capabilities").toObject().keys(), QStringList{"canEdit"});
  EXPECT_FALSE(list.contains("kind"));
  // Without fields: Drive's default of a file list.
  QJsonObject plain = Get("/files").value("files").toArray().at(0).toObject();
  EXPECT_EQ(plain.keys(), (QStringList{"id", "kind", "mimeType", "name"}));
  // A file: sizes and versions are strings, the MD5 is the content's.
  QJsonObject file = Get("/files/" + file_.id + "?fields=size,md5Checksum,version,parents");
  EXPECT_EQ(file.value("size").toString(), "5");
  EXPECT_EQ(file.value("md5Checksum").toString(), "5d41402abc4b2a76b9719d911017c592");
  EXPECT_EQ(file.value("parents").toArray().at(0).toString().toStdString(), folder_.id);
}

TEST_F(GoogleDialectTest, QueryFormsSelectTheirFiles) {
  struct Case {
    std::string q;
    std::string ids;
  };
  const Case cases[] = {
      {"'" + folder_.id + "' in parents", file_.id},
      {"'" + folder_.id + "' in parents or '" + emulator_->account().RootId() + "' in parents",
       folder_.id + "," + file_.id + "," + other_.id},
      {"name='Jane\\'s' and trashed=false", folder_.id},
      {"mimeType = 'application/vnd.google-apps.folder'", folder_.id},
      {"mimeType != 'application/vnd.google-apps.folder' and 'me' in owners",
       file_.id + "," + other_.id},
      {"name contains 'b.'", other_.id},
      {"not 'me' in owners or sharedWithMe=true", ""},
      {"not name contains 'a'", other_.id},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.q);
    std::string encoded = QUrl::toPercentEncoding(QString::fromStdString(c.q)).toStdString();
    EXPECT_EQ(Ids(Get("/files?fields=files(id)&q=" + encoded)), c.ids);
  }
  long status = 0;
  QJsonObject refused = Get("/files?q=name%20~%20x", &status);
  EXPECT_EQ(status, 400);
  QJsonObject error = refused.value("error").toObject();
  EXPECT_EQ(error.value("message").toString(), "Invalid Value");
  EXPECT_EQ(error.value("errors").toArray().at(0).toObject().value("location").toString(), "q");
}

TEST_F(GoogleDialectTest, PagesComeAfterEmptyPagesWithTokens) {
  dialect_->SetMaxPageSize(2);
  dialect_->SetEmptyPages(true);
  std::vector<std::string> pages;
  std::string token;
  do {
    QJsonObject list = Get("/files?orderBy=folder&fields=files(id),nextPageToken" +
                           (token.empty() ? "" : "&pageToken=" + token));
    pages.push_back(Ids(list));
    token = list.value("nextPageToken").toString().toStdString();
  } while (!token.empty());
  EXPECT_EQ(pages, (std::vector<std::string>{"", folder_.id + "," + file_.id, "", other_.id}));
}

// Pages of one listing come from one ordering of the account until it changes: a change shows on
// the next page, and in the same question asked again.
TEST_F(GoogleDialectTest, AListingShowsEveryChangeMadeBetweenItsPages) {
  dialect_->SetMaxPageSize(2);
  const std::string all = "/files?orderBy=folder&fields=files(id),nextPageToken";
  QJsonObject first = Get(all);
  EXPECT_EQ(Ids(first), folder_.id + "," + file_.id);
  emulators::CloudAccount& account = emulator_->account();
  Item late;
  ASSERT_EQ(account.CreateFile(account.RootId(), "c.txt", "late", 1700000000000, &late),
            emulators::AccountError::kNone);
  const std::string next = first.value("nextPageToken").toString().toStdString();
  EXPECT_EQ(Ids(Get(all + "&pageToken=" + next)), other_.id + "," + late.id);

  const std::string named = "/files?fields=files(id)&q=name%20contains%20'b.'";
  EXPECT_EQ(Ids(Get(named)), other_.id);
  ASSERT_EQ(account.Rename(other_.id, "renamed.txt", nullptr), emulators::AccountError::kNone);
  EXPECT_EQ(Ids(Get(named)), "");
}

TEST_F(GoogleDialectTest, AboutWantsFieldsAndErrorsCarryDrivesBody) {
  long status = 0;
  EXPECT_EQ(Get("/about", &status).value("error").toObject().value("code").toInt(), 400);
  EXPECT_EQ(status, 400);
  QJsonObject about = Get("/about?fields=storageQuota,maxUploadSize");
  EXPECT_EQ(about.value("storageQuota").toObject().value("usage").toString(), "10");
  QJsonObject refused = Get("/files", &status, "Bearer rejected-token");
  EXPECT_EQ(status, 401);
  QJsonObject detail = refused.value("error").toObject().value("errors").toArray().at(0).toObject();
  EXPECT_EQ(detail.value("reason").toString(), "authError");
  Get("/files/nope", &status);
  EXPECT_EQ(status, 404);
}

TEST_F(GoogleDialectTest, ChangeListCoalescesAndReportsRemovals) {
  std::string start =
      Get("/changes/startPageToken").value("startPageToken").toString().toStdString();
  emulators::CloudAccount& account = emulator_->account();
  account.Rename(file_.id, "renamed.txt", nullptr);
  account.ReplaceContent(file_.id, "again", 0, nullptr);
  account.Delete(other_.id);
  QJsonObject list = Get("/changes?pageToken=" + start +
                         "&fields=changes(fileId,removed,file(name)),newStartPageToken");
  QJsonArray changes = list.value("changes").toArray();
  ASSERT_EQ(changes.size(), 2);
  EXPECT_EQ(changes.at(0).toObject().value("file").toObject().value("name").toString(),
            "renamed.txt");
  EXPECT_TRUE(changes.at(1).toObject().value("removed").toBool());
  EXPECT_FALSE(changes.at(1).toObject().contains("file"));
  EXPECT_EQ(list.value("newStartPageToken").toString().toStdString(),
            std::to_string(account.Sequence() + 1));
  long status = 0;
  QJsonObject refused = Get("/changes?pageToken=garbage", &status);
  EXPECT_EQ(status, 400);
  EXPECT_EQ(refused.value("error").toObject().value("message").toString(), "Invalid Value");
}

TEST_F(GoogleDialectTest, WritesAnswerAsDrivesReferenceSays) {
  struct Case {
    const char* name;
    const char* verb;
    std::string path;
    std::string body;
    long status;
    const char* reason;  // of the error body; empty for success
  };
  const std::string files = "/drive/v3/files";
  const std::string root = emulator_->account().RootId();
  const Case cases[] = {
      {"folder into a missing parent", "POST", files,
       R"({"name":"x","mimeType":"application/vnd.google-apps.folder","parents":["nope"]})", 404,
       "notFound"},
      {"body that is no JSON", "POST", files, "{", 400, "parseError"},
      {"trashed of another type", "PATCH", files + "/" + file_.id, R"({"trashed":"maybe"})", 400,
       "invalid"},
      {"a file as the new parent", "PATCH",
       files + "/" + file_.id + "?addParents=" + other_.id + "&removeParents=" + folder_.id, "{}",
       404, "notFound"},
      {"a folder into itself", "PATCH",
       files + "/" + folder_.id + "?addParents=" + folder_.id + "&removeParents=" + root, "{}", 403,
       "cannotMoveFolderIntoItself"},
      {"a link withdrawn that was never given", "DELETE",
       files + "/" + file_.id + "/permissions/anyoneWithLink", "", 404, "notFound"},
      {"a permission of a kind not served", "POST", files + "/" + file_.id + "/permissions",
       R"({"role":"owner","type":"user"})", 400, "invalid"},
      {"trashed as text", "PATCH", files + "/" + other_.id, R"({"trashed":"true"})", 200, ""},
      {"v2 listing in another order", "GET", "/drive/v2/files?orderBy=title", "", 400, "invalid"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    test::Answer answer = test::Fetch(c.verb, emulator_->BaseUrl() + c.path, "Bearer t", c.body);
    EXPECT_EQ(answer.status, c.status) << answer.body;
    QJsonObject error = QJsonDocument::fromJson(QByteArray::fromStdString(answer.body))
                            .object()
                            .value("error")
                            .toObject();
    EXPECT_EQ(error.value("errors").toArray().at(0).toObject().value("reason").toString(),
              QString(c.reason));
  }
  EXPECT_TRUE(emulator_->account().IsInTrash(other_.id));
  EXPECT_FALSE(emulator_->account().IsInTrash(file_.id));
}

TEST_F(GoogleDialectTest, AppPropertiesMergeByKeyAndAreFoundByKeyAndValue) {
  const std::string url = emulator_->BaseUrl() + "/drive/v3/files/" + folder_.id;
  auto patch = [&](const std::string& body) {
    return test::Fetch("PATCH", url + "?fields=appProperties", "Bearer t", body);
  };
  // 1. Keys merge into what stands; a null clears its key; anything but text is refused.
  ASSERT_EQ(patch(R"({"appProperties":{"a":"1","b":"2"}})").status, 200);
  test::Answer merged = patch(R"({"appProperties":{"a":null,"c":"3"}})");
  ASSERT_EQ(merged.status, 200);
  EXPECT_EQ(QJsonDocument::fromJson(QByteArray::fromStdString(merged.body)).object(),
            (QJsonObject{{"appProperties", QJsonObject{{"b", "2"}, {"c", "3"}}}}));
  EXPECT_EQ(patch(R"({"appProperties":{"a":5}})").status, 400);
  EXPECT_EQ(patch(R"({"appProperties":"a"})").status, 400);
  // 2. A search by key and value, alone or with other terms.
  struct Case {
    const char* q;
    std::string ids;
  };
  const Case cases[] = {
      {"appProperties has { key='b' and value='2' }", folder_.id},
      {"appProperties has {key='b' and value='3'}", ""},
      {"appProperties has { key='a' and value='1' }", ""},
      {"not appProperties has { key='c' and value='3' } and 'root' in parents", other_.id},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.q);
    long status = 0;
    QJsonObject list = Get(
        "/files?q=" + QUrl::toPercentEncoding(c.q).toStdString() + "&fields=files(id)", &status);
    EXPECT_EQ(status, 200);
    EXPECT_EQ(Ids(list), c.ids);
  }
  long status = 0;
  Get("/files?q=" + QUrl::toPercentEncoding("appProperties has { key='b' }").toStdString(),
      &status);
  EXPECT_EQ(status, 400);
}

// A resumable session as Drive's guide tells it: the Location, 308 with what the server holds in
// steps of 256 KiB (no Range when nothing), the rest by Content-Range, then the file; a status
// query of a finished session gives the file again; an expired one is 404.
TEST_F(GoogleDialectTest, AResumableSessionTakesItsBytesInPieces) {
  const std::string base = emulator_->BaseUrl();
  std::string content(600 * 1024, 'z');
  content[12345] = 'y';
  test::Answer opened =
      test::Fetch("POST", base + "/upload/drive/v3/files?uploadType=resumable&fields=id,size",
                  "Bearer t", R"({"name":"up.bin","parents":[")" + folder_.id + R"("]})",
                  std::string(), "Content-Type: application/json");
  ASSERT_EQ(opened.status, 200) << opened.body;
  std::string location = GetValueFromHTTPHeaders(opened.headers, "Location", true);
  ASSERT_FALSE(location.empty()) << opened.headers;
  const std::string total = "/" + std::to_string(content.size());
  struct Step {
    const char* what;
    std::string content_range;
    std::string body;
    long status;
    std::string range;  // of a 308
  };
  const Step steps[] = {
      {"nothing yet", "bytes */" + std::to_string(content.size()), "", 308, ""},
      {"300 KiB kept as 256", "bytes 0-307199" + total, content.substr(0, 300 * 1024), 308,
       "bytes=0-262143"},
      {"a piece from elsewhere", "bytes 307200-614399" + total, content.substr(300 * 1024), 308,
       "bytes=0-262143"},
      {"the rest", "bytes 262144-614399" + total, content.substr(262144), 200, ""},
      {"asked again", "bytes */" + std::to_string(content.size()), "", 200, ""},
  };
  emulator_->faults().Add(emulators::FaultRule::On("PUT").Nth(2).PersistLimit(300 * 1024));
  for (const Step& step : steps) {
    SCOPED_TRACE(step.what);
    test::Answer answer = test::Fetch("PUT", location, "", step.body, std::string(),
                                      "Content-Range: " + step.content_range);
    EXPECT_EQ(answer.status, step.status) << answer.body;
    if (step.status == 308) {
      EXPECT_EQ(GetValueFromHTTPHeaders(answer.headers, "Range", true), step.range);
    } else {
      QJsonObject file = QJsonDocument::fromJson(QByteArray::fromStdString(answer.body)).object();
      EXPECT_EQ(file.value("size").toString().toStdString(), std::to_string(content.size()));
    }
  }
  std::optional<Item> made = emulator_->account().FindByPath("Jane's/up.bin");
  ASSERT_TRUE(made && made->content);
  EXPECT_EQ(*made->content, content);
  // Ranged media of it.
  test::Answer part = test::Fetch("GET", base + "/drive/v3/files/" + made->id + "?alt=media",
                                  "Bearer t", "", "bytes=12340-12349");
  EXPECT_EQ(part.status, 206);
  EXPECT_EQ(part.body, content.substr(12340, 10));
  // Another session, forgotten by the server.
  opened = test::Fetch("POST", base + "/upload/drive/v3/files?uploadType=resumable", "Bearer t",
                       R"({"name":"gone.bin"})", std::string(), "Content-Type: application/json");
  ASSERT_EQ(opened.status, 200);
  emulator_->account().ExpireUploads();
  std::string gone = GetValueFromHTTPHeaders(opened.headers, "Location", true);
  EXPECT_EQ(test::Fetch("PUT", gone, "", "", std::string(), "Content-Range: bytes */5").status,
            404);
}

}  // namespace
