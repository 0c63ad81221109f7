// tree, ls and changes: what the core does to learn an account and to follow it.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <ostream>
#include <queue>
#include <thread>

#include "AccountTree.h"
#include "Command.h"
#include "Deadline.h"
#include "Interrupter.h"
#include "ProgressBar.h"
#include "core/Nodes.h"
#include "core/RemoteFileSystem.h"

namespace corvane {
namespace {

using Clock = std::chrono::steady_clock;

// A feed that answered nothing is asked again after this pause.
constexpr auto kIdlePoll = std::chrono::seconds(1);

// Sleeps `pause`, cut short by a signal or the deadline.
void IdleWait(Context& context, Clock::duration pause, std::optional<Clock::time_point> deadline) {
  Clock::time_point until = Clock::now() + pause;
  if (deadline && *deadline < until) {
    until = *deadline;
  }
  while (Clock::now() < until && !context.interrupter.Interrupted()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

}  // namespace

int RunTree(Context& context) {
  // 1. The whole tree, the quota first, as the core asks it: it is the scale of the progress of
  // the walk.
  Clock::time_point start = Clock::now();
  std::string failed_call;
  FileSystem::Result result = context.tree->Load(&failed_call);
  if (result != FileSystem::SUCCEEDED) {
    return Report(context, result, "tree: " + failed_call);
  }
  const Snapshot& snapshot = context.tree->snapshot();
  double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  // 2. The items, straight from the tree, and the summary.
  std::size_t items = 0;
  std::size_t folders = 0;
  VisitTreeInPathOrder(snapshot.root, [&](const Item& item) {
    context.out << FormatItem(item, context.options.json) << '\n';
    ++items;
    folders += item.folder ? 1 : 0;
  });
  context.out.flush();
  char elapsed[32];
  std::snprintf(elapsed, sizeof(elapsed), "%.2f", seconds);
  context.err << "tree: " << items << " items (" << items - folders << " files, " << folders
              << " folders), "
              << FormatBytes(snapshot.root.FolderSize(FolderNode::WithServiceItems(true))) << " in "
              << elapsed << " s; free " << FormatBytes(snapshot.free) << " of "
              << FormatBytes(snapshot.total) << std::endl;
  return 0;
}

int RunLs(Context& context) {
  std::string path = context.options.args.empty() ? std::string() : context.options.args[0];
  if (!ToCanonicalPath(&path)) {
    return Fail(context, kExitUsage, "not a valid path: " + context.options.args[0]);
  }
  RemoteFileSystem::FolderListing listing;
  FileSystem::Result result = context.tree->List(path, &listing);
  if (result != FileSystem::SUCCEEDED) {
    return Report(context, result, "ls: GetFolderListing");
  }
  VisitListingInPathOrder(path, &listing, [&](const Item& item) {
    context.out << FormatItem(item, context.options.json) << '\n';
  });
  context.out.flush();
  return 0;
}

int RunChanges(Context& context) {
  RemoteFileSystem& fs = *context.fs;
  std::optional<Clock::time_point> deadline;
  if (context.options.for_seconds) {
    deadline = Clock::now() + std::chrono::seconds(*context.options.for_seconds);
  }
  // 1. A service without a feed is walked again instead: loading its tree would only delay that
  // answer.
  if (!fs.SupportsChangesListening()) {
    return Report(context, FileSystem::NOT_SUPPORTED, "changes",
                  context.options.service + " has no change feed");
  }
  // 2. The tree the changes apply to.
  std::string failed_call;
  FileSystem::Result result = context.tree->Load(&failed_call);
  if (result != FileSystem::SUCCEEDED) {
    return Report(context, result, "changes: " + failed_call);
  }
  Snapshot& snapshot = context.tree->snapshot();
  context.err << "changes: following the feed (Ctrl-C ends)" << std::endl;
  // 3. The feed loop, until the time is up or the user ends it. A feed that holds its request
  // open (a long poll) is stopped when the time is up, not only asked again afterwards.
  std::unique_ptr<Deadline> feedEnd;
  if (deadline) {
    const auto left = std::chrono::ceil<std::chrono::seconds>(*deadline - Clock::now());
    feedEnd = std::make_unique<Deadline>(
        &fs, static_cast<std::uint64_t>(std::max<std::int64_t>(left.count(), 0)));
  }
  while (!context.interrupter.Interrupted() && (!deadline || Clock::now() < *deadline)) {
    std::queue<FileSystem::Change> changes;
    result = fs.GetChanges(&changes);
    // What a stopped call brought is applied still: the feed has gone past it.
    bool idle = changes.empty();
    FileSystem::Change failed;
    const bool json = context.options.json;
    if (!ApplyChanges(
            fs, &changes, &snapshot,
            [&](const FileSystem::Change& change, bool applied) {
              context.out << FormatChange(change, json) << (applied || json ? "" : "  (skipped)")
                          << std::endl;
            },
            &failed)) {
      return Report(context, FileSystem::FAILED, "changes: ApplyRemoteChange",
                    "the feed stopped at " + failed.ToString());
    }
    if (result == FileSystem::STOPPED &&
        (context.interrupter.Interrupted() || (feedEnd && feedEnd->Expired()))) {
      break;
    }
    // A failure the next call may not meet (the network, the service's moment) is waited out;
    // one that asks for the user is reported.
    if (result == FileSystem::FAILED) {
      context.err << "changes: GetChanges failed, asking again" << std::endl;
      IdleWait(context, kIdlePoll, deadline);
      continue;
    }
    if (result != FileSystem::SUCCEEDED) {
      return Report(context, result, "changes: GetChanges");
    }
    // 4. A feed that lost its thread asks for the tree again.
    if (fs.ShouldRenewTree()) {
      context.err << "changes: the adapter asks for a new tree" << std::endl;
      snapshot.root.Clear();
      snapshot.service_items.clear();
      result = DownloadTree(fs, &snapshot);
      if (result != FileSystem::SUCCEEDED) {
        return Report(context, result, "changes: GetFullTree");
      }
    }
    if (idle) {
      IdleWait(context, kIdlePoll, deadline);
    }
  }
  return 0;
}

}  // namespace corvane
