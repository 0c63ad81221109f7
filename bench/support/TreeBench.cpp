#include "support/TreeBench.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <string>

#include "support/DavServer.h"
#include "support/Measure.h"
#include "support/WebDavTesting.h"

namespace bench {

namespace {

std::string TopName(int t) {
  return "Top " + std::to_string(t);
}
std::string SubName(int s) {
  return "Sub " + std::to_string(s);
}
std::string FileName(int f) {
  return "IMG_" + std::to_string(f) + ".jpg";
}

}  // namespace

TreeShape TreeShape::Default() {
  TreeShape shape;
  shape.top_folders = std::max(1, static_cast<int>(std::lround(shape.top_folders * Scale())));
  return shape;
}

std::size_t TreeShape::Items() const {
  return static_cast<std::size_t>(top_folders) * (1 + sub_folders * (1 + files_per_folder));
}

void SeedAccount(emulators::CloudAccount* account, const TreeShape& shape) {
  // Digests only: a listing never reads content.
  account->SetKeepContentLimit(0);
  emulators::Item top, sub;
  for (int t = 0; t < shape.top_folders; ++t) {
    account->CreateFolder(account->RootId(), TopName(t), &top);
    for (int s = 0; s < shape.sub_folders; ++s) {
      account->CreateFolder(top.id, SubName(s), &sub);
      for (int f = 0; f < shape.files_per_folder; ++f)
        account->CreateFile(sub.id, FileName(f), std::to_string(t * 1000 + f), 1700000000000,
                            nullptr);
    }
  }
}

void SeedFolder(const std::filesystem::path& root, const TreeShape& shape) {
  for (int t = 0; t < shape.top_folders; ++t) {
    for (int s = 0; s < shape.sub_folders; ++s) {
      const std::filesystem::path sub = root / TopName(t) / SubName(s);
      std::filesystem::create_directories(sub);
      for (int f = 0; f < shape.files_per_folder; ++f)
        std::ofstream(sub / FileName(f));
    }
  }
}

void ForEachPath(const TreeShape& shape,
                 const std::function<void(const std::string& path, bool folder)>& visit) {
  for (int t = 0; t < shape.top_folders; ++t) {
    const std::string top = TopName(t);
    visit(top, true);
    for (int s = 0; s < shape.sub_folders; ++s) {
      const std::string sub = top + "/" + SubName(s);
      visit(sub, true);
      for (int f = 0; f < shape.files_per_folder; ++f)
        visit(sub + "/" + FileName(f), false);
    }
  }
}

std::size_t CountItems(const FolderNode& root) {
  std::size_t count = 0;
  for (auto it = root.FilesBegin(); it != root.FilesEnd(); ++it)
    ++count;
  for (auto it = root.FoldersBegin(); it != root.FoldersEnd(); ++it)
    count += 1 + CountItems(**it);
  return count;
}

void MeasureListing(benchmark::State& state, const TreeShape& shape, const ListTree& list) {
  const double items = static_cast<double>(shape.Items());
  for (auto _ : state) {
    // 1. The listing into a fresh tree.
    FolderNode root;
    const ResourceMeter meter;
    const FileSystem::Result result = list(&root);
    const Reading reading = meter.Read();
    // 2. A listing that failed or missed items has no figure.
    const std::size_t listed = CountItems(root);
    if (result != FileSystem::SUCCEEDED || listed != shape.Items()) {
      state.SkipWithError(
          ("the tree did not come down whole: " + std::string(FileSystem::ResultName(result)) +
           ", " + std::to_string(listed) + " items")
              .c_str());
      return;
    }
    // 3. Per item.
    state.counters["items"] = items;
    state.counters["wall_us_per_item"] = reading.wall_seconds * 1e6 / items;
    state.counters["cpu_us_per_item"] = reading.cpu_seconds * 1e6 / items;
    state.counters["peak_bytes_per_item"] = reading.peak_growth_bytes / items;
  }
}

void MeasureWebDavWalkOnApache(benchmark::State& state, const TreeShape& shape) {
  test::DavServer apache(test::DavServerKind::kApache);
  if (!apache.Start()) {
    state.SkipWithError(("apache2 did not start: " + apache.Error()).c_str());
    return;
  }
  SeedFolder(apache.Root(), shape);
  std::unique_ptr<RemoteFileSystemWebDAV> fs = test::OpenWebDav(apache.BaseUrl());
  MeasureListing(state, shape, [&fs](FolderNode* root) {
    std::uint64_t free = 0, total = 0;
    return fs->GetFullTree(root, &free, &total, nullptr);
  });
}

}  // namespace bench
