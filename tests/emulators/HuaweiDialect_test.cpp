// The Huawei dialect as a client of Huawei Drive's reference sees it: listings paged by cursor,
// resumable sessions answering 308 with "Range", Huawei's error bodies and ranged reads; then the
// adapter meeting a session or slice answer that is not JSON, as a proxy in the way may give.
#include "emulators/HuaweiDialect.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <atomic>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "core/Cookie.h"
#include "core/CurlURLProcessorFactory.h"
#include "core/Endpoints.h"
#include "core/LoggerWrapper.h"
#include "core/Nodes.h"
#include "core/RemoteFileSystem.h"
#include "core/RemoteFileSystemFactory.h"
#include "emulators/Emulator.h"
#include "services/RemoteFSFactoryConstructor.h"
#include "support/Fetch.h"

namespace {

using emulators::HttpRequest;
using emulators::HttpResponse;

// The Huawei dialect whose answers of one kind (verb and status) can be swapped for an HTML page.
class GarblingHuawei : public emulators::HuaweiDialect {
 public:
  void Garble(const std::string& verb, int status) {
    verb_ = verb == "POST" ? 1 : verb == "PUT" ? 2 : 0;
    status_ = status;
  }
  void Install(emulators::Router& router) override {
    // The routes keep their router: the wrapper lives as long as the dialect.
    wrapper_ = std::make_unique<Wrapper>(router, this);
    HuaweiDialect::Install(*wrapper_);
  }

 private:
  class Wrapper : public emulators::Router {
   public:
    Wrapper(emulators::Router& router, GarblingHuawei* dialect)
        : router_(router), dialect_(dialect) {}
    void Handle(const std::string& verb, const std::string& path, emulators::Handler handler,
                emulators::RouteOptions options) override {
      GarblingHuawei* dialect = dialect_;
      router_.Handle(
          verb, path,
          [dialect, handler](const HttpRequest& request) {
            return dialect->Bend(request, handler(request));
          },
          options);
    }
    emulators::CloudAccount& account() override { return router_.account(); }
    std::string BaseUrl() const override { return router_.BaseUrl(); }

   private:
    emulators::Router& router_;
    GarblingHuawei* dialect_;
  };

  HttpResponse Bend(const HttpRequest& request, HttpResponse response) const {
    const int verb = request.verb == "POST" ? 1 : request.verb == "PUT" ? 2 : 0;
    if (verb == 0 || verb != verb_ || response.status != status_ ||
        request.path.rfind("/upload/", 0) != 0) {
      return response;
    }
    HttpResponse page = HttpResponse::Status(response.status, "<html>Bad Gateway</html>");
    for (const auto& header : response.headers) {
      if (header.first == "Location") {
        page.headers.push_back(header);
      }
    }
    page.headers.emplace_back("Content-Type", "text/html");
    return page;
  }

  std::unique_ptr<Wrapper> wrapper_;
  std::atomic<int> verb_{0};
  std::atomic<int> status_{0};
};

class HuaweiDialectTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto dialect = std::make_unique<GarblingHuawei>();
    dialect_ = dialect.get();
    std::string error;
    emulator_ = emulators::Emulator::Start(std::move(dialect), 0, &error);
    ASSERT_TRUE(emulator_) << error;
    account().CreateFile(account().RootId(), "digits", "0123456789", 1700000000000, &digits_);
  }
  void TearDown() override { Endpoints::ResetOverrides(); }

  emulators::CloudAccount& account() { return emulator_->account(); }
  test::Answer Call(const std::string& verb, const std::string& path, const std::string& body = "",
                    const std::string& range = "", const std::string& header = "") {
    const std::string url = path.rfind("http", 0) == 0 ? path : emulator_->BaseUrl() + path;
    return test::Fetch(verb, url, "Bearer t", body, range, header);
  }
  static QJsonObject Json(const test::Answer& answer) {
    return QJsonDocument::fromJson(QByteArray::fromStdString(answer.body)).object();
  }

  GarblingHuawei* dialect_ = nullptr;
  std::unique_ptr<emulators::Emulator> emulator_;
  emulators::Item digits_;
};

TEST_F(HuaweiDialectTest, ListingsArePagedByCursor) {
  for (int i = 0; i < 250; ++i) {
    account().CreateFile(account().RootId(), "f" + std::to_string(i), "x", 0, nullptr);
  }
  std::set<std::string> ids;
  std::vector<int> pages;
  std::string cursor;
  do {
    test::Answer page = Call("GET", "/drive/v1/files?fields=*&queryParam=recycled%3Dfalse" +
                                        (cursor.empty() ? "" : "&cursor=" + cursor));
    ASSERT_EQ(page.status, 200) << page.body;
    QJsonArray files = Json(page)["files"].toArray();
    pages.push_back(files.size());
    for (const QJsonValue& file : files) {
      ids.insert(file.toObject()["id"].toString().toStdString());
    }
    cursor = Json(page)["nextCursor"].toString().toStdString();
  } while (!cursor.empty() && pages.size() < 5);
  EXPECT_EQ(pages, (std::vector<int>{100, 100, 51}));
  EXPECT_EQ(ids.size(), 251u);
}

