// The Google backup metainfo against the Drive emulator: the writer keeps the description in the
// "appProperties" of the backup's folder (found in the id tree an adapter of the same factory
// loaded), the reader lists the folders below the backups' top folder, one record per cloud path.
#include "services/BackupMetainfoRemoteWriterGoogle.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/BackupMetainfoRemoteReader.h"
#include "core/Cookie.h"
#include "core/CurlURLProcessorFactory.h"
#include "core/LoggerWrapper.h"
#include "core/RemoteFileSystem.h"
#include "emulators/Emulator.h"
#include "support/GoogleDriveFixture.h"

namespace {

using emulators::Item;

class GoogleMetainfoTest : public ::testing::Test {
 protected:
  void SetUp() override {
    backups_ = Folder(account().RootId(), RemoteFileSystem::kRemoteBackupRootFolder);
    pc_ = Folder(backups_, "PC");
  }

  emulators::CloudAccount& account() { return drive_.account(); }
  std::string Folder(const std::string& parent, const std::string& name) {
    Item item;
    EXPECT_EQ(account().CreateFolder(parent, name, &item), emulators::AccountError::kNone);
    return item.id;
  }
  void LoadTree() {
    FolderNode root;
    ASSERT_EQ(drive_.GetFullTree(&root), FileSystem::SUCCEEDED);
  }
  std::string AppProperty(const std::string& id, const std::string& key) {
    const std::map<std::string, std::string> properties = account().Find(id)->properties;
    auto found = properties.find("google.app." + key);
    return found == properties.end() ? "<none>" : found->second;
  }
  // The requests after the first `from`, as "VERB path?query body".
  std::vector<std::string> RequestsSince(std::size_t from) {
    std::vector<std::string> lines;
    const auto requests = drive_.emulator->server().Requests();
    for (std::size_t i = from; i < requests.size(); ++i) {
      lines.push_back(requests[i].verb + " " + requests[i].path +
                      (requests[i].query.empty() ? "" : "?" + requests[i].query) +
                      (requests[i].body.empty() ? "" : " " + requests[i].body));
    }
    return lines;
  }
  std::size_t RequestCount() { return drive_.emulator->server().Requests().size(); }

