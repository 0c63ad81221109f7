// corvane: drives one account through libcorvane_services from the command line, the way the
// client's core drives it. `corvane --help` tells the commands.
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "AccountTree.h"
#include "Command.h"
#include "Deadline.h"
#include "Interrupter.h"
#include "Options.h"
#include "ServiceSession.h"
#include "core/LoggerWrapper.h"
#include "core/RemoteFileSystem.h"

namespace {

// The options a command has no use for are refused rather than ignored.
std::string VetCommandLine(const corvane::Command& command, const corvane::Options& options) {
  if (options.args.size() < command.min_args || options.args.size() > command.max_args) {
    return std::string("wrong number of arguments for ") + command.name;
  }
  for (const std::string& given : options.given) {
    if (!command.options.count(given)) {
      return "--" + given + " is no option of " + command.name;
    }
  }
  return std::string();
}

int Usage(const std::string& error) {
  std::cerr << "corvane: " << error << "\n(corvane --help tells the commands)" << std::endl;
  return corvane::kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  // Before any thread: every thread inherits the blocked signals.
  corvane::Interrupter interrupter;
  std::vector<std::string> args(argv + 1, argv + argc);
  for (const std::string& arg : args) {
    if (arg == "--help" || arg == "-h" || arg == "help") {
      std::cout << corvane::UsageText();
      return 0;
    }
  }
  // 1. The command line.
  corvane::Options options;
  std::string error = corvane::ParseArguments(args, &options);
  if (!error.empty()) {
    return Usage(error);
  }
  const corvane::Command* command = corvane::FindCommand(options.command);
  if (!command) {
    return Usage("unknown command " + options.command);
  }
  error = VetCommandLine(*command, options);
  if (!error.empty()) {
    return Usage(error);
  }
  if (!options.log_file.empty() && !LoggerWrapper::SetLogFile(options.log_file)) {
    std::cerr << "corvane: cannot write the log to " << options.log_file << std::endl;
    return corvane::kExitEnvironment;
  }
  // 2. The account, for the commands that reach one.
  corvane::Context context{options, interrupter, std::cout, std::cerr};
  std::unique_ptr<corvane::ServiceSession> session;
  std::unique_ptr<corvane::AccountTree> tree;
  if (command->needs_service) {
    session = corvane::ServiceSession::Open(options, &error);
    if (!session) {
      std::cerr << "corvane: " << error << std::endl;
      return corvane::kExitEnvironment;
    }
    context.fs = &session->fs();
    tree = std::make_unique<corvane::AccountTree>(session->fs(), options.state_file, std::cerr);
    context.tree = tree.get();
    context.session = session.get();
    interrupter.Watch(context.fs);
  }
  std::unique_ptr<corvane::Deadline> deadline;
  if (options.timeout_seconds && context.fs) {
    deadline = std::make_unique<corvane::Deadline>(context.fs, *options.timeout_seconds);
    context.deadline = deadline.get();
  }
  // 3. The command.
  int status = command->run(context);
  if (tree) {
    tree->Finish(command->changes_account, status == 0);
  }
  deadline.reset();
  interrupter.Watch(nullptr);
  tree.reset();
  session.reset();
  return status;
}
