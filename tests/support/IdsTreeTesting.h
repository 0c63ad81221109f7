// Helpers for tests of RemoteFileIds: random trees, a comparable picture of a tree, and the
// check of the tree's invariants through its public operations.
#pragma once

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

class RemoteFileIds;

namespace ids_testing {

// One linked item as every operation of the tree sees it.
struct Item {
  std::string path;
  std::string id;
  bool folder = false;
  bool trashed = false;
  bool mapped = false;
  std::string original_name;
  std::string mapped_name;

  auto Tie() const {
    return std::tie(path, id, folder, trashed, mapped, original_name, mapped_name);
  }
  bool operator==(const Item& other) const { return Tie() == other.Tie(); }
  bool operator<(const Item& other) const { return Tie() < other.Tie(); }
};

// Every item reachable from the root, sorted.
std::vector<Item> Snapshot(const RemoteFileIds& ids);

struct RandomTreeOptions {
  int folders = 60;
  int files = 300;
  // The length of one chain of folders hanging from the root.
  int depth = 40;
  // Files put in one folder on top of the random ones.
  int wide = 200;
  int not_linked = 10;
};

// A tree from the seed: names of any byte but "\n" and "/", some of them mapped, some items
// trashed, plus not linked items. Returns how many items are not linked.
int BuildRandomTree(std::uint64_t seed, const RandomTreeOptions& options, RemoteFileIds* ids);

// Checks through the public operations that each linked item is found by its path and kind, that
// paths and names agree, and that the count covers the linked items and `not_linked` more.
// Answers the first broken rule, or an empty string.
std::string CheckInvariants(const RemoteFileIds& ids, unsigned not_linked);

}  // namespace ids_testing
