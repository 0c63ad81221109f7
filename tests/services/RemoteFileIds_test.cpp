#include "services/RemoteFileIds.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "core/LoggerWrapper.h"
#include "support/IdsTreeTesting.h"

namespace {

// root
// ├── Docs (d1)          ├── Docs (file f0, same name as the folder)
// │   ├── a.txt (f1)
// │   └── Sub (d2)
// │       └── b.txt (f2)
// └── Music (d3)
class RemoteFileIdsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ids_.Init("root-id");
    ASSERT_TRUE(ids_.AddFolderId("d1", "Docs", "root-id"));
    ASSERT_TRUE(ids_.AddFileId("f0", "Docs", "root-id"));
    ASSERT_TRUE(ids_.AddFileId("f1", "a.txt", "d1"));
    ASSERT_TRUE(ids_.AddFolderId("d2", "Sub", "d1"));
    ASSERT_TRUE(ids_.AddFileId("f2", "b.txt", "d2"));
    ASSERT_TRUE(ids_.AddFolderId("d3", "Music", "root-id"));
  }

  std::string Invariants(unsigned not_linked = 0) const {
    return ids_testing::CheckInvariants(ids_, not_linked);
  }

  RemoteFileIds ids_;
};

TEST_F(RemoteFileIdsTest, FindsItemsByPathAndPathsById) {
  EXPECT_EQ(ids_.GetFolderIdByPath(""), "root-id");
  EXPECT_EQ(ids_.GetFileIdByPath(""), "");
  EXPECT_EQ(ids_.GetFolderIdByPath("Docs"), "d1");
  EXPECT_EQ(ids_.GetFileIdByPath("Docs"), "f0");
  EXPECT_EQ(ids_.GetFileIdByPath("Docs/Sub/b.txt"), "f2");
  EXPECT_EQ(ids_.GetFolderIdByPath("Docs/Sub/b.txt"), "");
  EXPECT_EQ(ids_.GetFileIdByPath("Docs/Sub"), "");
  EXPECT_EQ(ids_.GetFileIdByPath("Docs/Missing/b.txt"), "");
  EXPECT_EQ(ids_.GetFileIdByPath("Docs/Sub/b.txt/"), "");
  EXPECT_EQ(ids_.GetPathById("f2"), "Docs/Sub/b.txt");
  EXPECT_EQ(ids_.GetPathById("f0"), "Docs");
  EXPECT_EQ(ids_.GetPathById("root-id"), "");
  EXPECT_EQ(ids_.GetPathById("nope"), std::nullopt);
  EXPECT_EQ(ids_.GetNameById("d2"), "Sub");
  EXPECT_EQ(ids_.GetParentId("f2"), "d2");
  EXPECT_TRUE(ids_.IsDirectory("d2"));
  EXPECT_FALSE(ids_.IsDirectory("f2"));
  EXPECT_TRUE(ids_.ParentHasFile("root-id", "Docs"));
  EXPECT_TRUE(ids_.ParentHasFolder("root-id", "Docs"));
  EXPECT_FALSE(ids_.ParentHasFolder("d1", "a.txt"));
  EXPECT_EQ(ids_.GetItemsCount(), 7u);
  EXPECT_EQ(Invariants(), "");
}

TEST(RemoteFileIdsLifeTest, UninitialisedTreeAnswersEmpty) {
  RemoteFileIds ids;
  EXPECT_FALSE(ids.IsInit());
  EXPECT_EQ(ids.GetRootId(), "");
  EXPECT_EQ(ids.GetFolderIdByPath(""), "");
  EXPECT_EQ(ids.GetFileIdByPath("a"), "");
  EXPECT_EQ(ids.GetItemsCount(), 0u);
}

TEST_F(RemoteFileIdsTest, InitClearsEverything) {
  ids_.AddTrashed("f1");
  ids_.AddMappingInfo("f1", "a:txt", "a.txt");
  ids_.Init("other-root");
  EXPECT_EQ(ids_.GetItemsCount(), 1u);
  EXPECT_FALSE(ids_.HasFile("f1"));
  EXPECT_FALSE(ids_.IsTrashed("f1"));
  EXPECT_FALSE(ids_.HasMappedName("f1"));
  EXPECT_EQ(ids_.GetFolderIdByPath(""), "other-root");
}

TEST_F(RemoteFileIdsTest, AddingAnItemTakesItOutOfTheTrash) {
  ids_.AddTrashed("f9");
  ids_.AddTrashed("d9");
  ASSERT_TRUE(ids_.AddFileId("f9", "restored", "d3"));
  ASSERT_TRUE(ids_.AddFolderId("d9", "restored", "d3"));
  EXPECT_FALSE(ids_.IsTrashed("f9"));
  EXPECT_FALSE(ids_.IsTrashed("d9"));
}

