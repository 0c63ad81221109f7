// Command: what every command of corvane is given, and how it reports.
//
// A command answers the program's exit status: 0 on SUCCEEDED, 10 plus the Result value of the
// failed operation (its name and the adapter's description printed on stderr), kExitUsage for a
// wrong command line and kExitEnvironment for what fails outside the library (a local file, the
// library itself).
#pragma once

#include <iosfwd>
#include <set>
#include <string>

#include "Options.h"
#include "Output.h"
#include "core/FileSystem.h"

class RemoteFileSystem;

namespace corvane {

class AccountTree;
class Deadline;
class Interrupter;
class ServiceSession;

constexpr int kExitUsage = 2;
constexpr int kExitEnvironment = 3;
constexpr int kExitResultBase = 10;

struct Context {
  const Options& options;
  Interrupter& interrupter;
  std::ostream& out;
  std::ostream& err;
  RemoteFileSystem* fs = nullptr;  // set for the commands that reach a service
  AccountTree* tree = nullptr;     // likewise: where items are found
  const ServiceSession* session = nullptr;
  const Deadline* deadline = nullptr;  // set when --timeout was given
};

using CommandFunction = int (*)(Context& context);

struct Command {
  const char* name;
  std::size_t min_args;
  std::size_t max_args;
  std::set<std::string> options;  // the command options it accepts
  bool needs_service;
  CommandFunction run;
  bool changes_account = false;  // the tree a state file holds would no longer be true
};

// Null for a name that is no command.
const Command* FindCommand(const std::string& name);

// 0 for SUCCEEDED. Otherwise prints "corvane: WHAT: RESULT" with `detail` or else the adapter's
// last error description, and answers 10 plus the result; kExitEnvironment for a FAILED that
// came of a service out of reach.
int Report(Context& context, FileSystem::Result result, const std::string& what,
           const std::string& detail = std::string());
// Prints "corvane: MESSAGE" and answers `status`.
int Fail(Context& context, int status, const std::string& message);

// The path as the adapters take it: no leading or trailing "/". False for ".." and the like.
bool ToCanonicalPath(std::string* path);

// Finds `path` as the core knows an item from its tree. ITEM_MISSED when its folder holds no such
// name.
FileSystem::Result FindItem(Context& context, const std::string& path, Item* item);

// The commands, grouped by what they touch.
int RunTree(Context& context);
int RunLs(Context& context);
int RunChanges(Context& context);
int RunGet(Context& context);
int RunPut(Context& context);
int RunExport(Context& context);
int RunMkdir(Context& context);
int RunRm(Context& context);
int RunRmdir(Context& context);
int RunMv(Context& context);
int RunQuota(Context& context);
int RunLink(Context& context);
int RunUnlink(Context& context);
int RunHash(Context& context);
int RunEmulate(Context& context);

}  // namespace corvane
