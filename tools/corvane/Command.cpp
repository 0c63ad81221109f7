#include "Command.h"

#include <ostream>
#include <vector>

#include "AccountTree.h"
#include "Deadline.h"
#include "ServiceSession.h"
#include "core/RemoteFileSystem.h"

namespace corvane {

const Command* FindCommand(const std::string& name) {
  static const std::vector<Command> commands = {
      {"tree", 0, 0, {}, true, RunTree},
      {"ls", 0, 1, {}, true, RunLs},
      {"get", 2, 2, {"offset", "limit"}, true, RunGet},
      {"put", 2, 2, {"overwrite", "retries"}, true, RunPut, true},
      {"export", 2, 2, {}, true, RunExport},
      {"mkdir", 1, 1, {}, true, RunMkdir, true},
      {"rm", 1, 1, {}, true, RunRm, true},
      {"rmdir", 1, 1, {}, true, RunRmdir, true},
      {"mv", 2, 2, {}, true, RunMv, true},
      {"quota", 0, 0, {}, true, RunQuota},
      {"link", 1, 1, {}, true, RunLink, true},
      {"unlink", 1, 1, {}, true, RunUnlink, true},
      {"changes", 0, 0, {"for"}, true, RunChanges},
      {"hash", 1, 1, {"type"}, false, RunHash},
      {"emulate", 1, 1, {"port", "seed"}, false, RunEmulate},
  };
  for (const Command& command : commands) {
    if (name == command.name) {
      return &command;
    }
  }
  return nullptr;
}

int Report(Context& context, FileSystem::Result result, const std::string& what,
           const std::string& detail) {
  if (result == FileSystem::SUCCEEDED) {
    return 0;
  }
  context.err << "corvane: " << TerminalText(what) << ": " << FileSystem::ResultName(result);
  std::string description = detail;
  const bool unreachable =
      result == FileSystem::FAILED && context.session && context.session->ServiceUnreachable();
  if (unreachable) {
    description = "the service cannot be reached";
  } else if (result == FileSystem::STOPPED && context.deadline && context.deadline->Expired()) {
    description = "timed out after " + std::to_string(context.deadline->Seconds()) + " s";
  } else if (description.empty() && context.fs) {
    description = context.fs->GetLastErrorDescription().toStdString();
  }
  if (!description.empty()) {
    context.err << ": " << TerminalText(description);
  }
  context.err << std::endl;
  return unreachable ? kExitEnvironment : kExitResultBase + static_cast<int>(result);
}

int Fail(Context& context, int status, const std::string& message) {
  context.err << "corvane: " << message << std::endl;
  return status;
}

bool ToCanonicalPath(std::string* path) {
  while (!path->empty() && path->front() == '/') {
    path->erase(0, 1);
  }
  while (!path->empty() && path->back() == '/') {
    path->pop_back();
  }
  return FileSystem::IsCanonicalPath(*path);
}

FileSystem::Result FindItem(Context& context, const std::string& path, Item* item) {
  return context.tree->Find(path, item);
}

}  // namespace corvane
