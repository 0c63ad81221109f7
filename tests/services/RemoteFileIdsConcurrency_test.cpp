#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "services/RemoteFileIds.h"
#include "support/IdsTreeTesting.h"

namespace {

// One writer's part of the tree: a top folder that only this writer changes, and its own model
// of what the tree must hold there.
class Writer {
 public:
  Writer(RemoteFileIds* ids, int number) : ids_(ids), prefix_("w" + std::to_string(number) + "-") {
    top_ = prefix_ + "top";
    ids_->AddFolderId(top_, prefix_ + "dir", ids_->GetRootId());
    model_[top_] = {ids_->GetRootId(), prefix_ + "dir", true};
    rng_.seed(number);
  }

  void Run(int steps) {
    for (int i = 0; i < steps; ++i) {
      Step();
    }
  }

  // The path of each item in the model must be the tree's.
  std::string Check() const {
    for (const auto& [id, entry] : model_) {
      const std::string expected = PathOf(id);
      const auto path = ids_->GetPathById(id);
      if (!path || *path != expected) {
        return id + " at " + path.value_or("<none>") + " instead of " + expected;
      }
    }
    std::size_t reachable = 0;
    ids_->VisitSubtree(top_, [&](const std::string&) { ++reachable; });
    return reachable == model_.size() ? "" : "subtree of " + top_ + " has other items";
  }

 private:
  struct Entry {
    std::string parent;
    std::string name;
    bool folder = false;
  };

  void Step() {
    const std::string id = prefix_ + std::to_string(next_++);
    const std::string name = "n" + std::to_string(next_);
    switch (rng_() % 6) {
      case 0: {
        const std::string parent = RandomFolder();
        Expect(ids_->AddFolderId(id, name, parent), id, {parent, name, true});
        break;
      }
      case 1: {
        const std::string parent = RandomFolder();
        Expect(ids_->AddFileId(id, name, parent), id, {parent, name, false});
        break;
      }
      case 2: {
        const std::string item = RandomItem();
        if (item == top_ || IsInside(RandomFolder(), item)) {
          break;
        }
        Entry& entry = model_[item];
        const bool moved = entry.folder ? ids_->MoveFolder(item, entry.name, last_folder_, name)
                                        : ids_->MoveFileW(item, entry.name, last_folder_, name);
        EXPECT_TRUE(moved);
        entry = {last_folder_, name, entry.folder};
        break;
      }
      case 3: {
        const std::string item = RandomItem();
        if (item == top_) {
          break;
        }
        const Entry entry = model_[item];
        EXPECT_TRUE(entry.folder ? ids_->RemoveFolder(entry.name, item)
                                 : ids_->RemoveFile(entry.name, item));
        std::vector<std::string> gone;
        for (const auto& known : model_) {
          if (IsInside(known.first, item)) {
            gone.push_back(known.first);
          }
        }
        for (const std::string& id : gone) {
          model_.erase(id);
        }
        break;
      }
      case 4:
        ids_->AddTrashed(RandomItem());
        break;
      default: {
        const std::string item = RandomItem();
        if (!ids_->HasMappedName(item)) {
          EXPECT_TRUE(ids_->AddMappingInfo(item, "orig", "mapped"));
        } else {
          EXPECT_TRUE(ids_->RemoveMappingInfo(item));
        }
        break;
      }
    }
  }

  void Expect(bool added, const std::string& id, const Entry& entry) {
    EXPECT_TRUE(added);
    model_[id] = entry;
  }

  const std::string& RandomFolder() {
    std::vector<const std::string*> folders;
    for (const auto& [id, entry] : model_) {
      if (entry.folder) {
        folders.push_back(&id);
      }
    }
    last_folder_ = *folders[rng_() % folders.size()];
    return last_folder_;
  }

  std::string RandomItem() {
    auto it = model_.begin();
    std::advance(it, rng_() % model_.size());
    return it->first;
  }

  // Whether `id` is `ancestor` or lies below it.
  bool IsInside(std::string id, const std::string& ancestor) const {
    while (id != ancestor) {
      auto it = model_.find(id);
      if (it == model_.end()) {
        return false;
      }
      id = it->second.parent;
    }
    return true;
  }

