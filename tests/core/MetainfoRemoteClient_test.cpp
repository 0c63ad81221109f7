#include "core/MetainfoRemoteClient.h"

#include <gtest/gtest.h>

#include "core/BackupMetainfoRemoteReader.h"
#include "core/BackupMetainfoRemoteWriter.h"
#include "core/LoggerWrapper.h"
#include "core/URLProcessor.h"

namespace {

class NoClientFactory : public URLProcessorFactory {
 public:
  std::shared_ptr<URLProcessor> Create() override { return nullptr; }
};

class RecordReader : public BackupMetainfoRemoteReader {
 public:
  using BackupMetainfoRemoteReader::BackupMetainfoRemoteReader;
  std::vector<BackupMetainfoRecord> ReadAll() override {
    if (IsInert() || CheckStopped()) {
      return {};
    }
    return {{"C:/x", "/Backups/x", 1, 2}};
  }
  bool Inert() const { return IsInert(); }
  bool Stopped() const { return CheckStopped(); }
};

class NothingWriter : public BackupMetainfoRemoteWriter {
 public:
  using BackupMetainfoRemoteWriter::BackupMetainfoRemoteWriter;
  FileSystem::Result Create() override { return FileSystem::FATAL; }
  FileSystem::Result Update(std::uint64_t, std::int64_t) override { return FileSystem::FATAL; }
  bool Stopped() const { return CheckStopped(); }
};

TEST(MetainfoRemoteClientTest, AClientThatCantOpenLeavesTheObjectInert) {
  auto shared = std::make_shared<RemoteFileSystemSharedData>();
  for (std::shared_ptr<URLProcessorFactory> factory :
       {std::shared_ptr<URLProcessorFactory>(),
        std::shared_ptr<URLProcessorFactory>(std::make_shared<NoClientFactory>())}) {
    LoggerWrapper::Capture capture;
    RecordReader reader(shared, factory);
    EXPECT_TRUE(reader.Inert());
    EXPECT_TRUE(reader.ReadAll().empty());
    EXPECT_EQ(capture.Count("Failed to open http client."), 1u);
    EXPECT_EQ(capture.LinesAtLevel(LogType::kError).size(), 1u);
  }
  EXPECT_EQ(shared.use_count(), 1);  // the objects are gone, so are their references
}

TEST(MetainfoRemoteClientTest, StopIsLoggedWithTheKindOfObject) {
  auto shared = std::make_shared<RemoteFileSystemSharedData>();
  RecordReader reader(shared, nullptr);
  NothingWriter writer(shared, nullptr, "C:/data", "/Backups/data");
  LoggerWrapper::Capture capture;
  EXPECT_FALSE(reader.Stopped());
  EXPECT_FALSE(writer.Stopped());
  reader.Stop();
  writer.Stop();
  EXPECT_TRUE(reader.Stopped());
  EXPECT_TRUE(writer.Stopped());
  EXPECT_EQ(capture.Count("MetainfoReader is stopped."), 1u);
  EXPECT_EQ(capture.Count("MetainfoWriter is stopped."), 1u);
  reader.Start();
  EXPECT_FALSE(reader.Stopped());
  EXPECT_EQ(writer.DeleteMetainfo(), FileSystem::NOT_SUPPORTED);
  EXPECT_EQ(writer.CreateMetainfoForDisk(), FileSystem::NOT_SUPPORTED);
}

TEST(MetainfoRemoteClientTest, BackupNameIsTheLastSegment) {
  const std::pair<const char*, const char*> cases[] = {
      {"/Backups/My Photos", "My Photos"},
      {"/Backups/My Photos//", "My Photos"},
      {"name", "name"},
      {"", ""},
      {"/", ""},
  };
  for (const auto& [path, name] : cases) {
    EXPECT_EQ(BackupMetainfoRemoteReader::GetBackupNameByRemotePath(path), name) << path;
  }
}

}  // namespace
