#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <thread>

#include "core/LoggerWrapper.h"
#include "core/RadarsLogger.h"

namespace {

TEST(LoggerWrapperTest, LineFormLevelsAndCounters) {
  LoggerWrapper::Capture capture;
  long long fails = LoggerWrapper::count_fails_;
  long long fatals = LoggerWrapper::count_fatals_;

  LOG_INFO << "plain " << 42;
  LOG_ERROR << "a failure";
  LOG_FATAL << "a grave one";
  LOG_WARNING << std::string(5000, 'x');  // longer than the stack buffer: kept whole

  std::vector<std::string> lines = capture.Lines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_TRUE(std::regex_match(lines[0], std::regex(R"(Logger_test\.cpp:\d+ T\d+ plain 42)")))
      << lines[0];
  EXPECT_EQ(lines[3].size() - lines[3].find("xxx"), 5000u);
  EXPECT_EQ(LoggerWrapper::count_fails_ - fails, 1);
  EXPECT_EQ(LoggerWrapper::count_fatals_ - fatals, 1);
  EXPECT_EQ(capture.LinesAtLevel(LogType::kFatal).size(), 1u);
  EXPECT_TRUE(capture.Contains("a grave one"));
  EXPECT_FALSE(capture.Contains("Logger_test"));  // the prefix is not part of the text
}

TEST(LoggerWrapperTest, ThreadsGetDistinctNumbersAndLinesAreWhole) {
  LoggerWrapper::Capture capture;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 200; ++i)
        LOG_INFO << "line " << i;
    });
  }
  for (auto& thread : threads)
    thread.join();
  std::set<std::string> thread_tags;
  for (const std::string& line : capture.Lines()) {
    std::smatch match;
    ASSERT_TRUE(std::regex_match(line, match, std::regex(R"(.*:\d+ (T\d+) line \d+)"))) << line;
    thread_tags.insert(match[1]);
  }
  EXPECT_EQ(capture.Lines().size(), 800u);
  EXPECT_EQ(thread_tags.size(), 4u);
}

TEST(RadarsLoggerTest, NetworkMetricOnlyForNetworkFailures) {
  RadarsLogger::Capture capture;
  RadarsLogger& radar = RadarsLogger::instance();
  for (auto result :
       {URLProcessorResult::OK, URLProcessorResult::HTTP_FAILED, URLProcessorResult::STOPPED,
        URLProcessorResult::NETWORK_FAILED, URLProcessorResult::TRANSFER_FAILED}) {
    radar.SendIfNetworkError(result, "remote_webdav", 0, "http://h/x");
  }
  radar.SendMetric("rate_limit_up", "1", 1);
  EXPECT_EQ(capture.Count("remote_webdav"), 2u);
  EXPECT_EQ(capture.Count("rate_limit_up"), 1u);
}

}  // namespace