TEST_F(RemoteFileIdsTest, AddingAKnownIdMovesItsNodeWithItsSubtree) {
  ASSERT_TRUE(ids_.AddFolderId("d2", "Moved", "d3"));
  EXPECT_EQ(ids_.GetPathById("f2"), "Music/Moved/b.txt");
  EXPECT_EQ(ids_.GetFolderIdByPath("Docs/Sub"), "");
  EXPECT_EQ(ids_.GetItemsCount(), 7u);
  EXPECT_EQ(Invariants(), "");
}

TEST_F(RemoteFileIdsTest, NotLinkedItemsJoinTheTreeWhenLinked) {
  ASSERT_TRUE(ids_.AddNotLinkedFolderId("n1"));
  ASSERT_TRUE(ids_.AddFileId("n2", "inner.txt", "n1"));
  ASSERT_TRUE(ids_.AddNotLinkedFileId("n3"));
  EXPECT_EQ(ids_.GetPathById("n1"), std::nullopt);
  EXPECT_EQ(ids_.GetPathById("n2"), std::nullopt);
  EXPECT_EQ(ids_.GetFileIdByPath("Music/Late/inner.txt"), "");
  EXPECT_EQ(Invariants(3), "");

  ASSERT_TRUE(ids_.LinkFolderToParent("n1", "Late", "d3"));
  ASSERT_TRUE(ids_.LinkFileToParent("n3", "late.txt", "root-id"));
  EXPECT_EQ(ids_.GetFileIdByPath("Music/Late/inner.txt"), "n2");
  EXPECT_EQ(ids_.GetPathById("n3"), "late.txt");
  EXPECT_EQ(Invariants(), "");
}

TEST_F(RemoteFileIdsTest, ANameTakenByAnotherIdLeavesTheFormerHolderNotLinked) {
  ASSERT_TRUE(ids_.AddFileId("f1-new", "a.txt", "d1"));
  EXPECT_EQ(ids_.GetFileIdByPath("Docs/a.txt"), "f1-new");
  EXPECT_TRUE(ids_.HasFile("f1"));
  EXPECT_EQ(ids_.GetPathById("f1"), std::nullopt);
  EXPECT_EQ(Invariants(1), "");
  EXPECT_TRUE(ids_.RemoveNotLinkedFile("a.txt", "f1"));
  EXPECT_EQ(Invariants(), "");
}

TEST_F(RemoteFileIdsTest, MovesAndRenamesKeepSubtrees) {
  ASSERT_TRUE(ids_.MoveFileW("f1", "a.txt", "d2", "renamed.txt"));
  ASSERT_TRUE(ids_.MoveFolder("d2", "Sub", "d3", "Sub2"));
  EXPECT_EQ(ids_.GetFileIdByPath("Music/Sub2/renamed.txt"), "f1");
  EXPECT_EQ(ids_.GetPathById("f2"), "Music/Sub2/b.txt");
  EXPECT_EQ(ids_.GetFileIdByPath("Docs/a.txt"), "");
  EXPECT_FALSE(ids_.ParentHasFolder("d1", "Sub"));
  EXPECT_EQ(Invariants(), "");
}

TEST_F(RemoteFileIdsTest, RemovingAFolderRemovesItsSubtreeButNotTrashOrMapping) {
  ids_.AddTrashed("f2");
  ASSERT_TRUE(ids_.AddMappingInfo("f2", "b?.txt", "b.txt"));
  ASSERT_TRUE(ids_.RemoveFolder("Docs", "d1"));
  EXPECT_FALSE(ids_.HasFolder("d2"));
  EXPECT_FALSE(ids_.HasFile("f2"));
  EXPECT_TRUE(ids_.HasFile("f0"));
  EXPECT_EQ(ids_.GetItemsCount(), 3u);
  EXPECT_TRUE(ids_.IsTrashed("f2"));
  EXPECT_EQ(ids_.MappedGetOriginalName("f2"), "b?.txt");
  EXPECT_EQ(Invariants(), "");
  ASSERT_TRUE(ids_.RemoveFile("Docs", "f0"));
  EXPECT_EQ(ids_.GetItemsCount(), 2u);
}

