// The OneDrive backup metainfo against the Graph emulator: the writer patches the description of
// the backup folder that an adapter of the same factory loaded into the id tree, the reader finds
// one record per backup (a level deeper too), and the inert and stop rules hold.
#include "services/BackupMetainfoRemoteWriterOneDrive.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "core/BackupMetainfoRemoteReader.h"
#include "core/Cookie.h"
#include "core/CurlURLProcessorFactory.h"
#include "core/Endpoints.h"
#include "core/LoggerWrapper.h"
#include "core/Nodes.h"
#include "core/PercentEncoding.h"
#include "core/RemoteFileSystem.h"
#include "emulators/Emulator.h"
#include "emulators/OneDriveDialect.h"
#include "services/OneDriveBackupDescription.h"
#include "services/RemoteFileSystemFactoryOneDrive.h"
#include "support/StartEmulator.h"
#include "support/StopOnceReady.h"

namespace {

using Result = FileSystem::Result;
using emulators::Item;

class OneDriveMetainfoTest : public testing::Test {
 protected:
  void SetUp() override {
    // Small pages, so that a listing of the backups runs over several.
    emulators::OneDriveOptions options;
    options.page_size = 2;
    emulator_ = test::StartEmulator(emulators::MakeOneDriveDialect(options));
    ASSERT_TRUE(emulator_);
    backups_ = Folder(account().RootId(), RemoteFileSystem::kRemoteBackupRootFolder);
  }
  void TearDown() override { Endpoints::ResetOverrides(); }

  emulators::CloudAccount& account() { return emulator_->account(); }
  std::string Folder(const std::string& parent, const std::string& name) {
    Item item;
    EXPECT_EQ(account().CreateFolder(parent, name, &item), emulators::AccountError::kNone);
    return item.id;
  }
  // An adapter of the factory loads the account, as the client does before it writes metainfo.
  void LoadTree() {
    std::unique_ptr<RemoteFileSystem> drive(factory_.Create());
    ASSERT_TRUE(drive->Open(http_));
    FolderNode root;
    std::uint64_t free = 0, total = 0;
    ASSERT_EQ(drive->GetFullTree(&root, &free, &total, nullptr), Result::SUCCEEDED);
  }
  std::unique_ptr<BackupMetainfoRemoteWriterOneDrive> Writer(const std::string& local,
                                                             const std::string& remote) {
    return std::make_unique<BackupMetainfoRemoteWriterOneDrive>(factory_.GetSharedData(), http_,
                                                                local, remote);
  }
  OneDriveBackupDescription Stored(const std::string& id) {
    OneDriveBackupDescription description;
    EXPECT_TRUE(OneDriveBackupDescription::Parse(account().Find(id)->properties["description"],
                                                 &description));
    return description;
  }

