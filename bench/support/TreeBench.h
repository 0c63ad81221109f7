// TreeBench: one shape of a large account, seeded into an emulator's account or onto a local
// disk, and the measurement of one listing of it, per item.
//
//   bench::TreeShape shape = bench::TreeShape::Default();  // 100 000 items at scale 1
//   bench::SeedAccount(&drive.account(), shape);
//   bench::MeasureListing(state, shape, [&](FolderNode* root) {
//     return fs->GetFullTree(root, &free, &total, &service_items);
//   });
#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>

#include "core/FileSystem.h"
#include "core/Nodes.h"
#include "emulators/CloudAccount.h"

namespace bench {

// Top folders, each with sub folders of files: a photo library's shape.
struct TreeShape {
  int top_folders = 100;
  int sub_folders = 9;
  int files_per_folder = 110;

  // 100 000 items, or the share of CORVANE_BENCH_SCALE (whole top folders, at least one).
  static TreeShape Default();
  std::size_t Items() const;
};

// The shape below the account's root; files hold a few bytes each.
void SeedAccount(emulators::CloudAccount* account, const TreeShape& shape);
// The shape below `root` on the local disk, of empty files.
void SeedFolder(const std::filesystem::path& root, const TreeShape& shape);

// Every item of the shape as its path ("Top 0/Sub 1/IMG_2.jpg"), each folder before its contents.
void ForEachPath(const TreeShape& shape,
                 const std::function<void(const std::string& path, bool folder)>& visit);

// Files and folders below `root`, itself not counted.
std::size_t CountItems(const FolderNode& root);

// One listing into a fresh tree, timed; the counters are per item: wall and CPU microseconds and
// the growth of the peak resident memory in bytes. A listing that fails or misses items ends the
// benchmark with an error instead of a figure.
using ListTree = std::function<FileSystem::Result(FolderNode* root)>;
void MeasureListing(benchmark::State& state, const TreeShape& shape, const ListTree& list);

// The WebDAV adapter's walk of the shape, seeded as empty files on Apache 2.4 mod_dav_fs started
// for it, measured as MeasureListing does.
void MeasureWebDavWalkOnApache(benchmark::State& state, const TreeShape& shape);

}  // namespace bench
