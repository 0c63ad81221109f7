// The Dropbox dialect's own answers, as Dropbox documents them: argument checks, error bodies,
// paging with cursors, the longpoll's hold and its reset.
#include "emulators/DropboxDialect.h"

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <chrono>

#include "emulators/Emulator.h"
#include "support/Fetch.h"

namespace {

using test::Answer;

Answer Post(const std::string& url, const std::string& body, const std::string& arg = "",
            bool token = true) {
  return test::Fetch("POST", url, token ? "Bearer t" : "", body, "",
                     "Content-Type: application/json" +
                         (arg.empty() ? std::string() : "\nDropbox-API-Arg: " + arg));
}

QJsonObject Json(const std::string& body) {
  return QJsonDocument::fromJson(QByteArray::fromStdString(body)).object();
}

class DropboxDialectTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto dialect = std::make_unique<emulators::DropboxDialect>();
    dialect_ = dialect.get();
    dialect_->SetPageSize(2);
    dialect_->SetLongpollSecondMs(10);
    std::string error;
    emulator_ = emulators::Emulator::Start(std::move(dialect), 0, &error);
    ASSERT_TRUE(emulator_) << error;
    api_ = emulator_->BaseUrl() + "/api/2/";
    for (const char* path : {"A/one.txt", "A/two.txt", "b.txt"})
      emulators::ApplyForeignChange(emulator_->account(), {"create", path, "", path}, &error);
  }
  emulators::DropboxDialect* dialect_ = nullptr;
  std::unique_ptr<emulators::Emulator> emulator_;
  std::string api_;
};

TEST_F(DropboxDialectTest, RefusalsAndErrorBodiesAreDropboxs) {
  struct Case {
    std::string url;
    std::string body;
    std::string arg;
    long status;
    std::string fragment;
  };
  const std::string content = emulator_->BaseUrl() + "/content/2/files/download";
  const Case cases[] = {
      {api_ + "files/list_folder", R"({"path":"/"})", "", 400, "Specify the root folder"},
      {api_ + "files/list_folder", R"({"path":"/nope"})", "", 409,
       R"("error_summary":"path/not_found/..")"},
      {api_ + "files/list_folder", R"({"path":"/b.txt"})", "", 409, "path/not_folder"},
      {api_ + "files/list_folder", "not json", "", 400, "could not decode input as JSON"},
      {api_ + "files/list_folder/continue", R"({"cursor":"bogus"})", "", 400, "cursor"},
      {api_ + "files/create_folder_v2", R"({"path":"/a"})", "", 409, "path/conflict/folder"},
      {api_ + "files/create_folder_v2", R"({"path":"/x/../y"})", "", 409, "malformed_path"},
      {api_ + "files/move_v2", R"({"from_path":"/A","to_path":"/A/in"})", "", 409,
       "cant_move_folder_into_itself"},
      {content, "", "{\"path\":\"/b\xC3\xA4.txt\"}", 400, "Dropbox-API-Arg"},
      {content, "", R"({"path":"/b\u00e4.txt"})", 409, "path/not_found"},
      {content, "", R"({"path":"/B.TXT"})", 200, "b.txt"},
  };
  for (const Case& c : cases) {
    Answer answer = Post(c.url, c.body, c.arg);
    EXPECT_EQ(answer.status, c.status) << c.body << c.arg;
    EXPECT_NE(answer.body.find(c.fragment), std::string::npos) << answer.body;
  }
  Answer refused = Post(api_ + "users/get_space_usage", "", "", false);
  EXPECT_EQ(refused.status, 401);
  EXPECT_EQ(Json(refused.body)["error"].toObject()[".tag"].toString(), "invalid_access_token");
  // Rate limits: JSON with "retry_after" under "error", or plain text.
  for (const char* code : {"too_many_requests:300", "plain"}) {
    emulator_->faults().Add(emulators::FaultRule::On().Status(429).Error(code).RetryAfter(300));
    Answer answer = Post(api_ + "users/get_space_usage", "");
    EXPECT_EQ(answer.status, 429);
    EXPECT_NE(answer.headers.find("Retry-After: 300"), std::string::npos);
    if (std::string(code) == "plain") {
      EXPECT_EQ(answer.body, "Too Many Requests");
    } else {
      EXPECT_EQ(Json(answer.body)["error"].toObject()["retry_after"].toInt(), 300);
    }
  }
}