  std::unique_ptr<emulators::Emulator> emulator_;
  std::shared_ptr<URLProcessorFactory> http_ = std::make_shared<CurlURLProcessorFactory>(
      std::make_shared<core::cookie::CookieOAuth>("token"));
  RemoteFileSystemFactoryOneDrive factory_{""};
  std::string backups_;
};

TEST_F(OneDriveMetainfoTest, WriterPatchesTheFolderFoundInTheLoadedTree) {
  const std::string pc = Folder(backups_, "PC");
  LoadTree();
  // 1. The first description: read, then one PATCH of the folder's id.
  emulator_->server().ClearRequests();
  auto writer = Writer("C:\\Users\\a\\Docs", "Backups/PC");
  ASSERT_EQ(writer->Create(), Result::SUCCEEDED);
  auto requests = emulator_->server().Requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].verb, "GET");
  const std::string item = "/v1.0/me/drive/items/" + utils::PercentEncoded(pc, false);
  EXPECT_EQ(requests[0].path, item);
  EXPECT_EQ(requests[1].verb, "PATCH");
  EXPECT_EQ(requests[1].path, item);
  EXPECT_EQ(Stored(pc).localPath, "C:\\Users\\a\\Docs");
  EXPECT_EQ(Stored(pc).cloudPath, "Backups/PC");
  // 2. The same again sends no PATCH.
  emulator_->server().ClearRequests();
  LoggerWrapper::Capture log;
  ASSERT_EQ(writer->Create(), Result::SUCCEEDED);
  EXPECT_TRUE(log.Contains("Metainfo already exists for local_path=\"C:\\Users\\a\\Docs\""));
  ASSERT_EQ(emulator_->server().Requests().size(), 1u);
  // 3. A second local folder into the same backup keeps the first in the list; an update dates it.
  ASSERT_EQ(Writer("D:\\Docs", "Backups/PC")->Create(), Result::SUCCEEDED);
  ASSERT_EQ(Writer("D:\\Docs", "Backups/PC")->Update(5, 1'700'000'123), Result::SUCCEEDED);
  const OneDriveBackupDescription last = Stored(pc);
  EXPECT_EQ(last.localPath, "D:\\Docs");
  EXPECT_EQ(last.localPathList, (std::vector<std::string>{"C:\\Users\\a\\Docs", "D:\\Docs"}));
  EXPECT_EQ(last.lastUpdateTime, 1'700'000'123);
}

TEST_F(OneDriveMetainfoTest, WhatCantBeWrittenSendsNothing) {
  Folder(backups_, "PC");
  LoadTree();
  struct Case {
    const char* local;
    const char* remote;
    Result result;
    const char* line;
  };
  const Case cases[] = {
      {"", "Backups/PC", Result::FAILED, "No local path for metainfo."},
      {"C:\\Docs", "", Result::FAILED, "No remote path for metainfo."},
      {"C:\\Docs", "Backups/Unknown", Result::ITEM_MISSED, "Can`t find id of folder"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    emulator_->server().ClearRequests();
    LoggerWrapper::Capture log;
    auto writer = Writer(c.local, c.remote);
    EXPECT_EQ(writer->Create(), c.result);
    EXPECT_EQ(writer->Update(1, 1), c.result);
    EXPECT_EQ(log.Count(c.line), 2u);
    EXPECT_TRUE(emulator_->server().Requests().empty());
  }
}

TEST_F(OneDriveMetainfoTest, ReaderFindsOneRecordPerBackup) {
  // 1. Backups written by the writer, by an older layout one level deeper, and folders that
  // describe nothing of ours.
  const std::string pc = Folder(backups_, "PC");
  const std::string laptop = Folder(backups_, "Laptop");
  const std::string group = Folder(backups_, "Group");
  const std::string nested = Folder(group, "Nested");
  Folder(backups_, "bare");
  Item out;
  account().SetProperty(Folder(backups_, "foreign"), "description", "my holiday photos", &out);
  account().CreateFile(pc, "a.bin", std::string(1000, 'a'), 1'700'000'000'000, &out);
  LoadTree();
  ASSERT_EQ(Writer("C:\\Docs", "Backups/PC")->Create(), Result::SUCCEEDED);
  ASSERT_EQ(Writer("C:\\Docs", "Backups/PC")->Update(1000, 1'700'000'500), Result::SUCCEEDED);
  OneDriveBackupDescription described;
  described.localPath = "E:\\Laptop";
  described.cloudPath = "Backups/Laptop";
  account().SetProperty(laptop, "description", described.ToText(), &out);
  described.localPath = "F:\\Nested";
  account().SetProperty(nested, "description", described.ToText(), &out);
  // 2. The records, keyed by their remote paths; the reader asks for the description it needs.
  emulator_->server().ClearRequests();
  auto reader = factory_.CreateMetainfoReader(http_);
  ASSERT_NE(reader, nullptr);
  std::vector<BackupMetainfoRecord> records = reader->ReadAll();
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[0].cloud_path, "Backups/Group/Nested");
  EXPECT_EQ(records[0].local_path, "F:\\Nested");
  EXPECT_EQ(records[1].cloud_path, "Backups/Laptop");
  EXPECT_EQ(records[1].local_path, "E:\\Laptop");
  EXPECT_EQ(records[1].last_update_time, account().Find(laptop)->modified_ms / 1000);
  EXPECT_EQ(records[2].cloud_path, "Backups/PC");
  EXPECT_EQ(records[2].local_path, "C:\\Docs");
  EXPECT_EQ(records[2].size, 1000u);
  EXPECT_EQ(records[2].last_update_time, 1'700'000'500);
  // Six folders in pages of two; each page asks for the description it needs.
  std::size_t pages = 0;
  for (const auto& request : emulator_->server().Requests()) {
    if (request.path == "/v1.0/me/drive/root:/Backups:/children") {
      ++pages;
      EXPECT_NE(request.query.find("description"), std::string::npos) << request.query;
    }
  }
  EXPECT_EQ(pages, 3u);
  // The factory hands out no writer of OneDrive metainfo.
  EXPECT_EQ(factory_.CreateMetainfoWriter(http_, "C:\\Docs", "Backups/PC"), nullptr);
}

TEST_F(OneDriveMetainfoTest, InertAndStoppedObjectsAnswerAtOnce) {
  Folder(backups_, "PC");
  LoadTree();
  emulator_->server().ClearRequests();
  LoggerWrapper::Capture log;
  // 1. No client: nothing to do.
  EXPECT_TRUE(factory_.CreateMetainfoReader(nullptr)->ReadAll().empty());
  EXPECT_EQ(std::make_unique<BackupMetainfoRemoteWriterOneDrive>(factory_.GetSharedData(), nullptr,
                                                                 "C:\\Docs", "Backups/PC")
                ->Create(),
            Result::FAILED);
  // 2. Stopped: the line, and no request.
  auto reader = factory_.CreateMetainfoReader(http_);
  reader->Stop();
  EXPECT_TRUE(reader->ReadAll().empty());
  EXPECT_TRUE(log.Contains("MetainfoReader is stopped."));
  auto writer = Writer("C:\\Docs", "Backups/PC");
  writer->Stop();
  EXPECT_EQ(writer->Create(), Result::STOPPED);
  EXPECT_TRUE(log.Contains("MetainfoWriter is stopped."));
  EXPECT_TRUE(emulator_->server().Requests().empty());
  // 3. Started again, it works.
  writer->Start();
  EXPECT_EQ(writer->Create(), Result::SUCCEEDED);
}

TEST_F(OneDriveMetainfoTest, StopDuringTheWalkEndsItWithTheRecordsFound) {
  // 1. One backup at the top, and a folder whose listing is held far longer than the test waits.
  const std::string pc = Folder(backups_, "PC");
  const std::string group = Folder(backups_, "Group");
  OneDriveBackupDescription described;
  described.localPath = "C:\\Docs";
  described.cloudPath = "Backups/PC";
  Item out;
  account().SetProperty(pc, "description", described.ToText(), &out);
  emulator_->faults().Add(
      emulators::FaultRule::On(
          "GET", "/v1.0/me/drive/items/" + utils::PercentEncoded(group, false) + "/children")
          .Status(503)
          .DelayMs(20000));
  // 2. Stop once the listing is held: the walk ends at once with what it has.
  auto reader = factory_.CreateMetainfoReader(http_);
  LoggerWrapper::Capture log;
  const auto read = test::StopOnceReady([&reader] { return reader->ReadAll(); },
                                        [this] { return emulator_->faults().Fired() > 0; },
                                        [&reader] { reader->Stop(); });
  EXPECT_LT(read.took, std::chrono::seconds(1));
  EXPECT_TRUE(log.Contains("Stopped.")) << testing::PrintToString(log.Lines());
  ASSERT_EQ(read.value.size(), 1u);
  EXPECT_EQ(read.value[0].cloud_path, "Backups/PC");
}

TEST_F(OneDriveMetainfoTest, AnAccountWithoutBackupsGivesNoRecord) {
  ASSERT_EQ(account().Delete(backups_), emulators::AccountError::kNone);
  LoggerWrapper::Capture log;
  EXPECT_TRUE(factory_.CreateMetainfoReader(http_)->ReadAll().empty());
  EXPECT_TRUE(log.Contains("Last response code: 404"));
  EXPECT_TRUE(log.Contains("No backups."));
}

TEST(OneDriveBackupDescription, ReadsOnlyItsOwnWellTypedRecord) {
  struct Case {
    const char* text;
    bool parsed;
    const char* local;
  };
  const Case cases[] = {
      {R"({"corvaneBackupMetainfo_4827A6FB":{"localPath":"C:\\a","cloudPath":"Backups/a"}})", true,
       "C:\\a"},
      {R"({"corvaneBackupMetainfo_4827A6FB":{"localPathList":["C:\\a","C:\\b"]}})", true, "C:\\b"},
      {R"({"corvaneBackupMetainfo_4827A6FB":{"localPath":["x"]}})", false, ""},
      {R"({"corvaneBackupMetainfo_4827A6FB":{"localPathList":[{"a":1}]}})", false, ""},
      {R"({"corvaneBackupMetainfo_4827A6FB":{"lastUpdateTime":"yesterday"}})", false, ""},
      {R"({"corvaneBackupMetainfo_4827A6FB":"text"})", false, ""},
      {R"({"other":{}})", false, ""},
      {"my holiday photos", false, ""},
      {R"({"corvaneBackupMetainfo_4827A6FB":{"localPath":"C:\\a")", false, ""},
      {"", false, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    OneDriveBackupDescription description;
    EXPECT_EQ(OneDriveBackupDescription::Parse(c.text, &description), c.parsed);
    EXPECT_EQ(description.localPath, c.local);
  }
  // What is written reads back the same.
  OneDriveBackupDescription written;
  written.localPath = "C:\\\"quoted\" ü";
  written.cloudPath = "Backups/x";
  written.lastUpdateTime = 1'700'000'000;
  written.Remember("C:\\old");
  written.Remember("C:\\old");
  OneDriveBackupDescription read;
  ASSERT_TRUE(OneDriveBackupDescription::Parse(written.ToText(), &read));
  EXPECT_EQ(read.localPath, written.localPath);
  EXPECT_EQ(read.cloudPath, written.cloudPath);
  EXPECT_EQ(read.lastUpdateTime, written.lastUpdateTime);
  EXPECT_EQ(read.localPathList, std::vector<std::string>{"C:\\old"});
}

}  // namespace
