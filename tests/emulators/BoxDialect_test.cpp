// The Box dialect's own answers, as Box documents them: pages cut to Box's cap with markers that
// end in null, content through a 302 to a URL that takes no token, the checks of session parts
// and commits, and Box's error objects.
#include "emulators/BoxDialect.h"

#include <gtest/gtest.h>

#include <QByteArray>
#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <vector>

#include "emulators/Emulator.h"
#include "support/Fetch.h"

namespace {

using test::Answer;

// With the emulator's token unless `token` is false.
Answer Send(const std::string& verb, const std::string& url, const std::string& body = "",
            const std::vector<std::string>& header = {}, bool token = true) {
  std::string lines;
  for (const std::string& line : header)
    lines += line + "\n";
  return test::Fetch(verb, url, token ? "Bearer t" : "", body, "", lines);
}

QJsonObject Json(const Answer& answer) {
  return QJsonDocument::fromJson(QByteArray::fromStdString(answer.body)).object();
}

std::string Sha1Base64(const std::string& bytes) {
  return QCryptographicHash::hash(QByteArray::fromStdString(bytes), QCryptographicHash::Sha1)
      .toBase64()
      .toStdString();
}

class BoxDialectTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    emulator_ = emulators::Emulator::Start(emulators::MakeBoxDialect(), 0, &error);
    ASSERT_TRUE(emulator_) << error;
    api_ = emulator_->BaseUrl() + "/2.0/";
    upload_ = emulator_->BaseUrl() + "/upload/2.0/";
  }
  emulators::CloudAccount& account() { return emulator_->account(); }

  std::unique_ptr<emulators::Emulator> emulator_;
  std::string api_;
  std::string upload_;
};

TEST_F(BoxDialectTest, PagesStopAtBoxsCapAndTheLastMarkerIsNull) {
  emulators::Item folder;
  account().CreateFolder(account().RootId(), "many", &folder);
  for (int i = 0; i < 1005; ++i)
    account().CreateFile(folder.id, "f" + std::to_string(i), "x", 0, nullptr);
  // 1. Marker paging: a limit above 1000 gives 1000, then the rest with a null marker.
  const std::string items = api_ + "folders/" + folder.id + "/items?fields=id,name&usemarker=true";
  QJsonObject first = Json(Send("GET", items + "&limit=7000"));
  EXPECT_EQ(first["entries"].toArray().size(), 1000);
  EXPECT_EQ(first["limit"].toInt(), 1000);
  ASSERT_TRUE(first["next_marker"].isString());
  QJsonObject last = Json(
      Send("GET", items + "&limit=7000&marker=" + first["next_marker"].toString().toStdString()));
  EXPECT_EQ(last["entries"].toArray().size(), 5);
  EXPECT_EQ(last["entries"].toArray()[0].toObject()["name"].toString(), "f1000");
  EXPECT_TRUE(last.contains("next_marker") && last["next_marker"].isNull());
  // 2. Without a limit, Box's default page; offset paging counts the whole folder.
  QJsonObject by_offset = Json(Send("GET", api_ + "folders/" + folder.id + "/items?offset=1000"));
  EXPECT_EQ(by_offset["entries"].toArray().size(), 5);
  EXPECT_EQ(by_offset["total_count"].toInt(), 1005);
  EXPECT_EQ(Json(Send("GET", api_ + "folders/" + folder.id + "/items"))["entries"].toArray().size(),
            100);
  // 3. Bad paging arguments are refused as Box refuses them.
  EXPECT_EQ(Send("GET", items + "&limit=0").status, 400);
  EXPECT_EQ(Send("GET", items + "&marker=%21%21").status, 400);
}

TEST_F(BoxDialectTest, ContentGoesThroughA302ToAUrlWithoutToken) {
  emulators::Item file;
  account().CreateFile(account().RootId(), "a.bin", "0123456789abcdef", 0, &file);
  Answer redirect = Send("GET", api_ + "files/" + file.id + "/content");
  ASSERT_EQ(redirect.status, 302);
  const std::string location = redirect.Header("Location");
  ASSERT_EQ(location.rfind(emulator_->BaseUrl() + "/dl/", 0), 0u) << redirect.headers;
  Answer whole = Send("GET", location, "", {}, false);
  EXPECT_EQ(whole.status, 200);
  EXPECT_EQ(whole.body, "0123456789abcdef");
  Answer ranged = Send("GET", location, "", {"Range: bytes=4-7"}, false);
  EXPECT_EQ(ranged.status, 206);
  EXPECT_EQ(ranged.body, "4567");
  // The API itself wants the token; a folder has no content.
  EXPECT_EQ(Send("GET", api_ + "files/" + file.id + "/content", "", {}, false).status, 401);
  EXPECT_EQ(Send("GET", api_ + "files/" + account().RootId() + "/content").status, 404);
}