TEST_F(DropboxDialectTest, PagesCursorsAndTheLongpoll) {
  // 1. Small pages, each cursor leading to the next, then the journal.
  QJsonObject page = Json(Post(api_ + "files/list_folder", R"({"path":"","recursive":true})").body);
  int entries = page["entries"].toArray().size();
  while (page["has_more"].toBool()) {
    page = Json(Post(api_ + "files/list_folder/continue",
                     R"({"cursor":")" + page["cursor"].toString().toStdString() + R"("})")
                    .body);
    entries += page["entries"].toArray().size();
  }
  EXPECT_EQ(entries, 4);
  const std::string cursor = page["cursor"].toString().toStdString();
  const std::string poll = emulator_->BaseUrl() + "/notify/2/files/list_folder/longpoll";
  // 2. Held for its timeout without a change, answered at once with one, without a token.
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Post(poll, R"({"cursor":")" + cursor + R"(","timeout":30})", "", false).body,
            R"({"changes":false})");
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
  EXPECT_EQ(Post(poll, R"({"cursor":")" + cursor + R"(","timeout":10})", "", false).status, 400);
  std::string error;
  emulators::ApplyForeignChange(emulator_->account(), {"delete", "A", "", ""}, &error);
  dialect_->SetPageSize(100);
  EXPECT_EQ(Post(poll, R"({"cursor":")" + cursor + R"("})", "", false).body, R"({"changes":true})");
  QJsonArray changes =
      Json(Post(api_ + "files/list_folder/continue", R"({"cursor":")" + cursor + R"("})")
               .body)["entries"]
          .toArray();
  ASSERT_FALSE(changes.isEmpty());
  EXPECT_EQ(changes.last().toObject()[".tag"].toString(), "deleted");
  EXPECT_EQ(changes.last().toObject()["path_display"].toString(), "/A");
  // 3. A cursor older than the journal: reset.
  emulators::ApplyForeignChange(emulator_->account(), {"create", "c.txt", "", "c"}, &error);
  emulator_->account().ForgetJournal();
  Answer reset = Post(api_ + "files/list_folder/continue", R"({"cursor":")" + cursor + R"("})");
  EXPECT_EQ(reset.status, 409);
  EXPECT_EQ(Json(reset.body)["error"].toObject()[".tag"].toString(), "reset");
}

}  // namespace

