// The fixture of the OneDrive adapter tests: the Graph emulator with the library's endpoints
// pointed at it, adapters that share one record and open with a token, and a clock of the test's
// own for their waits.
#pragma once

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "core/Clock.h"
#include "core/Cookie.h"
#include "core/CurlURLProcessorFactory.h"
#include "core/Endpoints.h"
#include "emulators/Emulator.h"
#include "emulators/OneDriveDialect.h"
#include "services/RemoteFileSystemOneDrive.h"
#include "support/StartEmulator.h"

namespace test {

class OneDriveEmulatorTest : public testing::Test {
 protected:
  void SetUp() override { StartEmulator(emulators::OneDriveOptions()); }
  void TearDown() override { Endpoints::ResetOverrides(); }

  void StartEmulator(const emulators::OneDriveOptions& options) {
    emulator_ = test::StartEmulator(emulators::MakeOneDriveDialect(options));
    ASSERT_TRUE(emulator_);
  }
  std::unique_ptr<RemoteFileSystemOneDrive> OpenDrive(const std::string& token = "token") {
    auto drive = std::make_unique<RemoteFileSystemOneDrive>(shared_, "");
    EXPECT_TRUE(drive->Open(std::make_shared<CurlURLProcessorFactory>(
        std::make_shared<core::cookie::CookieOAuth>(token))));
    return drive;
  }
  emulators::CloudAccount& account() { return emulator_->account(); }

  utils::ManualClock clock_;
  utils::ScopedClock scoped_clock_{&clock_};
  std::unique_ptr<emulators::Emulator> emulator_;
  std::shared_ptr<RemoteFileSystemOneDriveSharedData> shared_ =
      std::make_shared<RemoteFileSystemOneDriveSharedData>();
};

}  // namespace test
