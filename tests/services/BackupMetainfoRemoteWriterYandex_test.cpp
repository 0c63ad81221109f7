// The Yandex metainfo writer and reader on the Yandex emulator, whose WebDAV host keeps dead
// properties, and on a scripted server for the answers the emulator doesn't give.
#include "services/BackupMetainfoRemoteWriterYandex.h"

#include <gtest/gtest.h>

#include "core/BackupMetainfoRemoteReader.h"
#include "core/Cookie.h"
#include "core/CurlURLProcessorFactory.h"
#include "core/Endpoints.h"
#include "core/LoggerWrapper.h"
#include "core/RemoteFileSystemFactory.h"
#include "emulators/Emulator.h"
#include "emulators/HttpServer.h"
#include "emulators/YandexDialect.h"
#include "services/RemoteFSFactoryConstructor.h"
#include "support/StartEmulator.h"
#include "support/YandexTesting.h"

namespace {

using emulators::AccountError;
using emulators::HttpRequest;
using emulators::HttpResponse;

class NoProcessorFactory : public URLProcessorFactory {
 public:
  std::shared_ptr<URLProcessor> Create() override { return nullptr; }
};

class YandexMetainfoTest : public testing::Test {
 protected:
  void TearDown() override { Endpoints::ResetOverrides(); }
  std::shared_ptr<URLProcessorFactory> Http() const {
    return std::make_shared<CurlURLProcessorFactory>(std::make_shared<core::cookie::CookieOAuth>(
        "token", core::cookie::CookieOAuth::kYandexScheme));
  }
  std::unique_ptr<RemoteFileSystemFactory> factory_{H6BA54F7D00(CloudServiceId::YANDEX, "")};
};

TEST_F(YandexMetainfoTest, WrittenDescriptionsAreReadBackOnePerBackup) {
  // 1. Two backup folders on the disk, and a folder that is no backup.
  auto emulator = test::StartEmulator(emulators::MakeYandexDialect());
  ASSERT_TRUE(emulator);
  emulators::CloudAccount& account = emulator->account();
  emulators::Item backups;
  emulators::Item made;
  ASSERT_EQ(account.CreateFolder(account.RootId(), "Backups", &backups), AccountError::kNone);
  for (const char* name : {"PC 1", "PC & <2>", "plain"}) {
    ASSERT_EQ(account.CreateFolder(backups.id, name, &made), AccountError::kNone);
  }

  // 2. Create and update, and a second create that finds its description.
  const std::string local = "C:\\Users\\me\\A & <B>";
  auto first = factory_->CreateMetainfoWriter(Http(), local, "Backups/PC & <2>");
  ASSERT_EQ(first->Create(), FileSystem::SUCCEEDED);
  ASSERT_EQ(first->Update(123456789012u, 1700000123), FileSystem::SUCCEEDED);
  LoggerWrapper::Capture log;
  ASSERT_EQ(first->Create(), FileSystem::SUCCEEDED);
  EXPECT_TRUE(log.Contains("Metainfo already exists"));
  auto second = factory_->CreateMetainfoWriter(Http(), "D:\\Docs", "Backups/PC 1");
  ASSERT_EQ(second->Create(), FileSystem::SUCCEEDED);
  const auto patches = [&] {
    std::size_t count = 0;
    for (const HttpRequest& request : emulator->server().Requests()) {
      count += request.verb == "PROPPATCH";
    }
    return count;
  };
  EXPECT_EQ(patches(), 3u);

  // 3. The reader finds both.
  auto records = factory_->CreateMetainfoReader(Http())->ReadAll();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].cloud_path, "Backups/PC & <2>");
  EXPECT_EQ(records[0].local_path, local);
  EXPECT_EQ(records[0].size, 123456789012u);
  EXPECT_EQ(records[0].last_update_time, 1700000123);
  EXPECT_EQ(records[1].cloud_path, "Backups/PC 1");
  EXPECT_EQ(records[1].local_path, "D:\\Docs");
  EXPECT_EQ(records[1].size, 0u);

  // 4. A described folder renamed on the disk keeps its description under its new path.
  std::optional<emulators::Item> pc1 = account.FindByPath("Backups/PC 1");
  ASSERT_TRUE(pc1);
  ASSERT_EQ(account.Rename(pc1->id, "PC 1 (old)", &made), AccountError::kNone);
  LoggerWrapper::Capture renamed;
  records = factory_->CreateMetainfoReader(Http())->ReadAll();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[1].cloud_path, "Backups/PC 1 (old)");
  EXPECT_EQ(records[1].local_path, "D:\\Docs");
  EXPECT_EQ(records[0].cloud_path, "Backups/PC & <2>");
  EXPECT_TRUE(
      renamed.Contains("Backup folder moved since it was described: Backups/PC 1 -> "
                       "Backups/PC 1 (old)"));

  // 5. A folder that isn't there.
  LoggerWrapper::Capture missing;
  EXPECT_EQ(factory_->CreateMetainfoWriter(Http(), "x", "Backups/gone")->Create(),
            FileSystem::CONFLICT);
  EXPECT_TRUE(missing.Contains("Get metainfo request error, code = 404"));
}

