// The Box metainfo reader on the emulator: backups are the described folders below "Backups",
// found past a page of the account's top folder, with what can't be a record left out.
#include <gtest/gtest.h>

#include <chrono>
#include <map>

#include "core/BackupMetainfoRemoteReader.h"
#include "core/LoggerWrapper.h"
#include "emulators/Faults.h"
#include "services/BoxTesting.h"
#include "support/StopOnceReady.h"

namespace {

struct Described {
  std::string folder;
  std::map<std::string, std::string> properties;
};

// `backups` names the top folder for backups (none when empty), after `crowd` other folders.
std::vector<BackupMetainfoRecord> ReadAll(test::BoxAccount& box, const std::string& backups,
                                          const std::vector<Described>& folders, int crowd = 0) {
  for (int i = 0; i < crowd; ++i)
    box.Folder("0", "other " + std::to_string(i));
  if (!backups.empty()) {
    std::string root = box.Folder("0", backups);
    box.File(root, "loose file", "x");
    for (const Described& described : folders) {
      std::string id = box.Folder(root, described.folder);
      for (const auto& [key, value] : described.properties)
        box.account().SetProperty(id, key, value, nullptr);
    }
  }
  return box.factory->CreateMetainfoReader(box.url_factory)->ReadAll();
}

TEST(BackupMetainfoRemoteReaderBox, ReadsOneRecordPerDescribedBackup) {
  const std::map<std::string, std::string> pc1 = {{"localpath", "C:\\Users\\a\\Docs"},
                                                  {"cloudpath", "Backups/PC 1"},
                                                  {"size", "123456789012"},
                                                  {"lastupdatetime", "1700000123"}};
  const std::map<std::string, std::string> pc2 = {
      {"localpath", "D:\\Photos"}, {"cloudpath", "Backups/PC 2"}, {"size", "not a number"}};
  struct Case {
    const char* name;
    std::string backups;
    int crowd;
    std::vector<Described> folders;
    std::vector<BackupMetainfoRecord> expected;
    const char* log;
  };
  const Case cases[] = {
      {"two described, one bare",
       "Backups",
       0,
       {{"PC 1", pc1}, {"PC 2", pc2}, {"bare", {}}},
       {{"C:\\Users\\a\\Docs", "Backups/PC 1", 123456789012u, 1700000123},
        {"D:\\Photos", "Backups/PC 2", 0, 0}},
       nullptr},
      {"the top folder past the first page, in another case",
       "BACKUPS",
       150,
       {{"PC 1", pc1}},
       {{"C:\\Users\\a\\Docs", "Backups/PC 1", 123456789012u, 1700000123}},
       nullptr},
      {"a description without its cloud path",
       "Backups",
       0,
       {{"PC 3", {{"localpath", "E:\\"}, {"size", "5"}}}},
       {},
       "Backup description without cloud path"},
      {"no top folder at all", "", 3, {}, {}, "No backups folder on the account."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    test::BoxAccount box;
    LoggerWrapper::Capture log;
    std::vector<BackupMetainfoRecord> records = ReadAll(box, c.backups, c.folders, c.crowd);
    ASSERT_EQ(records.size(), c.expected.size());
    for (std::size_t i = 0; i < records.size(); ++i) {
      EXPECT_EQ(records[i].local_path, c.expected[i].local_path);
      EXPECT_EQ(records[i].cloud_path, c.expected[i].cloud_path);
      EXPECT_EQ(records[i].size, c.expected[i].size);
      EXPECT_EQ(records[i].last_update_time, c.expected[i].last_update_time);
    }
    if (c.log) {
      EXPECT_TRUE(log.Contains(c.log)) << c.log;
    }
  }
}

TEST(BackupMetainfoRemoteReaderBox, StopDuringTheWalkKeepsWhatWasFound) {
  test::BoxAccount box;
  std::string root = box.Folder("0", "Backups");
  for (const char* name : {"PC 1", "PC 2", "PC 3"}) {
    std::string id = box.Folder(root, name);
    box.account().SetProperty(id, "cloudpath", std::string("Backups/") + name, nullptr);
  }
  // The second description is slow to come; Stop lands while it is on its way. It is the fourth
  // folder request: the top folder, the backups folder, the first description, then this.
  box.emulator->faults().Add(emulators::FaultRule::On("", "/2.0/folders/").Nth(4).DelayMs(400));
  auto reader = box.factory->CreateMetainfoReader(box.url_factory);
  LoggerWrapper::Capture log;
  const auto read = test::StopOnceReady([&reader] { return reader->ReadAll(); },
                                        [&box] { return box.Count("GET", "/2.0/folders/") >= 4; },
                                        [&reader] { reader->Stop(); });
  EXPECT_LT(read.took, std::chrono::seconds(1));
  ASSERT_EQ(read.value.size(), 1u);
  EXPECT_EQ(read.value[0].cloud_path, "Backups/PC 1");
  EXPECT_TRUE(log.Contains("MetainfoReader is stopped."));
  // Started again, it reads them all.
  box.emulator->faults().Clear();
  reader->Start();
  EXPECT_EQ(reader->ReadAll().size(), 3u);
}

}  // namespace