namespace {

// A session walked as a client that lost answers would: each wrong offset is named in the shape
// of its call, and the committed file holds the bytes in order with its content hash.
TEST_F(DropboxDialectTest, UploadSessionsNameTheCorrectOffsetInEachCallsShape) {
  const std::string content = emulator_->BaseUrl() + "/content/2/files/";
  Answer start = Post(content + "upload_session/start", "abc", R"({"close":false})");
  ASSERT_EQ(start.status, 200) << start.body;
  const std::string id = Json(start.body)["session_id"].toString().toStdString();
  auto cursor = [&id](int offset) {
    return R"({"session_id":")" + id + R"(","offset":)" + std::to_string(offset) + "}";
  };
  const std::string commit =
      R"("commit":{"path":"/S.txt","mode":"add","client_modified":"2023-11-14T22:13:20Z",)"
      R"("strict_conflict":true})";
  struct Step {
    std::string call;
    std::string body;
    std::string arg;
    long status;
    std::string fragment;
  };
  const Step steps[] = {
      {"upload_session/append_v2", "de", R"({"cursor":)" + cursor(0) + "}", 409,
       R"("error":{".tag":"incorrect_offset","correct_offset":3})"},
      {"upload_session/append_v2", "de", R"({"cursor":)" + cursor(3) + "}", 200, "null"},
      {"upload_session/finish", "f", R"({"cursor":)" + cursor(4) + "," + commit + "}", 409,
       R"("lookup_failed":{".tag":"incorrect_offset","correct_offset":5})"},
      {"upload_session/finish", "f", R"({"cursor":)" + cursor(5) + "," + commit + "}", 200,
       R"("path_display":"/S.txt")"},
      {"upload_session/append_v2", "g", R"({"cursor":)" + cursor(6) + "}", 409,
       R"("error_summary":"not_found/..")"},
      {"upload", "x", R"({"path":"/b.txt","mode":"add","strict_conflict":true})", 409,
       "path/conflict/file"},
      {"upload", "x", R"({"path":"/b.txt","mode":{".tag":"update","update":"0"}})", 409,
       "path/conflict/file"},
  };
  for (const Step& step : steps) {
    Answer answer = Post(content + step.call, step.body, step.arg);
    EXPECT_EQ(answer.status, step.status) << step.call << " " << answer.body;
    EXPECT_NE(answer.body.find(step.fragment), std::string::npos) << step.call << answer.body;
  }
  std::optional<emulators::Item> made = emulator_->account().FindByPath("S.txt");
  ASSERT_TRUE(made);
  EXPECT_EQ(*made->content, "abcdef");
  EXPECT_EQ(made->modified_ms, 1700000000000);
}

TEST_F(DropboxDialectTest, FilePropertiesKeepOneGroupPerTemplateAndItemAndPageTheirSearch) {
  const std::string api = api_ + "file_properties/";
  Answer made =
      Post(api + "templates/add_for_user",
           R"({"name":"t","description":"d","fields":[{"name":"a","description":"",)"
           R"("type":"string"},{"name":"b","description":"","type":{".tag":"string"}}]})");
  ASSERT_EQ(made.status, 200) << made.body;
  const std::string id = Json(made.body)["template_id"].toString().toStdString();
  auto group = [&id](const std::string& fields) {
    return R"({"template_id":")" + id + R"(","fields":[)" + fields + "]}";
  };
  const std::string a1 = R"({"name":"a","value":"1"})";
  struct Step {
    std::string call;
    std::string body;
    long status;
    std::string fragment;
  };
  const Step steps[] = {
      {"templates/list_for_user", "", 200, R"({"template_ids":[")" + id + R"("]})"},
      {"templates/add_for_user",
       R"({"name":"t","description":"d","fields":[{"name":"a","type":"string"},)"
       R"({"name":"a","type":"string"}]})",
       409, "conflicting_property_names"},
      {"properties/add", R"({"path":"/A","property_groups":[)" + group(a1) + "]}", 200, "null"},
      {"properties/add", R"({"path":"/a","property_groups":[)" + group(a1) + "]}", 409,
       "property_group_already_exists"},
      {"properties/add",
       R"({"path":"/b.txt","property_groups":[)" + group(R"({"name":"c","value":"1"})") + "]}", 409,
       "does_not_fit_template"},
      {"properties/add", R"({"path":"/nope","property_groups":[)" + group(a1) + "]}", 409,
       "path/not_found"},
      {"properties/add",
       R"({"path":"/b.txt","property_groups":[{"template_id":"ptid:x","fields":[]}]})", 409,
       "template_not_found"},
      {"properties/add", R"({"path":"/b.txt","property_groups":[)" + group(a1) + "]}", 200, "null"},
      {"properties/update",
       R"({"path":"/A/one.txt","update_property_groups":[{"template_id":")" + id +
           R"(","add_or_update_fields":[)" + a1 + "]}]}",
       409, "property_group_lookup/property_group_not_found"},
      {"properties/update",
       R"({"path":"/b.txt","update_property_groups":[{"template_id":")" + id +
           R"(","add_or_update_fields":[{"name":"b","value":"2"}]}]})",
       200, "null"},
      {"properties/overwrite", R"({"path":"/b.txt","property_groups":[]})", 400, "property_groups"},
      {"properties/search", R"({"queries":[]})", 400, "queries"},
      {"properties/search",
       R"({"queries":[{"query":"1","mode":{".tag":"field_name","field_name":"a"},)"
       R"("logical_operator":"or_operator"}],"template_filter":"filter_none"})",
       200, R"("path":"/A","property_groups":[{"fields":[{"name":"a","value":"1"}])"},
      {"properties/search/continue", R"({"cursor":"bogus"})", 409, "reset"},
  };
  dialect_->SetSearchPageSize(1);
  std::string cursor;
  for (const Step& step : steps) {
    Answer answer = Post(api + step.call, step.body);
    EXPECT_EQ(answer.status, step.status) << step.call << " " << answer.body;
    EXPECT_NE(answer.body.find(step.fragment), std::string::npos) << step.call << answer.body;
    if (step.call == "properties/search" && step.status == 200)
      cursor = Json(answer.body)["cursor"].toString().toStdString();
  }
  // The second match, with both fields of its group, ends the search.
  Answer rest = Post(api + "properties/search/continue", R"({"cursor":")" + cursor + R"("})");
  EXPECT_EQ(rest.body, R"({"matches":[{"id":")" + emulator_->account().FindByPath("b.txt")->id +
                           R"(","is_deleted":false,"path":"/b.txt","property_groups":[{"fields":[)"
                           R"({"name":"a","value":"1"},{"name":"b","value":"2"}],"template_id":")" +
                           id + R"("}]}]})");
}

}  // namespace