TEST_F(RemoteFileIdsTest, MappedNamesAndTrash) {
  ASSERT_TRUE(ids_.AddMappingInfo("f1", "a:txt", "a.txt"));
  EXPECT_TRUE(ids_.HasMappedName("f1"));
  EXPECT_EQ(ids_.MappedGetOriginalName("f1"), "a:txt");
  EXPECT_EQ(ids_.MappedGetMappedName("f1"), "a.txt");
  ASSERT_TRUE(ids_.RemoveMappingInfo("f1"));
  EXPECT_FALSE(ids_.HasMappedName("f1"));
  ids_.AddTrashed("f1");
  EXPECT_TRUE(ids_.IsTrashed("f1"));
  ids_.RemoveTrashed("f1");
  EXPECT_FALSE(ids_.IsTrashed("f1"));
}

TEST_F(RemoteFileIdsTest, SwapExchangesWholeTreesAndBothStayUsable) {
  RemoteFileIds other;
  other.Init("r2");
  ASSERT_TRUE(other.AddFileId("x", "x.bin", "r2"));
  other.AddTrashed("x");
  ids_.Swap(other);
  EXPECT_EQ(ids_.GetRootId(), "r2");
  EXPECT_EQ(ids_.GetItemsCount(), 2u);
  EXPECT_TRUE(ids_.IsTrashed("x"));
  EXPECT_EQ(other.GetFileIdByPath("Docs/Sub/b.txt"), "f2");
  EXPECT_EQ(other.GetItemsCount(), 7u);
  ASSERT_TRUE(ids_.AddFolderId("y", "y", "r2"));
  ASSERT_TRUE(other.RemoveFolder("Docs", "d1"));
  EXPECT_EQ(ids_testing::CheckInvariants(ids_, 0), "");
  EXPECT_EQ(ids_testing::CheckInvariants(other, 0), "");
}

TEST_F(RemoteFileIdsTest, VisitSubtreeGivesParentsBeforeChildrenAndAllowsReadsInside) {
  std::vector<std::string> order;
  ids_.VisitSubtree("d1", [&](const std::string& id) {
    order.push_back(id + "=" + ids_.GetPathById(id).value_or("?"));
  });
  ASSERT_EQ(order.size(), 4u);
  EXPECT_EQ(order[0], "d1=Docs");
  auto at = [&](const std::string& entry) {
    return std::find(order.begin(), order.end(), entry) - order.begin();
  };
  EXPECT_LT(at("d2=Docs/Sub"), at("f2=Docs/Sub/b.txt"));
  // Files of a level come before the folders of that level.
  EXPECT_LT(at("f1=Docs/a.txt"), at("d2=Docs/Sub"));
}

