// The fixture of the tool's tests against one service: a temporary folder whose "seed" subfolder
// the test fills in its SetUp, and the tool's own `emulate` process serving an account seeded from
// it, stopped cleanly at the end.
#pragma once

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "support/EmulatorProcess.h"
#include "support/Processes.h"

class EmulatedToolTest : public ::testing::Test {
 protected:
  // After the seed is written.
  void StartEmulator(const std::string& service) {
    emulator_ = std::make_unique<test::EmulatorProcess>(CORVANE_TOOL_PATH, service,
                                                        temp_.path() / "seed", temp_.path());
    ASSERT_TRUE(emulator_->Ready()) << emulator_->Error();
    control_ = emulator_->Control();
  }
  void TearDown() override {
    if (emulator_) {
      EXPECT_EQ(emulator_->Stop(), 0);
    }
  }

  // A local file of the test's folder with `content`, for the tool to send.
  std::string Local(const std::string& name, const std::string& content) {
    test::WriteAll(temp_.path() / name, content);
    return (temp_.path() / name).string();
  }

  test::TempDir temp_;
  std::unique_ptr<test::EmulatorProcess> emulator_;
  std::string control_;
};
