// The WebDAV metainfo reader: every folder in "Backups" is a backup, named by its path below the
// server's root, updated when its "getlastmodified" says. On a real Apache, and on a scripted
// server for a stop in the middle of the walk.
#include "services/BackupMetainfoRemoteReaderWebDAV.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "core/LoggerWrapper.h"
#include "core/RemoteFileSystemFactory.h"
#include "emulators/HttpServer.h"
#include "services/RemoteFSFactoryConstructor.h"
#include "support/DavServer.h"
#include "support/Processes.h"
#include "support/WebDavTesting.h"

namespace {

using emulators::HttpRequest;
using emulators::HttpResponse;

std::unique_ptr<RemoteFileSystemFactory> Factory() {
  return std::unique_ptr<RemoteFileSystemFactory>(H6BA54F7D00(CloudServiceId::WEBDAV, ""));
}

TEST(BackupMetainfoRemoteReaderWebDAV, BackupFoldersOnApacheAreTheRecords) {
  test::DavServer server(test::DavServerKind::kApache);
  if (!server.Start()) {
    GTEST_SKIP() << "apache doesn't serve: " << server.Error();
  }
  namespace fs = std::filesystem;
  fs::create_directories(server.Root() / "Backups" / "PC 1" / "inner");
  fs::create_directories(server.Root() / "Backups" / "Ноутбук");
  test::WriteAll(server.Root() / "Backups" / "loose.txt", "not a backup");
  test::WriteAll(server.Root() / "Backups" / "PC 1" / "a.txt", "data");
  auto records = Factory()
                     ->CreateMetainfoReader(
                         std::make_shared<test::RecordingProcessorFactory>(server.BaseUrl()))
                     ->ReadAll();
  ASSERT_EQ(records.size(), 2u);
  std::sort(records.begin(), records.end(),
            [](const auto& a, const auto& b) { return a.cloud_path < b.cloud_path; });
  EXPECT_EQ(records[0].cloud_path, "Backups/PC 1");
  EXPECT_EQ(records[1].cloud_path, "Backups/Ноутбук");
  struct stat folder {};
  ASSERT_EQ(::stat((server.Root() / "Backups" / "PC 1").c_str(), &folder), 0);
  const std::int64_t seconds = folder.st_mtime;
  EXPECT_EQ(records[0].last_update_time, seconds);
}

TEST(BackupMetainfoRemoteReaderWebDAV, StopInTheWalkKeepsWhatWasFoundAndNoServerReadsNothing) {
  emulators::HttpServer server;
  const std::string listing = test::Multistatus({{"/dav/Backups/", true},
                                                 {"/dav/Backups/one/", true},
                                                 {"/dav/Backups/file", false, 3, "e"},
                                                 {"/dav/Backups/two/", true}});
  server.Handle("PROPFIND", "/dav/Backups/",
                [listing](const HttpRequest&) { return HttpResponse::Status(207, listing); });
  server.Handle("PROPFIND", "/dav/Backups/one/", [](const HttpRequest&) {
    return HttpResponse::Status(207, test::Multistatus({{"/dav/Backups/one/", true}}));
  });
  // Credentials without a server send nothing; checked first, as the stopping request below is
  // logged only once its handler is done.
  EXPECT_TRUE(Factory()
                  ->CreateMetainfoReader(std::make_shared<test::RecordingProcessorFactory>(""))
                  ->ReadAll()
                  .empty());
  EXPECT_TRUE(server.Requests().empty());

  auto reader = Factory()->CreateMetainfoReader(
      std::make_shared<test::RecordingProcessorFactory>(server.BaseUrl() + "/dav"));
  // The handler holds the reader: a Stop may still be on its way out when ReadAll returns.
  server.Handle("PROPFIND", "/dav/Backups/two/", [reader](const HttpRequest&) {
    reader->Stop();
    return HttpResponse::Status(207, test::Multistatus({{"/dav/Backups/two/", true}}));
  });
  LoggerWrapper::Capture log;
  const auto records = reader->ReadAll();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].cloud_path, "Backups/one");
  EXPECT_EQ(records[0].last_update_time, 1699956000);
  EXPECT_TRUE(log.Contains("Remote metainfo reader was stopped."));
  EXPECT_EQ(server.Requests()[1].Header("Depth"), "0");
}

}  // namespace