  test::GoogleDrive drive_;
  std::shared_ptr<URLProcessorFactory> http_ =
      std::make_shared<CurlURLProcessorFactory>(std::make_shared<core::cookie::CookieOAuth>("t"));
  std::string backups_;
  std::string pc_;
};

TEST_F(GoogleMetainfoTest, CreateStoresBothPathsOnceAndUpdateOnlyTheTime) {
  LoadTree();
  auto writer = drive_.factory->CreateMetainfoWriter(http_, "C:/Users/me", "Backups/PC");
  ASSERT_NE(dynamic_cast<BackupMetainfoRemoteWriterGoogle*>(writer.get()), nullptr);
  // 1. The first Create reads the folder's properties and patches both paths.
  std::size_t before = RequestCount();
  ASSERT_EQ(writer->Create(), FileSystem::SUCCEEDED);
  const std::string get = "GET /drive/v3/files/" + pc_ + "?fields=appProperties";
  EXPECT_EQ(
      RequestsSince(before),
      (std::vector<std::string>{
          get,
          "PATCH /drive/v3/files/" + pc_ +
              R"( {"appProperties":{"cloud_path":"Backups\/PC","local_path":"C:\/Users\/me"}})"}));
  EXPECT_EQ(AppProperty(pc_, "cloud_path"), "Backups/PC");
  EXPECT_EQ(AppProperty(pc_, "local_path"), "C:/Users/me");
  // 2. The same again only reads.
  LoggerWrapper::Capture log;
  before = RequestCount();
  ASSERT_EQ(writer->Create(), FileSystem::SUCCEEDED);
  EXPECT_EQ(RequestsSince(before), (std::vector<std::string>{get}));
  EXPECT_TRUE(log.Contains(
      R"(Metadata already exists for root, local_path="C:/Users/me", remote_path="Backups/PC".)"));
  // 3. Update merges the time in, the paths kept.
  before = RequestCount();
  ASSERT_EQ(writer->Update(12345, 1700000000), FileSystem::SUCCEEDED);
  EXPECT_EQ(RequestsSince(before),
            (std::vector<std::string>{"PATCH /drive/v3/files/" + pc_ +
                                      R"( {"appProperties":{"last_update_time":"1700000000"}})"}));
  EXPECT_EQ(AppProperty(pc_, "last_update_time"), "1700000000");
  EXPECT_EQ(AppProperty(pc_, "cloud_path"), "Backups/PC");
}

TEST_F(GoogleMetainfoTest, WriterFailuresAreClearResults) {
  // Without a tree the folder can't be named.
  LoggerWrapper::Capture log;
  auto early = drive_.factory->CreateMetainfoWriter(http_, "C:/a", "Backups/PC");
  EXPECT_EQ(early->Create(), FileSystem::FAILED);
  EXPECT_TRUE(log.Contains("Shared items are not initialized."));
  LoadTree();
  EXPECT_EQ(drive_.factory->CreateMetainfoWriter(http_, "C:/a", "Backups/Nowhere")->Create(),
            FileSystem::ITEM_MISSED);
  // Drive no longer knowing the folder: the tree is behind, and the answer is in the log.
  drive_.emulator->faults().Add(
      emulators::FaultRule::On("PATCH", "/drive/v3/files/").Status(404).Error("notFound"));
  auto writer = drive_.factory->CreateMetainfoWriter(http_, "C:/a", "Backups/PC");
  EXPECT_EQ(writer->Update(1, 2), FileSystem::CONFLICT);
  EXPECT_TRUE(log.Contains("Failed to set metainfo properties: "));
  // Stopped: nothing more is sent.
  writer->Stop();
  std::size_t before = RequestCount();
  EXPECT_EQ(writer->Update(1, 2), FileSystem::STOPPED);
  EXPECT_EQ(RequestCount(), before);
  EXPECT_TRUE(log.Contains("MetainfoWriter is stopped."));
}

TEST_F(GoogleMetainfoTest, ReadAllGivesOneRecordPerCloudPath) {
  // 1. Two backups, one written by a tool that put no number in the time; a folder without a
  // description; a second top folder of the same name repeating a cloud path; a described folder
  // outside the backups.
  auto describe = [&](const std::string& id, const std::string& cloud, const std::string& local,
                      const std::string& time) {
    account().SetProperty(id, "google.app.cloud_path", cloud, nullptr);
    account().SetProperty(id, "google.app.local_path", local, nullptr);
    account().SetProperty(id, "google.app.last_update_time", time, nullptr);
  };
  describe(pc_, "Backups/PC", "C:/one", "1700000000");
  describe(Folder(backups_, "Laptop"), "Backups/Laptop", "D:/two", "yesterday");
  Folder(backups_, "plain");
  std::string twin = Folder(account().RootId(), RemoteFileSystem::kRemoteBackupRootFolder);
  describe(Folder(twin, "PC"), "Backups/PC", "C:/one", "1700000500");
  describe(Folder(account().RootId(), "elsewhere"), "elsewhere", "E:/", "1");
  drive_.dialect->SetMaxPageSize(1);
  // 2. The records.
  auto reader = drive_.factory->CreateMetainfoReader(http_);
  std::vector<BackupMetainfoRecord> records = reader->ReadAll();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].cloud_path, "Backups/Laptop");
  EXPECT_EQ(records[0].local_path, "D:/two");
  EXPECT_EQ(records[0].last_update_time, 0);
  EXPECT_EQ(records[1].cloud_path, "Backups/PC");
  EXPECT_EQ(records[1].local_path, "C:/one");
  EXPECT_EQ(records[1].last_update_time, 1700000500);
  // 3. Each listing is one Drive can run, and asks only for what is read.
  for (const auto& request : drive_.emulator->server().Requests()) {
    if (request.path != "/drive/v3/files") {
      continue;
    }
    const std::string q = emulators::QueryParam(request.query, "q");
    const std::string fields = emulators::QueryParam(request.query, "fields");
    if (q.find("name='Backups'") != std::string::npos) {
      EXPECT_EQ(fields, "nextPageToken,files(id)");
    } else {
      EXPECT_NE(q.find("' in parents and mimeType='application/vnd.google-apps.folder' and "
                       "trashed=false"),
                std::string::npos);
      EXPECT_EQ(fields, "nextPageToken,files(appProperties,size)");
    }
  }
}

TEST_F(GoogleMetainfoTest, InertOrStoppedReaderAnswersNothing) {
  account().SetProperty(pc_, "google.app.cloud_path", "Backups/PC", nullptr);
  LoadTree();
  // Without a client: nothing is asked, and nothing found.
  std::size_t inert_before = RequestCount();
  EXPECT_TRUE(drive_.factory->CreateMetainfoReader(nullptr)->ReadAll().empty());
  EXPECT_EQ(drive_.factory->CreateMetainfoWriter(nullptr, "C:/a", "Backups/PC")->Create(),
            FileSystem::FAILED);
  EXPECT_EQ(RequestCount(), inert_before);
  // Stopped, until started again.
  auto reader = drive_.factory->CreateMetainfoReader(http_);
  reader->Stop();
  LoggerWrapper::Capture log;
  const std::size_t before = RequestCount();
  EXPECT_TRUE(reader->ReadAll().empty());
  EXPECT_EQ(RequestCount(), before);
  EXPECT_TRUE(log.Contains("MetainfoReader is stopped."));
  reader->Start();
  EXPECT_EQ(reader->ReadAll().size(), 1u);
  // Drive refusing the listing: logged, and nothing found.
  drive_.emulator->faults().Add(emulators::FaultRule::On("GET", "/drive/v3/files").Status(500));
  EXPECT_TRUE(reader->ReadAll().empty());
  EXPECT_TRUE(log.Contains("Can`t get backup meta info."));
  EXPECT_TRUE(log.Contains("No backups."));
}

}  // namespace
