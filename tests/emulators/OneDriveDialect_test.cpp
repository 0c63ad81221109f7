// The Graph dialect's upload sessions as Graph documents them: the upload URL refuses the token,
// fragments other than the last are multiples of 320 KiB and start where the session stands, and
// every refusal carries Graph's error body; an item keeps the description a PATCH gives it.
#include "emulators/OneDriveDialect.h"

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "emulators/Emulator.h"
#include "support/Fetch.h"

namespace {

constexpr std::uint64_t kFragment = 320 * 1024;
constexpr std::uint64_t kTotal = 3 * kFragment + 5;

QJsonObject Json(const std::string& body) {
  return QJsonDocument::fromJson(QByteArray::fromStdString(body)).object();
}

std::string Range(std::uint64_t first, std::uint64_t size) {
  return "Content-Range: bytes " + std::to_string(first) + "-" + std::to_string(first + size - 1) +
         "/" + std::to_string(kTotal);
}

class OneDriveDialectTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    emulator_ = emulators::Emulator::Start(emulators::MakeOneDriveDialect(), 0, &error);
    ASSERT_TRUE(emulator_) << error;
    test::Answer created =
        test::Fetch("POST",
                    emulator_->BaseUrl() + "/v1.0/me/drive/items/" + emulator_->account().RootId() +
                        ":/up.bin:/createUploadSession",
                    "Bearer t", R"({"item":{"@microsoft.graph.conflictBehavior":"fail"}})", "",
                    "Content-Type: application/json");
    ASSERT_EQ(created.status, 200) << created.body;
    upload_url_ = Json(created.body)["uploadUrl"].toString().toStdString();
    ASSERT_FALSE(upload_url_.empty()) << created.body;
  }
  test::Answer Put(std::uint64_t first, std::uint64_t size, const std::string& token = "",
                   const std::string& range = "") {
    return test::Fetch("PUT", upload_url_, token, std::string(size, 'x'), "",
                       range.empty() ? Range(first, size) : range);
  }

  std::unique_ptr<emulators::Emulator> emulator_;
  std::string upload_url_;
};

TEST_F(OneDriveDialectTest, FragmentsAreJudgedAsGraphDocumentsThem) {
  struct Case {
    const char* what;
    std::uint64_t first, size;
    std::string token, range;
    long status;
    const char* code;  // of the error body; empty: no error
  };
  const Case cases[] = {
      {"the token on the upload URL", 0, kFragment, "Bearer t", "", 401, "unauthenticated"},
      {"not a multiple of 320 KiB", 0, 1000, "", "", 400, "invalidRequest"},
      {"no Content-Range", 0, kFragment, "", "X-None: 1", 400, "invalidRequest"},
      {"a gap", kFragment, kFragment, "", "", 416, "invalidRange"},
      {"the first fragment", 0, 2 * kFragment, "", "", 202, ""},
      {"an overlap", kFragment, kFragment, "", "", 416, "invalidRange"},
      {"the last, odd-sized", 2 * kFragment, kFragment + 5, "", "", 201, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    test::Answer answer = Put(c.first, c.size, c.token, c.range);
    EXPECT_EQ(answer.status, c.status) << answer.body;
    QJsonObject body = Json(answer.body);
    if (*c.code) {
      QJsonObject error = body["error"].toObject();
      EXPECT_EQ(error["code"].toString().toStdString(), c.code) << answer.body;
      EXPECT_FALSE(error["message"].toString().isEmpty());
      EXPECT_TRUE(error["innerError"].isObject());
    }
    if (answer.status == 202) {
      EXPECT_EQ(body["nextExpectedRanges"].toArray().first().toString(),
                QString::number(2 * kFragment) + "-");
      // The session's status says the same to whoever asks.
      QJsonObject status = Json(test::Fetch("GET", upload_url_, "").body);
      EXPECT_EQ(status["nextExpectedRanges"], body["nextExpectedRanges"]);
    }
  }
  std::optional<emulators::Item> item = emulator_->account().FindByPath("up.bin");
  ASSERT_TRUE(item);
  EXPECT_EQ(item->size, kTotal);
  // A finished session is gone.
  EXPECT_EQ(test::Fetch("GET", upload_url_, "").status, 404);
}

// A folder's description is the one free text Graph keeps on an item: set by PATCH, listed among
// the children when "$select" asks for it, with the folder's size.
TEST_F(OneDriveDialectTest, DescriptionIsKeptAndChildrenHonourSelect) {
  emulators::CloudAccount& account = emulator_->account();
  emulators::Item backups, pc, file;
  account.CreateFolder(account.RootId(), "Backups", &backups);
  account.CreateFolder(backups.id, "PC", &pc);
  account.CreateFile(pc.id, "a.bin", std::string(700, 'a'), 1'700'000'000'000, &file);
  const std::string base = emulator_->BaseUrl() + "/v1.0/me/drive/";
  test::Answer patched =
      test::Fetch("PATCH", base + "items/" + pc.id, "Bearer t", R"({"description":"{\"k\":1}"})",
                  "", "Content-Type: application/json");
  ASSERT_EQ(patched.status, 200) << patched.body;
  EXPECT_EQ(Json(patched.body)["description"].toString(), R"({"k":1})");
  test::Answer listed =
      test::Fetch("GET", base + "root:/Backups:/children?$select=name,size,description", "Bearer t",
                  "", "", "");
  ASSERT_EQ(listed.status, 200) << listed.body;
  const QJsonArray value = Json(listed.body)["value"].toArray();
  ASSERT_EQ(value.size(), 1);
  const QJsonObject folder = value[0].toObject();
  EXPECT_EQ(folder.keys(), (QStringList{"description", "name", "size"}));
  EXPECT_EQ(folder["description"].toString(), R"({"k":1})");
  EXPECT_EQ(folder["size"].toDouble(), 700.0);
}

}  // namespace
