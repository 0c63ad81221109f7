// Stop() from another thread against the Google adapter on the system clock: a rate-limit pause
// and the retries of a broken listing end at once with STOPPED, and the adapter works again after
// Start(); the documents reader keeps a Stop that races the making of its client.
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "core/Clock.h"
#include "core/Cookie.h"
#include "core/CurlURLProcessorFactory.h"
#include "core/Endpoints.h"
#include "core/SpecialDocsTypeRemoteReader.h"
#include "emulators/Emulator.h"
#include "services/RemoteFileSystemFactoryGoogle.h"
#include "services/RemoteFileSystemGoogle.h"
#include "support/StartEmulator.h"

namespace {

using Clock = std::chrono::steady_clock;

class GoogleStopTest : public ::testing::Test {
 protected:
  void SetUp() override {
    emulator_ = test::StartEmulator(emulators::MakeDialect("google"));
    ASSERT_TRUE(emulator_);
    fs_.reset(static_cast<RemoteFileSystemGoogle*>(factory_.Create()));
    ASSERT_TRUE(fs_->Open(std::make_shared<CurlURLProcessorFactory>(
        std::make_shared<core::cookie::CookieOAuth>("t"))));
  }
  void TearDown() override {
    fs_.reset();
    emulator_.reset();
    Endpoints::ResetOverrides();
  }
  static emulators::FaultRule EveryListing() {
    return emulators::FaultRule::On("GET", "/drive/v3/files").Times(0);
  }
  // Runs `operation` and stops the adapter once it has been busy for 300 ms: the answer and how
  // long after the Stop it came.
  template <typename Operation>
  std::pair<FileSystem::Result, std::chrono::milliseconds> StopDuring(Operation operation) {
    auto running = std::async(std::launch::async, operation);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    auto stopped_at = Clock::now();
    fs_->Stop();
    FileSystem::Result result = running.get();
    return {result,
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - stopped_at)};
  }

  std::unique_ptr<emulators::Emulator> emulator_;
  RemoteFileSystemFactoryGoogle factory_{""};
  std::unique_ptr<RemoteFileSystemGoogle> fs_;
};

TEST_F(GoogleStopTest, StopEndsARateLimitPauseAtOnce) {
  emulator_->faults().Add(EveryListing().Status(403).Error("userRateLimitExceeded"));
  auto [result, late] = StopDuring([this] { return fs_->CheckConnection(); });
  EXPECT_EQ(result, FileSystem::STOPPED);
  EXPECT_LT(late.count(), 100);
  fs_->Start();
  emulator_->faults().Clear();
  EXPECT_EQ(fs_->CheckConnection(), FileSystem::SUCCEEDED);
}

TEST_F(GoogleStopTest, StopEndsTheRetriesOfABrokenListing) {
  emulator_->faults().Add(EveryListing().Nth(2).Reset());
  auto [result, late] = StopDuring([this] {
    FolderNode root;
    std::uint64_t free = 0;
    std::uint64_t total = 0;
    return fs_->GetFullTree(&root, &free, &total, nullptr);
  });
  EXPECT_EQ(result, FileSystem::STOPPED);
  EXPECT_LT(late.count(), 100);
}

// Makes no client on its first call, as while the network is down; on the later ones runs
// `during_create` first, as a Stop that comes while the client is being made.
class LateClientFactory : public URLProcessorFactory {
 public:
  std::shared_ptr<URLProcessor> Create() override {
    if (calls_++ == 0) {
      return nullptr;
    }
    if (during_create) {
      during_create();
    }
    return curl_.Create();
  }
  std::function<void()> during_create;

 private:
  int calls_ = 0;
  CurlURLProcessorFactory curl_{std::make_shared<core::cookie::CookieOAuth>("t")};
};

TEST_F(GoogleStopTest, ADocsReaderStoppedWhileItsClientIsMadeStaysStopped) {
  auto factory = std::make_shared<LateClientFactory>();
  std::shared_ptr<SpecialDocsTypeRemoteReader> reader =
      factory_.CreateSpecialDocsTypeRemoteReader(factory);
  ASSERT_TRUE(reader);
  EXPECT_FALSE(reader->LoadLinks());  // no client yet

  // 1. A Stop from another thread while Start makes the client wins: nothing goes out.
  factory->during_create = [&reader] { std::thread([&reader] { reader->Stop(); }).join(); };
  reader->Start();
  factory->during_create = nullptr;
  EXPECT_TRUE(reader->IsStopped());
  EXPECT_FALSE(reader->LoadLinks());
  EXPECT_TRUE(emulator_->server().Requests().empty());

  // 2. Start and Stop racing from two threads leave a reader that works once started again.
  auto stopping = std::async(std::launch::async, [&reader] {
    for (int i = 0; i < 100; ++i) {
      reader->Stop();
    }
  });
  for (int i = 0; i < 100; ++i) {
    reader->Start();
  }
  stopping.get();
  reader->Start();
  EXPECT_FALSE(reader->IsStopped());
  EXPECT_TRUE(reader->LoadLinks());
}

}  // namespace
