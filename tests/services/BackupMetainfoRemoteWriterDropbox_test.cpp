// The Dropbox metainfo writer and reader on the emulator: the account's template registered once,
// one property group per backup, the bodies on the wire, the search that finds them page by page,
// and what a failure or a stop leaves.
#include <gtest/gtest.h>

#include <chrono>
#include <map>

#include "core/BackupMetainfoRemoteReader.h"
#include "core/BackupMetainfoRemoteWriter.h"
#include "core/Cookie.h"
#include "core/CurlURLProcessorFactory.h"
#include "core/LoggerWrapper.h"
#include "emulators/Faults.h"
#include "services/DropboxFileProperties.h"
#include "services/RemoteFileSystemFactoryDropbox.h"
#include "support/DropboxTesting.h"
#include "support/StopOnceReady.h"

namespace {

constexpr char kApi[] = "/api/2/file_properties/";

class DropboxMetainfoTest : public ::testing::Test {
 protected:
  DropboxMetainfoTest() {
    for (const char* folder : {"Backups/PC 1", "Backups/PC 2", "Backups/PC 3"}) {
      std::string error;
      emulators::ApplyForeignChange(fixture_.account(), {"mkdir", folder, "", ""}, &error);
    }
  }

  std::shared_ptr<BackupMetainfoRemoteWriter> Writer(const std::string& local,
                                                     const std::string& remote,
                                                     RemoteFileSystemFactoryDropbox* factory) {
    return (factory ? factory : &factory_)->CreateMetainfoWriter(urls_, local, remote);
  }
  std::vector<BackupMetainfoRecord> ReadAll() {
    return factory_.CreateMetainfoReader(urls_)->ReadAll();
  }
  // The file properties calls since the last look, by name.
  std::vector<std::string> TakeCalls() {
    std::vector<std::string> calls;
    for (const emulators::HttpRequest& request : fixture_.emulator().server().Requests()) {
      if (request.path.rfind(kApi, 0) == 0)
        calls.push_back(request.path.substr(sizeof(kApi) - 1));
    }
    fixture_.emulator().server().ClearRequests();
    return calls;
  }
  std::string LastBody() {
    const auto requests = fixture_.emulator().server().Requests();
    return requests.empty() ? std::string() : requests.back().body;
  }

  DropboxFixture fixture_;
  RemoteFileSystemFactoryDropbox factory_{""};
  std::shared_ptr<URLProcessorFactory> urls_ = std::make_shared<CurlURLProcessorFactory>(
      std::make_shared<core::cookie::CookieOAuth>("token"));
};

using Calls = std::vector<std::string>;

TEST_F(DropboxMetainfoTest, TheTemplateOncePerAccountAndEachBackupDescribedOnce) {
  // 1. The first write registers the template and adds the group, byte for byte.
  ASSERT_EQ(Writer("C:\\Docs", "Backups/PC 1", nullptr)->Create(), FileSystem::SUCCEEDED);
  const auto requests = fixture_.emulator().server().Requests();
  EXPECT_EQ(TakeCalls(), (Calls{"templates/list_for_user", "templates/add_for_user",
                                "properties/search", "properties/search", "properties/add"}));
  EXPECT_EQ(requests[0].body, "");
  EXPECT_EQ(
      requests[1].body,
      R"({"name":"corvane_metadata","description":"Corvane info about uploaded info","fields":[)"
      R"({"name":"local_path","description":"Path on PC where data are loaded from","type":"string"},)"
      R"({"name":"cloud_path","description":"Path in cloud storage","type":"string"},)"
      R"({"name":"last_update_time","description":"Last update time by application","type":"string"},)"
      R"({"name":"size","description":"Size of directories","type":"string"},)"
      R"({"name":"app_name","description":"name of application using properties","type":"string"}]})");
  EXPECT_EQ(requests[2].body,
            R"({"queries":[{"query":"C:\\Docs","mode":{".tag":"field_name","field_name":)"
            R"("local_path"},"logical_operator":"or_operator"}],"template_filter":"filter_none"})");
  EXPECT_NE(requests[3].body.find(R"("query":"Backups/PC 1","mode":{".tag":"field_name",)"
                                  R"("field_name":"cloud_path"})"),
            std::string::npos);
  const std::string templateId = "ptid:1corvaneEMU";
  EXPECT_EQ(requests[4].body, R"({"path":"/Backups/PC 1","property_groups":[{"template_id":")" +
                                  templateId +
                                  R"(","fields":[{"name":"local_path","value":"C:\\Docs"},)"
                                  R"({"name":"cloud_path","value":"Backups/PC 1"},)"
                                  R"({"name":"last_update_time","value":"0"},)"
                                  R"({"name":"size","value":"0"},)"
                                  R"({"name":"app_name","value":"corvane"}]}]})");
  // 2. The same pair again: found by both searches, logged, nothing added.
  LoggerWrapper::Capture log;
  EXPECT_EQ(Writer("C:\\Docs", "Backups/PC 1", nullptr)->Create(), FileSystem::SUCCEEDED);
  EXPECT_EQ(TakeCalls(), (Calls{"properties/search", "properties/search"}));
  EXPECT_TRUE(log.Contains(
      R"(Backup for local_path="C:\Docs", remote_path="Backups/PC 1" already registered.)"));
  // 3. Another backup of the account, its path with outer slashes: the template is known, only its
  // group is added.
  EXPECT_EQ(Writer("D:\\Photos", "/Backups/PC 2/", nullptr)->Create(), FileSystem::SUCCEEDED);
  EXPECT_EQ(TakeCalls(), (Calls{"properties/search", "properties/search", "properties/add"}));
  // 4. Another installation finds the account's template and takes it as it stands.
  RemoteFileSystemFactoryDropbox other("");
  EXPECT_EQ(Writer("E:\\Music", "Backups/PC 3", &other)->Create(), FileSystem::SUCCEEDED);
  EXPECT_NE(LastBody().find(templateId), std::string::npos);
  EXPECT_EQ(TakeCalls(), (Calls{"templates/list_for_user", "properties/search", "properties/search",
                                "properties/add"}));
  // 5. The first backup's local folder moved: its folder's one group of the template is replaced.
  EXPECT_EQ(Writer("C:\\Moved", "Backups/PC 1", nullptr)->Create(), FileSystem::SUCCEEDED);
  EXPECT_EQ(TakeCalls(), (Calls{"properties/search", "properties/search", "properties/add",
                                "properties/overwrite"}));
  EXPECT_TRUE(log.Contains("Backup metainfo of \"Backups/PC 1\" describes other paths"));
  std::map<std::string, std::string> locals;
  for (const BackupMetainfoRecord& record : ReadAll())
    locals[record.cloud_path] = record.local_path;
  EXPECT_EQ(locals, (std::map<std::string, std::string>{{"Backups/PC 1", "C:\\Moved"},
                                                        {"/Backups/PC 2/", "D:\\Photos"},
                                                        {"Backups/PC 3", "E:\\Music"}}));
}