TEST_F(YandexMetainfoTest, AnswersThatAreNotWholeLeaveWhatCanBeRead) {
  emulators::HttpServer server;
  test::PointYandexAt(server.BaseUrl());
  const std::string response =
      "<d:response><d:href>/disk/Backups/%1/</d:href>"
      "<d:propstat><d:status>HTTP/1.1 404 Not Found</d:status><d:prop><u:size/></d:prop>"
      "</d:propstat><d:propstat><d:status>HTTP/1.1 200 OK</d:status><d:prop>"
      "<u:cloud_path>Backups/%1</u:cloud_path><u:local_path>L%1</u:local_path>"
      "<u:last_update_time>%2</u:last_update_time><u:size>%3</u:size></d:prop></d:propstat>"
      "</d:response>";
  auto fill = [&response](const std::string& name, const std::string& time,
                          const std::string& size) {
    std::string text = response;
    for (const auto& [mark, value] :
         {std::pair<std::string, std::string>{"%1", name}, {"%2", time}, {"%3", size}}) {
      for (std::size_t at; (at = text.find(mark)) != std::string::npos;) {
        text.replace(at, mark.size(), value);
      }
    }
    return text;
  };
  const std::string head =
      "<?xml version=\"1.0\"?><d:multistatus xmlns:d=\"DAV:\" xmlns:u=\"backups_metainfo\">"
      "<d:response><d:href>/disk/Backups/</d:href><d:propstat><d:status>HTTP/1.1 404 Not "
      "Found</d:status><d:prop><u:cloud_path/></d:prop></d:propstat></d:response>";
  struct Case {
    const char* name;
    std::string body;
    std::size_t records;
    const char* log;
  };
  const Case cases[] = {
      {"good and odd", head + fill("a", "17", "5") + fill("b", "x", "many") + "</d:multistatus>", 2,
       "Invalid size in backup metainfo: many"},
      {"malformed", head + fill("a", "17", "5"), 0, "Failed to parse the answer of "},
  };
  for (const Case& c : cases) {
    server.Handle("PROPFIND", "/disk/Backups/",
                  [&c](const HttpRequest&) { return HttpResponse::Status(207, c.body); });
    LoggerWrapper::Capture log;
    auto records = factory_->CreateMetainfoReader(Http())->ReadAll();
    ASSERT_EQ(records.size(), c.records) << c.name;
    EXPECT_TRUE(log.Contains(c.log)) << c.name;
    if (c.records == 2) {
      EXPECT_EQ(records[0].local_path, "La");
      EXPECT_EQ(records[0].size, 5u);
      EXPECT_EQ(records[0].last_update_time, 17);
      EXPECT_EQ(records[1].size, 0u);
      EXPECT_EQ(records[1].last_update_time, 0);
    }
  }
  EXPECT_EQ(server.Requests().back().Header("Depth"), "1");

  // A client that can't be opened reads nothing and writes nothing.
  const std::size_t before = server.Requests().size();
  auto none = std::make_shared<NoProcessorFactory>();
  EXPECT_TRUE(factory_->CreateMetainfoReader(none)->ReadAll().empty());
  EXPECT_EQ(factory_->CreateMetainfoWriter(none, "a", "b")->Create(), FileSystem::FAILED);
  EXPECT_EQ(server.Requests().size(), before);

  // A stopped reader neither.
  auto reader = factory_->CreateMetainfoReader(Http());
  reader->Stop();
  EXPECT_TRUE(reader->ReadAll().empty());
  EXPECT_EQ(server.Requests().size(), before);

  // Stopped while the folders' names are asked: the descriptions already read stand. The answer
  // and the reader are the handler's own: the reader returns at once, and this test's locals go.
  // Last, as the stopping request is logged only once its handler is done.
  auto stopped = factory_->CreateMetainfoReader(Http());
  const std::string one = head + fill("a", "17", "5") + "</d:multistatus>";
  server.Handle("PROPFIND", "/disk/Backups/", [stopped, one](const HttpRequest& request) {
    if (request.body.find("displayname") != std::string::npos) {
      stopped->Stop();
    }
    return HttpResponse::Status(207, one);
  });
  LoggerWrapper::Capture stopLog;
  const auto kept = stopped->ReadAll();
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_EQ(kept[0].cloud_path, "Backups/a");
  EXPECT_TRUE(stopLog.Contains("Remote metainfo reader was stopped."));
}

}  // namespace
