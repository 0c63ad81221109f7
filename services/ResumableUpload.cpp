#include "services/ResumableUpload.h"

#include "core/LoggerWrapper.h"
#include "core/RadarsLogger.h"

namespace resumable_upload::detail {

void LogStored(const std::string& path, std::uint64_t offset) {
  LOG_INFO << "Stored upload session to be resumed later \"" << path << "\" (stopped at " << offset
           << ").";
}

void ReportEviction(const std::string& path, std::uint64_t offset) {
  RadarsLogger::instance().SendMetric("too_many_sessions", "1", 1);
  LOG_INFO << "Dropped upload session of \"" << path << "\" (stopped at " << offset
           << "): too many sessions.";
}

void LogEmptyHash(const std::string& path) {
  LOG_ERROR << "Empty hash, session not added for \"" << path << "\".";
}

void LogHashSet(const std::string& path, const std::string& hash) {
  LOG_INFO << "Set hash for \"" << path << "\" is " << hash << ".";
}

void LogHashChanged(const std::string& path, const std::string& expected, const std::string& got) {
  LOG_INFO << "Hash of \"" << path << "\" changed between uploads, expected " << expected
           << ", got " << got << ", upload not resumed.";
}

void LogSizeChanged(const std::string& path, std::uint64_t expected, std::uint64_t got) {
  LOG_INFO << "Size of \"" << path << "\" changed between uploads, expected " << expected
           << ", got " << got << ", upload not resumed.";
}

void LogResuming(const std::string& path, const std::string& hash, std::uint64_t offset) {
  LOG_INFO << "Resuming upload session for \"" << path << "\" (" << hash << ") from " << offset
           << ".";
}

}  // namespace resumable_upload::detail