TEST_F(DropboxMetainfoTest, UpdateReplacesSizeAndTimeAndTheReaderFindsEveryBackup) {
  struct Backup {
    const char* local;
    const char* remote;
    std::uint64_t size;
    std::int64_t time;
  };
  const Backup backups[] = {{"C:\\Docs", "Backups/PC 1", 123456789012u, 1700000123},
                            {"D:\\\xD0\x9F\xD0\xB0", "Backups/PC 2", 0, 0},
                            {"E:\\", "Backups/PC 3", 7, 1}};
  std::string update;
  for (const Backup& backup : backups) {
    auto writer = Writer(backup.local, backup.remote, nullptr);
    ASSERT_EQ(writer->Create(), FileSystem::SUCCEEDED);
    if (backup.size != 0) {
      TakeCalls();
      ASSERT_EQ(writer->Update(backup.size, backup.time), FileSystem::SUCCEEDED);
      update = LastBody();
      EXPECT_EQ(TakeCalls(), Calls{"properties/update"});
    }
  }
  EXPECT_EQ(
      update,
      R"({"path":"/Backups/PC 3","update_property_groups":[{"template_id":"ptid:1corvaneEMU",)"
      R"("add_or_update_fields":[{"name":"last_update_time","value":"1"},)"
      R"({"name":"size","value":"7"}]}]})");
  // Read whole, and read a match per page.
  for (std::size_t page : {1000u, 1u}) {
    fixture_.dialect().SetSearchPageSize(page);
    TakeCalls();
    std::vector<BackupMetainfoRecord> records = ReadAll();
    ASSERT_EQ(records.size(), 3u) << page;
    for (std::size_t i = 0; i < 3; ++i) {
      EXPECT_EQ(records[i].local_path, backups[i].local) << page;
      EXPECT_EQ(records[i].cloud_path, backups[i].remote) << page;
      EXPECT_EQ(records[i].size, backups[i].size) << page;
      EXPECT_EQ(records[i].last_update_time, backups[i].time) << page;
    }
    EXPECT_EQ(TakeCalls().size(), page == 1 ? 3u : 1u);
  }
}