  std::string PathOf(const std::string& id) const {
    auto it = model_.find(id);
    if (it == model_.end()) {
      return std::string();
    }
    const std::string parent = PathOf(it->second.parent);
    return parent.empty() ? it->second.name : parent + "/" + it->second.name;
  }

  RemoteFileIds* ids_;
  std::string prefix_;
  std::string top_;
  std::string last_folder_;
  std::unordered_map<std::string, Entry> model_;
  std::mt19937 rng_;
  int next_ = 0;
};

TEST(RemoteFileIdsConcurrencyTest, WritersWalkersAndSerializersShareOneTree) {
  RemoteFileIds ids;
  ids_testing::BuildRandomTree(11, {20, 100, 5, 50, 0}, &ids);
  constexpr int kWriters = 3;
  std::vector<std::unique_ptr<Writer>> writers;
  for (int i = 0; i < kWriters; ++i) {
    writers.push_back(std::make_unique<Writer>(&ids, i));
  }
  std::atomic<int> running{kWriters};
  std::atomic<int> walk_errors{0};
  std::atomic<int> serialize_errors{0};
  std::atomic<int> walks{0};
  std::atomic<int> round_trips{0};

  std::vector<std::thread> threads;
  for (auto& writer : writers) {
    threads.emplace_back([&, w = writer.get()] {
      w->Run(5000);
      --running;
    });
  }
  // A walk holds the read lock: every path it sees leads back to its id.
  threads.emplace_back([&] {
    do {
      ids.VisitSubtree(ids.GetRootId(), [&](const std::string& id) {
        const auto path = ids.GetPathById(id);
        const bool folder = ids.IsDirectory(id);
        if (!path || (!path->empty() &&
                      (folder ? ids.GetFolderIdByPath(*path) : ids.GetFileIdByPath(*path)) != id)) {
          ++walk_errors;
        }
      });
      ++walks;
    } while (running > 0);
  });
  // A saved tree is a consistent picture: it reads back whole.
  threads.emplace_back([&] {
    do {
      std::stringstream stream;
      const unsigned count_before = ids.GetItemsCount();
      if (!ids.Serialize(nullptr, stream) || count_before == 0) {
        ++serialize_errors;
      }
      RemoteFileIds restored;
      if (!RemoteFileIds::Deserialize(nullptr, stream, &restored) ||
          !ids_testing::CheckInvariants(restored, 0).empty()) {
        ++serialize_errors;
      }
      ++round_trips;
    } while (running > 0);
  });
  for (auto& thread : threads) {
    thread.join();
  }

  EXPECT_EQ(walk_errors, 0);
  EXPECT_EQ(serialize_errors, 0);
  EXPECT_GT(walks, 0);
  EXPECT_GT(round_trips, 0);
  for (auto& writer : writers) {
    EXPECT_EQ(writer->Check(), "");
  }
  EXPECT_EQ(ids_testing::CheckInvariants(ids, 0), "");
}

TEST(RemoteFileIdsConcurrencyTest, OppositeSwapsDoNotDeadlock) {
  RemoteFileIds a;
  RemoteFileIds b;
  a.Init("a");
  b.Init("b");
  std::thread one([&] {
    for (int i = 0; i < 2000; ++i) {
      a.Swap(b);
    }
  });
  // The root may change hands between the two calls: such an add finds no parent.
  unsigned added = 0;
  std::thread two([&] {
    for (int i = 0; i < 2000; ++i) {
      b.Swap(a);
      added += b.AddFileId("f" + std::to_string(i), "f" + std::to_string(i), b.GetRootId());
    }
  });
  one.join();
  two.join();
  EXPECT_GT(added, 0u);
  EXPECT_EQ(a.GetItemsCount() + b.GetItemsCount(), 2 + added);
  EXPECT_EQ(ids_testing::CheckInvariants(a, 0), "");
  EXPECT_EQ(ids_testing::CheckInvariants(b, 0), "");
}

}  // namespace
