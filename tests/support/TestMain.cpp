#include <gtest/gtest.h>

#include "core/LoggerWrapper.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  // Tests read log lines through LoggerWrapper::Capture; stderr gets only grave ones.
  LoggerWrapper::SetStderrLevel(LogType::kFatal);
  return RUN_ALL_TESTS();
}