TEST_F(DropboxMetainfoTest, FailuresAnswerTheirResultWithTheirLine) {
  struct Case {
    const char* name;
    const char* fault_path;  // below the file properties
    int status;
    const char* drop_field;
    const char* remote;
    bool update;
    FileSystem::Result result;
    const char* log;
  };
  const Case cases[] = {
      {"the template list fails", "templates/list_for_user", 500, "", "Backups/PC 1", false,
       FileSystem::FAILED, "Can`t register corvane metadata."},
      {"no id for the new template", "templates/add_for_user", 0, "template_id", "Backups/PC 1",
       false, FileSystem::FAILED, "Empty template id for metadata properties from response."},
      {"the search fails", "properties/search", 429, "", "Backups/PC 1", false, FileSystem::FAILED,
       "Can`t get backups."},
      {"no such folder", "", 0, "", "Backups/gone", false, FileSystem::CONFLICT, "path/not_found"},
      {"an update before any group", "", 0, "", "Backups/PC 1", true, FileSystem::CONFLICT,
       "property_group_lookup/property_group_not_found"},
      {"a token that is no more", "properties/add", 401, "", "Backups/PC 1", false,
       FileSystem::AUTH_INVALID, "Dropbox RPC returned authorization error."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RemoteFileSystemFactoryDropbox factory("");
    if (*c.fault_path) {
      fixture_.emulator().faults().Add(
          emulators::FaultRule::On("", std::string(kApi) + c.fault_path)
              .Status(c.status)
              .DropField(c.drop_field));
    }
    LoggerWrapper::Capture log;
    auto writer = Writer("C:\\Docs", c.remote, &factory);
    EXPECT_EQ(c.update ? writer->Update(1, 2) : writer->Create(), c.result);
    EXPECT_TRUE(log.Contains(c.log)) << c.log;
    fixture_.emulator().faults().Clear();
  }
  EXPECT_TRUE(ReadAll().empty());
}

TEST_F(DropboxMetainfoTest, TheReaderLeavesOutGoneFoldersAndReadsBadNumbersAsZero) {
  for (const char* remote : {"Backups/PC 1", "Backups/PC 2", "Backups/PC 3"})
    ASSERT_EQ(Writer("C:\\Docs", remote, nullptr)->Create(), FileSystem::SUCCEEDED);
  // The second backup's folder went; someone wrote text where the third one's numbers go.
  std::string error;
  ASSERT_TRUE(emulators::ApplyForeignChange(fixture_.account(), {"delete", "Backups/PC 2", "", ""},
                                            &error));
  auto client = urls_->Create();
  ASSERT_TRUE(client->Open(nullptr));
  utils::json::json_tree answer;
  ASSERT_EQ(dropbox::CallFileProperties(
                client, "properties/update",
                R"({"path":"/Backups/PC 3","update_property_groups":[{"template_id":)"
                R"("ptid:1corvaneEMU","add_or_update_fields":[{"name":"size","value":"lots"},)"
                R"({"name":"last_update_time","value":"-5"}]}]})",
                &answer),
            FileSystem::SUCCEEDED);
  LoggerWrapper::Capture log;
  std::vector<BackupMetainfoRecord> records = ReadAll();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].cloud_path, "Backups/PC 1");
  EXPECT_EQ(records[1].cloud_path, "Backups/PC 3");
  EXPECT_EQ(records[1].local_path, "C:\\Docs");
  EXPECT_EQ(records[1].size, 0u);
  EXPECT_EQ(records[1].last_update_time, 0);
  EXPECT_TRUE(log.Contains("Not a number in size of \"/Backups/PC 3\": lots"));
  EXPECT_TRUE(log.Contains("Not a number in last_update_time of \"/Backups/PC 3\": -5"));
}

TEST_F(DropboxMetainfoTest, AnInertClientAndAStopAnswerAtOnce) {
  // A client that can't open: nothing is sent.
  EXPECT_TRUE(factory_.CreateMetainfoReader(nullptr)->ReadAll().empty());
  EXPECT_EQ(factory_.CreateMetainfoWriter(nullptr, "C:\\", "Backups/PC 1")->Create(),
            FileSystem::FAILED);
  EXPECT_TRUE(TakeCalls().empty());
  // A stopped writer sends nothing either.
  LoggerWrapper::Capture log;
  auto writer = Writer("C:\\Docs", "Backups/PC 1", nullptr);
  writer->Stop();
  EXPECT_EQ(writer->Create(), FileSystem::STOPPED);
  EXPECT_TRUE(log.Contains("MetainfoWriter is stopped."));
  EXPECT_TRUE(TakeCalls().empty());
}

TEST_F(DropboxMetainfoTest, StopDuringReadAllKeepsWhatWasFound) {
  for (const char* remote : {"Backups/PC 1", "Backups/PC 2", "Backups/PC 3"})
    ASSERT_EQ(Writer("C:\\Docs", remote, nullptr)->Create(), FileSystem::SUCCEEDED);
  fixture_.dialect().SetSearchPageSize(1);
  // The second page is slow to come; Stop lands while it is on its way.
  fixture_.emulator().faults().Add(
      emulators::FaultRule::On("", std::string(kApi) + "properties/search/continue").DelayMs(1500));
  auto reader = factory_.CreateMetainfoReader(urls_);
  LoggerWrapper::Capture log;
  const auto read = test::StopOnceReady([&reader] { return reader->ReadAll(); },
                                        [this] { return fixture_.emulator().faults().Fired() > 0; },
                                        [&reader] { reader->Stop(); });
  EXPECT_LT(read.took, std::chrono::seconds(1));
  ASSERT_EQ(read.value.size(), 1u);
  EXPECT_EQ(read.value[0].cloud_path, "Backups/PC 1");
  // Started again, it reads them all.
  fixture_.emulator().faults().Clear();
  reader->Start();
  EXPECT_EQ(reader->ReadAll().size(), 3u);
}

}  // namespace