TEST_F(BoxDialectTest, SessionPartsAndCommitsAreChecked) {
  constexpr std::uint64_t kPart = 8ull << 20;
  constexpr std::uint64_t kTail = (4ull << 20) + 100;  // Box takes sessions from 20 MB on
  const std::string file = [] {
    std::string bytes(2 * kPart + kTail, '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i)
      bytes[i] = static_cast<char>(i * 7 + (i >> 10));
    return bytes;
  }();
  const std::string size = std::to_string(file.size());
  // 1. The session: numbers as numbers, and only for files from Box's minimum on.
  const std::string create = upload_ + "files/upload_sessions";
  const std::string folder = R"("folder_id":")" + account().RootId() + R"(","file_name":"s.bin")";
  EXPECT_EQ(Send("POST", create, "{" + folder + R"(,"file_size":")" + size + "\"}").status, 400);
  Answer small = Send("POST", create, "{" + folder + R"(,"file_size":1000})");
  EXPECT_EQ(small.status, 400);
  EXPECT_EQ(Json(small)["code"].toString(), "file_size_too_small");
  QJsonObject session = Json(Send("POST", create, "{" + folder + R"(,"file_size":)" + size + "}"));
  ASSERT_EQ(session["part_size"].toDouble(), static_cast<double>(kPart));
  EXPECT_EQ(session["total_parts"].toInt(), 3);
  const std::string part_url =
      session["session_endpoints"].toObject()["upload_part"].toString().toStdString();
  // 2. Each part checked against its range and digest.
  auto range = [&](std::uint64_t first, std::uint64_t length) {
    return "Content-Range: bytes " + std::to_string(first) + "-" +
           std::to_string(first + length - 1) + "/" + size;
  };
  auto slice = [&](std::uint64_t first, std::uint64_t length) {
    return file.substr(first, length);
  };
  struct PartCase {
    const char* name;
    std::uint64_t first;
    std::uint64_t length;
    std::string digest;
    long status;
  };
  const PartCase parts[] = {
      {"a digest of other bytes", 0, kPart, "sha=" + Sha1Base64("x"), 412},
      {"a part shorter than the part size", 0, kPart - 1, "", 416},
      {"a range off the part grid", 1, kPart, "", 416},
      {"part 1", 0, kPart, "", 200},
      {"part 3 before part 2", 2 * kPart, kTail, "", 416},
      {"part 2", kPart, kPart, "", 200},
      {"part 3", 2 * kPart, kTail, "", 200},
  };
  QJsonArray accepted;
  for (const PartCase& c : parts) {
    SCOPED_TRACE(c.name);
    const std::string bytes = slice(c.first, c.length);
    const std::string digest = c.digest.empty() ? "sha=" + Sha1Base64(bytes) : c.digest;
    Answer answer = Send(
        "PUT", part_url, bytes,
        {range(c.first, c.length), "Digest: " + digest, "Content-Type: application/octet-stream"});
    EXPECT_EQ(answer.status, c.status) << answer.body;
    if (answer.status == 200) {
      QJsonObject part = Json(answer)["part"].toObject();
      EXPECT_EQ(part["offset"].toDouble(), static_cast<double>(c.first));
      EXPECT_EQ(part["size"].toDouble(), static_cast<double>(c.length));
      accepted.append(QJsonObject{
          {"part_id", part["part_id"]}, {"offset", part["offset"]}, {"size", part["size"]}});
    } else {
      EXPECT_EQ(Json(answer)["type"].toString(), "error");
    }
  }
  QJsonObject listed = Json(Send("GET", part_url + "/parts"));
  EXPECT_EQ(listed["entries"].toArray().size(), 3);
  // 3. The commit: the whole file's digest, exactly the parts received, then 202 once.
  const std::string whole = "Digest: sha=" + Sha1Base64(file);
  const std::string body =
      QJsonDocument(QJsonObject{{"parts", accepted}}).toJson(QJsonDocument::Compact).toStdString();
  QJsonArray missing = accepted;
  missing.removeLast();
  const std::string short_body =
      QJsonDocument(QJsonObject{{"parts", missing}}).toJson(QJsonDocument::Compact).toStdString();
  struct CommitCase {
    const char* name;
    std::string digest;
    std::string body;
    long status;
  };
  const CommitCase commits[] = {
      {"the digest of a part", "Digest: sha=" + Sha1Base64(slice(0, kPart)), body, 412},
      {"a part left out", whole, short_body, 400},
      {"the first good try", whole, body, 202},
      {"the try after the wait", whole, body, 201},
  };
  Answer committed;
  for (const CommitCase& c : commits) {
    SCOPED_TRACE(c.name);
    committed =
        Send("POST", part_url + "/commit", c.body, {c.digest, "Content-Type: application/json"});
    EXPECT_EQ(committed.status, c.status) << committed.body;
    if (c.status == 202) {
      EXPECT_EQ(committed.Header("Retry-After"), "1");
    }
  }
  QJsonObject item = Json(committed)["entries"].toArray()[0].toObject();
  EXPECT_EQ(item["name"].toString(), "s.bin");
  EXPECT_EQ(item["size"].toDouble(), static_cast<double>(file.size()));
  EXPECT_EQ(item["sha1"].toString().toStdString(),
            QCryptographicHash::hash(QByteArray::fromStdString(file), QCryptographicHash::Sha1)
                .toHex()
                .toStdString());
  // A committed session is gone.
  EXPECT_EQ(Send("GET", part_url + "/parts").status, 404);
}

