// For the fuzz targets: the library's log kept to fatal lines, so that a parser's complaints about
// bad input don't bury what the fuzzer itself prints, and an input read as JSON.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "core/Json.h"
#include "core/LoggerWrapper.h"

namespace fuzz {

inline void QuietLog() {
  static const bool quiet = (LoggerWrapper::SetStderrLevel(LogType::kFatal), true);
  (void)quiet;
}

// False when the input is no JSON: nothing for the target to look at.
inline bool ParseJson(const std::uint8_t* data, std::size_t size, utils::json::json_tree* tree) {
  return utils::json::Parse(std::string(reinterpret_cast<const char*>(data), size), tree);
}

}  // namespace fuzz
