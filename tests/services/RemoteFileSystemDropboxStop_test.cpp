// Stop from another thread during a Dropbox upload: the chunk in flight ends at once with STOPPED,
// and the session stays in the account's store for the next attempt.
#include <gtest/gtest.h>

#include <chrono>

#include "core/HashCalculators.h"
#include "emulators/Faults.h"
#include "support/DropboxTesting.h"
#include "support/HashOf.h"
#include "support/StopOnceReady.h"

namespace {

TEST(DropboxStopTest, StopDuringAChunkAnswersStoppedAndKeepsTheSession) {
  DropboxFixture fixture;
  const std::string bytes(2000, 'z');
  const SomeHash hash = test::HashOf<HashCalculatorDropbox>(bytes);
  // The finish is held far longer than the test waits, and never taken.
  fixture.emulator().faults().Add(
      emulators::FaultRule::On("", "/content/2/files/upload_session/finish")
          .Status(503)
          .DelayMs(20000));
  std::uint64_t resume = 0;
  ASSERT_EQ(fixture.adapter().OpenForCreate(FileSystem::OverwriteControl(), "held.bin", hash,
                                            bytes.size(), 0, &resume, false),
            FileSystem::SUCCEEDED);
  ASSERT_EQ(fixture.adapter().WriteFile(reinterpret_cast<const std::uint8_t*>(bytes.data()), 2000),
            FileSystem::SUCCEEDED);
  FileSystem::FileProperties props(SomeHash(), 0, bytes.size(), 1700000000, false);
  const auto closed =
      test::StopOnceReady([&fixture, &props] { return fixture.adapter().CloseFile(&props); },
                          [&fixture] { return fixture.emulator().faults().Fired() > 0; },
                          [&fixture] { fixture.adapter().Stop(); });
  EXPECT_EQ(closed.value, FileSystem::STOPPED);
  EXPECT_LT(closed.took, std::chrono::seconds(1));
  EXPECT_FALSE(fixture.account().FindByPath("held.bin"));
  // Another adapter of the factory goes on from the finish.
  auto other = fixture.MakeAdapter();
  fixture.emulator().faults().Clear();
  ASSERT_EQ(other->OpenForCreate(FileSystem::OverwriteControl(), "held.bin", hash, bytes.size(),
                                 1700000000, &resume, false),
            FileSystem::SUCCEEDED);
  EXPECT_EQ(resume, 2000u);
  EXPECT_EQ(other->CloseFile(&props), FileSystem::SUCCEEDED);
  ASSERT_TRUE(fixture.account().FindByPath("held.bin"));
  EXPECT_EQ(*fixture.account().FindByPath("held.bin")->content, bytes);
}

}  // namespace