TEST_F(BoxDialectTest, FailuresCarryBoxsErrorObject) {
  emulators::Item taken;
  account().CreateFolder(account().RootId(), "Taken", &taken);
  struct Case {
    const char* name;
    std::string verb;
    std::string url;
    std::string body;
    long status;
    std::string code;
  };
  const std::string root = account().RootId();
  const Case cases[] = {
      {"unknown file", "GET", api_ + "files/999", "", 404, "not_found"},
      {"a name in use, whatever its case", "POST", api_ + "folders",
       R"({"name":"taken","parent":{"id":")" + root + R"("}})", 409, "item_name_in_use"},
      {"a name too long", "POST", api_ + "folders",
       R"({"name":")" + std::string(256, 'n') + R"(","parent":{"id":")" + root + R"("}})", 400,
       "item_name_too_long"},
      {"a name with a slash", "POST", api_ + "folders",
       R"({"name":"a/b","parent":{"id":")" + root + R"("}})", 400, "item_name_invalid"},
      {"the parent as a bare id", "POST", api_ + "folders",
       R"({"name":"n","parent":")" + root + R"("})", 400, "bad_request"},
      {"a stale etag", "DELETE", api_ + "folders/" + taken.id, "", 412, "precondition_failed"},
      {"the root", "DELETE", api_ + "folders/" + root, "", 403,
       "access_denied_insufficient_permissions"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Answer answer =
        Send(c.verb, c.url, c.body, {"if-match: 999", "Content-Type: application/json"});
    EXPECT_EQ(answer.status, c.status) << answer.body;
    QJsonObject error = Json(answer);
    EXPECT_EQ(error["type"].toString(), "error");
    EXPECT_EQ(error["status"].toInt(), c.status);
    EXPECT_EQ(error["code"].toString().toStdString(), c.code);
  }
  // The conflict names the item in the way; a refused token has no body at all.
  Answer conflict =
      Send("POST", api_ + "folders", R"({"name":"TAKEN","parent":{"id":")" + root + R"("}})");
  EXPECT_EQ(Json(conflict)["context_info"].toObject()["conflicts"].toArray()[0].toObject()["name"],
            "Taken");
  Answer refused =
      Send("GET", api_ + "users/me", "", {"Authorization: Bearer rejected-token"}, false);
  EXPECT_EQ(refused.status, 401);
  EXPECT_EQ(refused.body, "");
  EXPECT_NE(refused.Header("WWW-Authenticate").find("invalid_token"), std::string::npos);
  EXPECT_TRUE(account().Find(taken.id));
}

}  // namespace