// Each failure answers false or empty, logs its words at its level, and leaves the tree as it was.
TEST_F(RemoteFileIdsTest, FailuresLogAndChangeNothing) {
  ASSERT_TRUE(ids_.AddNotLinkedFileId("nf"));
  ASSERT_TRUE(ids_.AddNotLinkedFolderId("nd"));
  ASSERT_TRUE(ids_.AddMappingInfo("f1", "a:txt", "a.txt"));
  struct Case {
    const char* name;
    std::function<bool()> call;  // true when the answer is the failure one
    LogType level;
    std::string text;
  };
  const std::vector<Case> cases = {
      {"add under unknown parent", [&] { return !ids_.AddFileId("x", "x", "zz"); }, LogType::kError,
       "No parent found with id zz"},
      {"add file without parent", [&] { return !ids_.AddFileId("x", "x", ""); }, LogType::kFatal,
       "Empty parent id while adding file x (x)."},
      {"add folder without parent", [&] { return !ids_.AddFolderId("x", "x", ""); },
       LogType::kFatal, "Empty parent id while adding folder x (x)."},
      {"mapping twice", [&] { return !ids_.AddMappingInfo("f1", "o", "m"); }, LogType::kError,
       "Mapping info already exists for id f1; while trying to set o -> m"},
      {"link file to unknown parent", [&] { return !ids_.LinkFileToParent("nf", "n", "zz"); },
       LogType::kError, "No parent found with id zz"},
      {"link unknown file", [&] { return !ids_.LinkFileToParent("zz", "n", "d1"); },
       LogType::kError, "No file found with id zz"},
      {"link linked file", [&] { return !ids_.LinkFileToParent("f1", "n", "d3"); }, LogType::kError,
       "File is already linked to d1"},
      {"link unknown folder", [&] { return !ids_.LinkFolderToParent("zz", "n", "d1"); },
       LogType::kError, "No folder found with id zz"},
      {"link linked folder", [&] { return !ids_.LinkFolderToParent("d2", "n", "d3"); },
       LogType::kError, "Folder is already linked to d1"},
      {"mapped name missing", [&] { return ids_.MappedGetMappedName("f2").empty(); },
       LogType::kError, "File has no mapped name"},
      {"original name missing", [&] { return ids_.MappedGetOriginalName("f2").empty(); },
       LogType::kError, "File has no mapped name"},
      {"remove missing mapping", [&] { return !ids_.RemoveMappingInfo("f2"); }, LogType::kError,
       "No mapping info found for f2"},
      {"move unknown file", [&] { return !ids_.MoveFileW("zz", "a", "d1", "b"); }, LogType::kFatal,
       "Failed to find old file id."},
      {"move unknown folder", [&] { return !ids_.MoveFolder("zz", "a", "d1", "b"); },
       LogType::kFatal, "Failed to find old folder id."},
      {"move file to unknown parent", [&] { return !ids_.MoveFileW("f1", "a.txt", "zz", "b"); },
       LogType::kFatal, "Failed to find new parent folder id."},
      {"move not linked file", [&] { return !ids_.MoveFileW("nf", "", "d1", "b"); },
       LogType::kFatal, "Parent is null."},
      {"move not linked folder", [&] { return !ids_.MoveFolder("nd", "", "d1", "b"); },
       LogType::kFatal, "Parent is null."},
      {"move file by wrong name", [&] { return !ids_.MoveFileW("f1", "b.txt", "d3", "b"); },
       LogType::kFatal, "Failed to find folder in parent. Structure is corrupted."},
      {"move folder by wrong name", [&] { return !ids_.MoveFolder("d2", "Docs", "d3", "b"); },
       LogType::kFatal, "Failed to find folder in parent. Structure is corrupted."},
      {"move folder into itself", [&] { return !ids_.MoveFolder("d1", "Docs", "d2", "x"); },
       LogType::kError, "Can't put d1 under d2: it would be inside itself."},
      {"parent has file of unknown", [&] { return !ids_.ParentHasFile("zz", "a"); },
       LogType::kError, "Failed to find parent dir"},
      {"parent has folder of unknown", [&] { return !ids_.ParentHasFolder("zz", "a"); },
       LogType::kError, "Failed to find parent dir"},
      {"remove not linked file as linked", [&] { return !ids_.RemoveFile("n", "nf"); },
       LogType::kFatal, "No parent, removing n(nf)."},
      {"remove not linked folder as linked", [&] { return !ids_.RemoveFolder("n", "nd"); },
       LogType::kFatal, "No parent, removing n(nd)."},
      {"remove file by wrong name", [&] { return !ids_.RemoveFile("b.txt", "f1"); },
       LogType::kFatal, "Invalid name."},
      {"remove folder by wrong name", [&] { return !ids_.RemoveFolder("Music", "d1"); },
       LogType::kFatal, "Invalid name."},
      {"name of unknown", [&] { return ids_.GetNameById("zz").empty(); }, LogType::kError,
       "Id not found to get name: id=zz"},
      {"name of not linked file", [&] { return ids_.GetNameById("nf").empty(); }, LogType::kFatal,
       "File with no parent."},
      {"name of not linked folder", [&] { return ids_.GetNameById("nd").empty(); }, LogType::kFatal,
       "Non root folder with no parent."},
      {"parent of not linked file", [&] { return ids_.GetParentId("nf").empty(); }, LogType::kError,
       "No parent in file: nf, \"\"."},
      {"parent of not linked folder", [&] { return ids_.GetParentId("nd").empty(); },
       LogType::kError, "No parent in folder: nd, \"\"."},
      {"parent of root", [&] { return ids_.GetParentId("root-id").empty(); }, LogType::kError,
       "There is no parent for root id: root-id"},
      {"parent of unknown", [&] { return ids_.GetParentId("zz").empty(); }, LogType::kError,
       "Id not found."},
      {"visit unknown",
       [&] {
         bool called = false;
         ids_.VisitSubtree("zz", [&](const std::string&) { called = true; });
         return !called;
       },
       LogType::kError, "No such folder id."},
  };
  const auto before = ids_testing::Snapshot(ids_);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LoggerWrapper::Capture capture;
    EXPECT_TRUE(c.call());
    const auto lines = capture.LinesAtLevel(c.level);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(capture.Contains(c.text)) << lines[0];
    EXPECT_EQ(ids_testing::Snapshot(ids_), before);
    EXPECT_EQ(ids_.GetItemsCount(), 9u);
  }
}