TEST_F(HuaweiDialectTest, SessionsAnswer308WithTheRangeTheyHold) {
  // 1. A session for a new file in the root.
  const std::string metadata =
      R"({"fileName":"s.bin","parentFolder":[")" + account().RootId() + R"("]})";
  test::Answer opened = Call("POST", "/upload/drive/v1/files?uploadType=resume&fields=*", metadata,
                             "", "X-Upload-Content-Length: 10");
  ASSERT_EQ(opened.status, 200) << opened.body;
  const std::string session = opened.Header("Location");
  ASSERT_NE(session, "");
  EXPECT_GT(Json(opened)["sliceSize"].toDouble(), 0);
  // 2. Each answer but the last is a 308 naming what the server holds.
  struct Step {
    std::string range;
    std::string body;
    long status;
    std::string held;
  } steps[] = {{"bytes 0-3/10", "0123", 308, "bytes=0-3"},
               {"bytes */10", "", 308, "bytes=0-3"},
               {"bytes 6-9/10", "6789", 308, "bytes=0-3"},
               {"bytes 4-9/10", "456789", 200, ""}};
  for (const Step& step : steps) {
    test::Answer answer = Call("PUT", session, step.body, "", "Content-Range: " + step.range);
    EXPECT_EQ(answer.status, step.status) << step.range << " " << answer.body;
    EXPECT_EQ(answer.Header("Range"), step.held) << step.range;
    if (step.status == 308) {
      EXPECT_EQ(Json(answer)["rangeList"].toArray().at(0).toObject()["end"].toInt(), 3);
    } else {
      EXPECT_EQ(Json(answer)["fileName"].toString(), "s.bin");
      EXPECT_EQ(Json(answer)["size"].toInt(), 10);
    }
  }
  EXPECT_EQ(*account().FindByPath("s.bin")->content, "0123456789");
}

TEST_F(HuaweiDialectTest, FailuresCarryHuaweisErrorBody) {
  struct Case {
    std::string path;
    std::string token;
    long status;
    std::string code;
  } cases[] = {{"/drive/v1/files/nope", "Bearer t", 404, "21004041"},
               {"/drive/v1/about", "Bearer rejected-token", 401, "21004011"},
               {"/drive/v1/files?queryParam=colour%3D'red'", "Bearer t", 400, "21004003"},
               {"/drive/v1/changes?cursor=bad", "Bearer t", 400, "21004003"}};
  for (const Case& each : cases) {
    test::Answer answer = test::Fetch("GET", emulator_->BaseUrl() + each.path, each.token);
    EXPECT_EQ(answer.status, each.status) << each.path;
    QJsonObject error = Json(answer)["error"].toObject();
    EXPECT_EQ(error["code"].toInt(), each.status) << each.path;
    EXPECT_EQ(error["errorDetail"].toArray().at(0).toObject()["errorCode"].toString().toStdString(),
              each.code)
        << each.path;
  }
}

TEST_F(HuaweiDialectTest, ContentReadsHonourRange) {
  const std::string path = "/drive/v1/files/" + digits_.id + "?form=content";
  struct Case {
    std::string range;
    long status;
    std::string body;
  } cases[] = {{"", 200, "0123456789"}, {"bytes=2-5", 206, "2345"}, {"bytes=7-", 206, "789"}};
  for (const Case& each : cases) {
    test::Answer answer = Call("GET", path, "", each.range);
    EXPECT_EQ(answer.status, each.status) << each.range;
    EXPECT_EQ(answer.body, each.body) << each.range;
  }
  test::Answer beyond = Call("GET", path, "", "bytes=50-60");
  EXPECT_EQ(beyond.status, 416);
  EXPECT_EQ(Json(beyond)["error"].toObject()["code"].toInt(), 416);
}

TEST_F(HuaweiDialectTest, TheAdapterRefusesAnswersThatAreNotJson) {
  for (const auto& [name, url] : emulator_->Endpoints()) {
    Endpoints::Override(name, url);
  }
  std::unique_ptr<RemoteFileSystemFactory> factory(H6BA54F7D00(CloudServiceId::HUAWEI, ""));
  std::unique_ptr<RemoteFileSystem> fs(factory->Create());
  ASSERT_TRUE(fs->Open(
      std::make_shared<CurlURLProcessorFactory>(std::make_shared<core::cookie::CookieOAuth>("t"))));
  dialect_->SetSliceSize(4);
  struct Case {
    std::string verb;
    int status;
    std::string line;
    bool lands;
  } cases[] = {{"POST", 200, "Failed to read JSON.", false},
               {"PUT", 308, "Failed parse response.", false},
               {"PUT", 200, "Failed to parse JSON from: <html>Bad Gateway</html>", true}};
  for (const Case& each : cases) {
    dialect_->Garble(each.verb, each.status);
    const std::string path = "page-" + std::to_string(each.status) + each.verb;
    LoggerWrapper::Capture log;
    std::uint64_t offset = 0;
    FileSystem::Result result =
        fs->OpenForCreate({}, path, SomeHash(std::string("h")), 6, 1, &offset, false);
    if (result == FileSystem::SUCCEEDED) {
      result = fs->WriteFile(reinterpret_cast<const std::uint8_t*>("abcdef"), 6);
    }
    if (result == FileSystem::SUCCEEDED) {
      FileSystem::FileProperties props;
      result = fs->CloseFile(&props);
    }
    EXPECT_EQ(result, FileSystem::FAILED) << each.verb << each.status;
    EXPECT_TRUE(log.Contains(each.line)) << each.verb << each.status;
    // The last answer comes once the server made the file: only the answer was lost.
    EXPECT_EQ(account().FindByPath(path).has_value(), each.lands) << each.verb << each.status;
  }
}

}  // namespace
