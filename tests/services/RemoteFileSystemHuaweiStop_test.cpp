// Stop() from another thread while a Huawei slice is on the wire: the upload answers STOPPED at
// once, its session stays in the factory's store, and another adapter of the same factory goes
// on from where the server stands.
#include <chrono>
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "core/Cookie.h"
#include "core/CurlURLProcessorFactory.h"
#include "core/Endpoints.h"
#include "core/LoggerWrapper.h"
#include "core/Nodes.h"
#include "core/RemoteFileSystem.h"
#include "core/RemoteFileSystemFactory.h"
#include "emulators/Emulator.h"
#include "emulators/HuaweiDialect.h"
#include "services/RemoteFSFactoryConstructor.h"
#include "support/Processes.h"
#include "support/StartEmulator.h"

namespace {

using FS = FileSystem;
constexpr std::size_t kSlice = 16 * 1024;

class HuaweiStopTest : public ::testing::Test {
 protected:
  void SetUp() override {
    emulator_ = test::StartEmulator(emulators::MakeDialect("huawei"));
    ASSERT_TRUE(emulator_);
    static_cast<const emulators::HuaweiDialect&>(emulator_->dialect()).SetSliceSize(kSlice);
    emulators::Item docs;
    emulator_->account().CreateFolder(emulator_->account().RootId(), "docs", &docs);
    factory_.reset(H6BA54F7D00(CloudServiceId::HUAWEI, ""));
    http_ = std::make_shared<CurlURLProcessorFactory>(
        std::make_shared<core::cookie::CookieOAuth>("token"));
  }
  void TearDown() override {
    emulator_.reset();
    Endpoints::ResetOverrides();
  }
  std::unique_ptr<RemoteFileSystem> Make() {
    std::unique_ptr<RemoteFileSystem> fs(factory_->Create());
    EXPECT_TRUE(fs->Open(http_));
    return fs;
  }
  std::size_t Puts() const {
    std::size_t puts = 0;
    for (const auto& request : emulator_->server().Requests()) {
      puts += request.verb == "PUT";
    }
    return puts;
  }
  static FS::Result Upload(RemoteFileSystem* fs, const std::string& data,
                           std::uint64_t* resumed_at) {
    FS::Result result = fs->OpenForCreate({}, "docs/big", SomeHash(std::string("h")), data.size(),
                                          1, resumed_at, false);
    for (std::size_t at = *resumed_at; result == FS::SUCCEEDED && at < data.size(); at += 4096) {
      result = fs->WriteFile(reinterpret_cast<const std::uint8_t*>(data.data()) + at, 4096);
    }
    if (result != FS::SUCCEEDED) {
      return result;
    }
    FS::FileProperties props;
    return fs->CloseFile(&props);
  }

  std::unique_ptr<emulators::Emulator> emulator_;
  std::unique_ptr<RemoteFileSystemFactory> factory_;
  std::shared_ptr<URLProcessorFactory> http_;
};

TEST_F(HuaweiStopTest, StopDuringASliceStoresTheSessionForAnotherAdapter) {
  const std::string data = test::RandomBytes(4 * kSlice, 11);
  auto first = Make();
  FolderNode root;
  std::uint64_t free = 0, total = 0;
  ASSERT_EQ(first->GetFullTree(&root, &free, &total, nullptr), FS::SUCCEEDED);
  // 1. The second slice is taken in but its answer hangs; Stop comes while it does.
  emulator_->faults().Add(emulators::FaultRule::On("PUT").Nth(2).DelayMs(20000));
  LoggerWrapper::Capture log;
  std::uint64_t offset = 0;
  auto running = std::async(std::launch::async, [&] { return Upload(first.get(), data, &offset); });
  for (int i = 0; i < 500 && Puts() < 2; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_EQ(Puts(), 2u);
  const auto stopped_at = std::chrono::steady_clock::now();
  first->Stop();
  EXPECT_EQ(running.get(), FS::STOPPED);
  EXPECT_LT(std::chrono::steady_clock::now() - stopped_at, std::chrono::seconds(1));
  EXPECT_TRUE(log.Contains("Stored upload session to be resumed later \"docs/big\" (stopped at " +
                           std::to_string(kSlice) + ")."));
  // 2. Another adapter asks the server where it stands and sends only the rest.
  emulator_->server().ClearRequests();
  auto second = Make();
  std::uint64_t resumed_at = 0;
  ASSERT_EQ(Upload(second.get(), data, &resumed_at), FS::SUCCEEDED);
  EXPECT_EQ(resumed_at, 2 * kSlice);
  EXPECT_TRUE(log.Contains("Resuming upload session for \"docs/big\""));
  const auto requests = emulator_->server().Requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[0].Header("Content-Range"), "bytes */65536");
  EXPECT_EQ(requests[1].Header("Content-Range"), "bytes 32768-49151/65536");
  EXPECT_EQ(*emulator_->account().FindByPath("docs/big")->content, data);
}

}  // namespace