// Every road that puts a folder under another refuses a place inside the folder's own subtree,
// at any depth: the folder would leave the tree with its whole subtree, paths would climb forever.
TEST_F(RemoteFileIdsTest, AFolderNeverGoesUnderItsOwnSubtree) {
  ASSERT_TRUE(ids_.AddFolderId("d4", "Deep", "d2"));
  ASSERT_TRUE(ids_.AddFolderId("d5", "Deeper", "d4"));
  ASSERT_TRUE(ids_.AddNotLinkedFolderId("nd"));
  ASSERT_TRUE(ids_.AddFolderId("n1", "Inner", "nd"));
  ASSERT_TRUE(ids_.AddFolderId("n2", "Innermost", "n1"));
  struct Road {
    const char* name;
    std::function<bool(const std::string& id, const std::string& under)> put;
  };
  const Road roads[] = {
      {"move",
       [&](const std::string& id, const std::string& under) {
         return ids_.MoveFolder(id, id == "d1" ? "Docs" : "Sub", under, "x");
       }},
      {"add of a known id",
       [&](const std::string& id, const std::string& under) {
         return ids_.AddFolderId(id, "x", under);
       }},
  };
  const char* const subtreeOfD1[] = {"d1", "d2", "d4", "d5"};
  const auto before = ids_testing::Snapshot(ids_);
  for (const Road& road : roads) {
    for (const char* id : {"d1", "d2"}) {
      for (const char* under : subtreeOfD1) {
        if (std::string(id) == "d2" && std::string(under) == "d1") {
          continue;  // d1 is d2's parent, not inside it
        }
        SCOPED_TRACE(std::string(road.name) + " " + id + " under " + under);
        LoggerWrapper::Capture capture;
        // Accepted, the tree holds a loop that a climb to the root would never leave.
        ASSERT_FALSE(road.put(id, under));
        EXPECT_TRUE(capture.Contains(std::string("Can't put ") + id + " under " + under +
                                     ": it would be inside itself."));
        EXPECT_EQ(ids_testing::Snapshot(ids_), before);
        EXPECT_EQ(ids_.GetPathById("d5"), "Docs/Sub/Deep/Deeper");
      }
    }
  }
  // A not linked folder is linked under its own grandchild.
  LoggerWrapper::Capture capture;
  ASSERT_FALSE(ids_.LinkFolderToParent("nd", "x", "n2"));
  EXPECT_TRUE(capture.Contains("Can't put nd under n2: it would be inside itself."));
  EXPECT_EQ(ids_testing::Snapshot(ids_), before);
  EXPECT_EQ(Invariants(3), "");  // nd and its two folders hang outside the tree
}

TEST_F(RemoteFileIdsTest, NotLinkedRemovalSucceedsWhereTheLinkedFormRefuses) {
  ASSERT_TRUE(ids_.AddNotLinkedFileId("nf"));
  ASSERT_TRUE(ids_.AddNotLinkedFolderId("nd"));
  ASSERT_TRUE(ids_.AddFileId("inside", "i", "nd"));
  EXPECT_TRUE(ids_.RemoveNotLinkedFile("", "nf"));
  EXPECT_TRUE(ids_.RemoveNotLinkedFolder("", "nd"));
  EXPECT_FALSE(ids_.HasFile("inside"));
  // The not linked form removes a linked item like the ordinary one.
  EXPECT_TRUE(ids_.RemoveNotLinkedFile("b.txt", "f2"));
  EXPECT_EQ(Invariants(), "");
}

TEST(RemoteFileIdsRandomTest, RandomTreesKeepTheirInvariantsThroughRemovals) {
  for (std::uint64_t seed = 1; seed <= 5; ++seed) {
    SCOPED_TRACE(seed);
    RemoteFileIds ids;
    const int not_linked = ids_testing::BuildRandomTree(seed, {}, &ids);
    ASSERT_EQ(ids_testing::CheckInvariants(ids, not_linked), "");
    // Remove every top level folder but one by its name; the count follows.
    std::vector<std::pair<std::string, std::string>> top;
    for (const auto& item : ids_testing::Snapshot(ids)) {
      if (item.folder && !item.path.empty() && item.path.find('/') == std::string::npos &&
          item.id != ids.GetRootId()) {
        top.emplace_back(item.path, item.id);
      }
    }
    for (std::size_t i = 1; i < top.size(); ++i) {
      ASSERT_TRUE(ids.RemoveFolder(top[i].first, top[i].second));
    }
    ASSERT_EQ(ids_testing::CheckInvariants(ids, not_linked), "");
  }
}

}  // namespace
