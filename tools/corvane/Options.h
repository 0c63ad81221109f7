// Options: the command line of corvane, with the environment's defaults.
//
//   corvane [--service NAME] [--root PATH] [--url URL] [--user U] [--password P] [--token T]
//           [--endpoint NAME=URL]... [--log FILE] [--json] [--timeout SECONDS] [--state FILE]
//           COMMAND [ARGS] [command options]
//
// Options may stand before or after the command; "--" ends them. Each command accepts only the
// command options it has a use for, so that a mistyped line fails instead of doing something else.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace corvane {

struct Options {
  // The account.
  std::string service;
  std::string root;
  std::string url;
  std::string user;
  std::string password;
  std::string token;
  std::vector<std::pair<std::string, std::string>> endpoints;

  // The output.
  std::string log_file;
  bool json = false;
  std::optional<std::uint64_t> timeout_seconds;  // the command is stopped when it runs out
  std::string state_file;  // where an adapter that keeps state keeps it between runs

  // Command options; `given` names those that appeared, for the command to vet.
  std::optional<std::uint64_t> offset;
  std::optional<std::uint64_t> limit;
  bool overwrite = false;
  std::optional<std::uint64_t> retries;  // a failed put opens again, resuming what was kept
  std::optional<std::uint64_t> for_seconds;
  std::string hash_type;
  std::optional<std::uint64_t> port;
  std::string seed;
  std::set<std::string> given;

  std::string command;
  std::vector<std::string> args;
};

// Reads argv after the program's name; the environment (CORVANE_SERVICE, CORVANE_URL,
// CORVANE_USER, CORVANE_PASSWORD, CORVANE_TOKEN) fills what the line leaves out. Answers an
// empty string, or what is wrong with the line.
std::string ParseArguments(const std::vector<std::string>& argv, Options* options);

// The text of `corvane --help`.
const char* UsageText();

}  // namespace corvane
