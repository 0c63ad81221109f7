#include "core/Nodes.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace std::string_literals;

std::vector<std::string> FileNames(const FolderNode& folder) {
  std::vector<std::string> names;
  for (auto it = folder.FilesBegin(); it != folder.FilesEnd(); ++it)
    names.push_back(it->GetName());
  return names;
}

std::vector<std::string> FolderNames(const FolderNode& folder) {
  std::vector<std::string> names;
  for (auto it = folder.FoldersBegin(); it != folder.FoldersEnd(); ++it)
    names.push_back(it->GetName());
  return names;
}

// Every child is found again by its name: the order of the containers still holds.
void ExpectLookupsHold(const FolderNode& folder) {
  for (auto it = folder.FilesBegin(); it != folder.FilesEnd(); ++it) {
    EXPECT_EQ(folder.GetFile(it->GetName()), *it) << it->GetName();
    EXPECT_EQ(it->GetParent(), &folder);
  }
  for (auto it = folder.FoldersBegin(); it != folder.FoldersEnd(); ++it) {
    EXPECT_EQ(folder.GetFolder(it->GetName()), *it) << it->GetName();
    EXPECT_EQ(it->GetParent(), &folder);
  }
}

TEST(NodesTest, HostileNamesAreRefusedEverywhere) {
  const std::string kHostile[] = {"", ".", "..", "a/b", "/", "/etc", "a\0b"s, "\0"s, "x/"};
  for (const std::string& name : kHostile) {
    SCOPED_TRACE(testing::PrintToString(name));
    FolderNode root;
    FolderNode* sub = root.CreateFolder("sub");
    ASSERT_NE(sub->CreateFileW("f", 1, SomeHash(), 0), nullptr);

    EXPECT_EQ(root.CreateFileW(name, 1, SomeHash(), 0), nullptr);
    EXPECT_EQ(root.CreateFolder(name), nullptr);

    UniqueNodePtr<FileNode> file = FolderNode::MakeFile(name, 1, SomeHash(), 0);
    auto inserted = root.InsertFileTry(std::move(file));
    EXPECT_EQ(inserted.status, FolderNode::ResultInsert<FileNode>::BAD_NAME);
    EXPECT_NE(file, nullptr);  // still the caller's
    EXPECT_EQ(root.InsertFolderTry(root.MakeFolder(name)).status,
              FolderNode::ResultInsert<FolderNode>::BAD_NAME);

    EXPECT_EQ(sub->RenameFileTry(sub->FindFile("f"), name).status,
              FolderNode::ResultInsert<FileNode>::BAD_NAME);
    EXPECT_EQ(root.RenameFolderTry(root.FindFolder("sub"), name).status,
              FolderNode::ResultInsert<FolderNode>::BAD_NAME);
    EXPECT_FALSE(FolderNode::MoveFileW(sub, "f", &root, name));
    EXPECT_FALSE(FolderNode::MoveFolder(&root, "sub", &root, name));
    EXPECT_FALSE(root.MoveFolderFromTry(&root, "sub", name));

    // A path through the hostile component leads nowhere and creates nothing ("a/b" is a path
    // of two good names).
    if (name != "a/b") {
      EXPECT_EQ(std::get<0>(root.TraversePath("sub/" + name + "/x")), nullptr);
      std::string_view last;
      EXPECT_EQ(root.TraversePathAndCreateDirs("new/" + name + "/x", &last), nullptr);
      EXPECT_EQ(std::get<0>(root.TraversePath("sub/" + name)), nullptr);
    }

    EXPECT_EQ(FileNames(*sub), std::vector<std::string>{"f"});
    EXPECT_EQ(FolderNames(root), std::vector<std::string>{"sub"});
  }
}

TEST(NodesTest, OddButValidNamesAreKept) {
  FolderNode root;
  for (const char* name : {"...", " ", ".hidden", "a\\b", "..x", "\xff\xfe"}) {
    EXPECT_NE(root.CreateFileW(name, 0, SomeHash(), 0), nullptr) << name;
    EXPECT_EQ(root.GetFile(name)->CollectPath(), name);
  }
}

// Small folders are scanned, large ones indexed: both must answer alike.
class CaseInsensitiveTest : public testing::TestWithParam<int> {
 protected:
  void AddFillers(FolderNode* folder) {
    for (int i = 0; i < GetParam(); ++i) {
      folder->CreateFileW("filler " + std::to_string(i), 0, SomeHash(), 0);
      folder->CreateFolder("FILLER " + std::to_string(i));
    }
  }
};

INSTANTIATE_TEST_SUITE_P(ScannedAndIndexed, CaseInsensitiveTest, testing::Values(0, 64));

TEST_P(CaseInsensitiveTest, LookupsFollowUnicodeAndReportAmbiguity) {
  FolderNode root;
  AddFillers(&root);
  for (const char* name :
       {"ÄÖ.txt", "Привет", "ΟΔΟΣ", "README", "Readme", "\u212Aelvin", "Bad\xc3", "Straße"})
    ASSERT_NE(root.CreateFileW(name, 0, SomeHash(), 0), nullptr) << name;
  root.CreateFolder("Docs");

  const struct {
    const char* query;
    const char* found;  // null: no match
    bool ambiguous;
  } kCases[] = {
      {"äö.TXT", "ÄÖ.txt", false},
      {"пРИВЕТ", "Привет", false},
      {"οδοσ", "ΟΔΟΣ", false},
      {"readme", "README", true},        // two match; the first in name order
      {"Readme", "Readme", true},        // the exact one wins
      {"kelvin", "\u212Aelvin", false},  // the Kelvin sign lowers to an ASCII 'k'
      {"BAD\xc3", "Bad\xc3", false},     // a broken byte is compared as it is
      {"bad\xc4", nullptr, false},
      {"STRASSE", nullptr, false},  // lower case, not folding: ß stays ß
      {"strasse", nullptr, false},
      {"STRAßE", "Straße", false},
      {"docs", nullptr, false},  // a folder is not a file
  };
  for (const auto& c : kCases) {
    bool ambiguous = !c.ambiguous;
    FileNode* file = root.GetFile(c.query, true, &ambiguous);
    EXPECT_EQ(file ? file->GetName() : "", c.found ? c.found : "") << c.query;
    EXPECT_EQ(ambiguous, c.ambiguous) << c.query;
  }
  bool ambiguous = true;
  EXPECT_EQ(root.GetFile("readme", false, &ambiguous), nullptr);  // exact only
  EXPECT_FALSE(ambiguous);
  EXPECT_EQ(root.GetFolder("DOCS", true)->GetName(), "Docs");
  EXPECT_TRUE(root.HasChild("docs", true));
  EXPECT_FALSE(root.HasChild("docs", false));

  // A node is not "named like" itself; its case twin is.
  FileNode* readme = root.GetFile("README");
  EXPECT_TRUE(root.HasFileNamedLike(readme, true, &ambiguous));
  EXPECT_FALSE(ambiguous);
  EXPECT_FALSE(root.HasFileNamedLike(readme, false));
  EXPECT_FALSE(root.HasFileNamedLike(root.GetFile("Привет"), true));
  EXPECT_FALSE(root.HasFolderNamedLike(readme, true));
  EXPECT_TRUE(root.HasFolderNamedLike(root.GetFolder("Docs"), false) == false);

  // Paths take the same switch.
  AddFillers(root.GetFolder("Docs"));
  FolderNode* inner = root.GetFolder("Docs")->CreateFolder("Ünïcode");
  EXPECT_EQ(root.GetFolderAtPath("docs/ÜNÏCODE", true), inner);
  EXPECT_EQ(root.GetFolderAtPath("docs/ÜNÏCODE", false), nullptr);
}

TEST_P(CaseInsensitiveTest, LookupsFollowEveryChangeOfTheChildren) {
  FolderNode root;
  FolderNode other;
  AddFillers(&root);
  FileNode* a = root.CreateFileW("Alpha", 0, SomeHash(), 0);
  EXPECT_EQ(root.GetFile("ALPHA", true), a);

  ASSERT_TRUE(root.RenameFileTry(root.FindFile("Alpha"), "Beta"));
  EXPECT_EQ(root.GetFile("ALPHA", true), nullptr);
  EXPECT_EQ(root.GetFile("bETA", true), a);

  bool ambiguous = false;
  FileNode* twin = root.CreateFileW("BETA", 0, SomeHash(), 0);
  EXPECT_EQ(root.GetFile("beta", true, &ambiguous), twin);  // "BETA" sorts before "Beta"
  EXPECT_TRUE(ambiguous);
  EXPECT_TRUE(root.HasFileNamedLike(a, true));

  EXPECT_TRUE(FolderNode::MoveFileW(&root, "BETA", &other, "BETA"));
  EXPECT_EQ(root.GetFile("beta", true, &ambiguous), a);
  EXPECT_FALSE(ambiguous);
  EXPECT_FALSE(root.HasFileNamedLike(a, true));
  EXPECT_EQ(other.GetFile("beta", true), twin);

  UniqueNodePtr<FileNode> out = root.RemoveFile(root.FindFile("Beta"));
  EXPECT_EQ(root.GetFile("beta", true), nullptr);
  EXPECT_TRUE(root.InsertFileTry(std::move(out)));
  EXPECT_EQ(root.GetFile("beta", true), a);

  FolderNode* sub = root.CreateFolder("Sub");
  EXPECT_EQ(root.GetFolder("SUB", true), sub);
  EXPECT_TRUE(other.MoveFolderFromTry(&root, "Sub", "Sub2"));
  EXPECT_EQ(root.GetFolder("SUB", true), nullptr);
  EXPECT_EQ(other.GetFolder("sub2", true), sub);
  EXPECT_TRUE(other.DeleteFolder("Sub2"));
  EXPECT_EQ(other.GetFolder("sub2", true), nullptr);

  root.Clear();
  EXPECT_EQ(root.GetFile("beta", true), nullptr);
  EXPECT_TRUE(root.DeepCopyContentFrom(&other));
  EXPECT_EQ(root.GetFile("beta", true)->GetName(), "BETA");
}

TEST(NodesTest, CreationRefusesATakenNameOfEitherKind) {
  FolderNode root;
  FileNode* file = root.CreateFileW("x", 5, SomeHash(std::string("e1")), 100, 42, true);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->size, 5u);
  EXPECT_EQ(file->GetInode(), 42u);
  EXPECT_TRUE(file->IsReadonly());
  EXPECT_EQ(file->GetTime(), 100u);
  EXPECT_EQ(root.CreateFileW("x", 1, SomeHash(), 0), nullptr);
  EXPECT_EQ(root.CreateFolder("x"), nullptr);
  EXPECT_EQ(root.GetFile("x")->size, 5u);  // the first one stays

  UniqueNodePtr<FolderNode> folder = root.MakeFolder("x");
  auto result = root.InsertFolderTry(std::move(folder));
  EXPECT_EQ(result.status, FolderNode::ResultInsert<FolderNode>::EXISTS);
  EXPECT_EQ(result.existing, file);
  ASSERT_NE(folder, nullptr);
  EXPECT_EQ(folder->GetParent(), nullptr);

  EXPECT_FALSE(root.DeleteFolder("x"));
  EXPECT_TRUE(root.DeleteFileW("x"));
  EXPECT_FALSE(root.DeleteFileW("x"));
  EXPECT_TRUE(root.InsertFolderTry(std::move(folder)));
  EXPECT_EQ(root.FolderCount(), 1u);
  EXPECT_EQ(root.FileCount(), 0u);
}

TEST(NodesTest, RenamesAndMovesKeepOrderParentsAndPaths) {
  FolderNode root;
  FolderNode* a = root.CreateFolder("a");
  FolderNode* b = root.CreateFolder("b");
  for (const char* name : {"m", "c", "x", "e"})
    a->CreateFileW(name, 1, SomeHash(), 0);
  FolderNode* deep = a->CreateFolder("sub")->CreateFolder("deep");

  EXPECT_TRUE(a->RenameFileTry(a->FindFile("m"), "a0"));
  EXPECT_TRUE(a->RenameFileTry(a->FindFile("c"), "z9"));
  EXPECT_EQ(FileNames(*a), (std::vector<std::string>{"a0", "e", "x", "z9"}));
  ExpectLookupsHold(*a);

  // Onto a taken name: refused, with the holder named.
  auto taken = a->RenameFileTry(a->FindFile("e"), "x");
  EXPECT_EQ(taken.status, FolderNode::ResultInsert<FileNode>::EXISTS);
  EXPECT_EQ(taken.existing, a->GetFile("x"));
  EXPECT_EQ(a->RenameFileTry(a->FindFile("e"), "sub").existing, a->GetFolder("sub"));
  EXPECT_TRUE(a->RenameFileTry(a->FindFile("e"), "e"));  // to its own name

  EXPECT_TRUE(FolderNode::MoveFileW(a, "x", b, "moved"));
  EXPECT_FALSE(FolderNode::MoveFileW(a, "x", b, "other"));  // gone from a
  EXPECT_FALSE(FolderNode::MoveFileW(a, "e", b, "moved"));  // taken in b
  EXPECT_EQ(b->GetFile("moved")->CollectPath(), "b/moved");
  EXPECT_EQ(FileNames(*a), (std::vector<std::string>{"a0", "e", "z9"}));

  // A folder never goes inside itself.
  EXPECT_FALSE(FolderNode::MoveFolder(&root, "a", deep, "loop"));
  EXPECT_EQ(deep->MoveFolderFromTry(&root, "a", "loop").status,
            FolderNode::ResultInsert<FolderNode>::LOOP);
  EXPECT_FALSE(FolderNode::MoveFolder(a, "sub", deep, "loop"));
  EXPECT_EQ(deep->CollectPath(), "a/sub/deep");

  EXPECT_TRUE(FolderNode::MoveFolder(a, "sub", b, "0sub"));
  EXPECT_EQ(deep->CollectPath(), "b/0sub/deep");
  auto moved = root.MoveFolderFromTry(b, "0sub", "top");
  ASSERT_TRUE(moved);
  EXPECT_EQ(moved.node->GetParent(), &root);
  EXPECT_EQ(deep->CollectPath(), "top/deep");
  EXPECT_EQ(FolderNames(root), (std::vector<std::string>{"a", "b", "top"}));
  EXPECT_TRUE(FolderNode::MoveFolder(&root, "top", &root, "0"));
  EXPECT_EQ(FolderNames(root), (std::vector<std::string>{"0", "a", "b"}));
  for (FolderNode* folder : {&root, a, b})
    ExpectLookupsHold(*folder);

  // Out and back in.
  UniqueNodePtr<FileNode> out = a->RemoveFile(a->FindFile("a0"));
  EXPECT_EQ(out->GetParent(), nullptr);
  EXPECT_FALSE(a->HasFile("a0"));
  EXPECT_TRUE(b->InsertFileTry(std::move(out)));
  EXPECT_EQ(b->GetFile("a0")->CollectPath(), "b/a0");
}

TEST(NodesTest, PathsAreWalkedAndCreated) {
  FolderNode root;
  std::string_view name;
  FolderNode* first = nullptr;
  FolderNode* parent = root.TraversePathAndCreateDirs("a/b/c/file", &name, false, nullptr, &first);
  ASSERT_NE(parent, nullptr);
  EXPECT_EQ(name, "file");
  EXPECT_EQ(parent->CollectPath(), "a/b/c");
  EXPECT_EQ(first, root.GetFolder("a"));
  EXPECT_EQ(root.TraversePathAndCreateDirs("a/b/c/other", &name, false, nullptr, &first), parent);
  EXPECT_EQ(first, nullptr);  // nothing new
  EXPECT_EQ(root.TraversePathAndCreateDirs("top", &name), &root);
  EXPECT_EQ(name, "top");

  EXPECT_EQ(root.TraversePath("a/b/c/file"), std::make_tuple(parent, std::string_view("file")));
  EXPECT_EQ(std::get<0>(root.TraversePath("a/x/c/file")), nullptr);
  EXPECT_EQ(std::get<0>(root.TraversePath("")), nullptr);
  EXPECT_EQ(std::get<0>(root.TraversePath("a//b")), nullptr);
  EXPECT_EQ(root.GetFolderAtPath(""), &root);
  EXPECT_EQ(root.GetFolderAtPath("a/b/c"), parent);
  EXPECT_EQ(root.GetFolderAtPath("a/b/c/"), nullptr);

  // A file on the way is not a folder.
  parent->CreateFileW("f", 0, SomeHash(), 0);
  EXPECT_EQ(root.TraversePathAndCreateDirs("a/b/c/f/g", &name), nullptr);
  EXPECT_TRUE(parent->HasFile("f"));
  EXPECT_FALSE(parent->HasFolder("f"));

  // Ambiguity anywhere on the way is reported.
  root.CreateFolder("A");
  bool ambiguous = false;
  EXPECT_NE(std::get<0>(root.TraversePath("a/b/c/file", true, &ambiguous)), nullptr);
  EXPECT_TRUE(ambiguous);
}

TEST(NodesTest, SizesAndCountsWithAndWithoutServiceItems) {
  FolderNode root;
  root.CreateFileW("f1", 10, SomeHash(), 0);
  root.CreateFileW("meta", 1000, SomeHash(), 0)->SetServiceItem(true);
  FolderNode* sub = root.CreateFolder("sub");
  sub->CreateFileW("f2", 20, SomeHash(), 0);
  FolderNode* service = root.CreateFolder("service");
  service->SetServiceItem(true);
  service->CreateFileW("f3", 300, SomeHash(), 0);
  sub->CreateFolder("empty");

  EXPECT_EQ(root.FolderSize(FolderNode::WithServiceItems(true)), 1330u);
  EXPECT_EQ(root.FolderSize(FolderNode::WithServiceItems(false)), 30u);
  EXPECT_EQ(sub->FolderSize(FolderNode::WithServiceItems(false)), 20u);
  EXPECT_EQ(root.FileCount(), 2u);
  EXPECT_EQ(root.FolderCount(), 2u);
  EXPECT_EQ(sub->FileCount(), 1u);
  EXPECT_EQ(sub->FolderCount(), 1u);
  EXPECT_TRUE(sub->GetFolder("empty")->IsEmpty());
  EXPECT_FALSE(sub->IsEmpty());

  FileNode* f2 = sub->GetFile("f2");
  EXPECT_TRUE(f2->SetSize(25, false));
  EXPECT_FALSE(f2->IsChanged());
  EXPECT_TRUE(f2->SetProperties(SomeHash(std::string("h")), 26, 7, 9));
  EXPECT_EQ(root.FolderSize(FolderNode::WithServiceItems(false)), 36u);
  EXPECT_EQ(f2->hash.GetHashGenericString(), "h");
  EXPECT_EQ(f2->GetInode(), 9u);

  EXPECT_TRUE(sub->SetChangedDown());
  EXPECT_TRUE(sub->IsChanged() && f2->IsChanged() && sub->GetFolder("empty")->IsChanged());
  EXPECT_FALSE(root.IsChanged() || root.GetFile("f1")->IsChanged());

  // Flags sit beside each other without disturbing one another.
  EXPECT_TRUE(sub->SetReadonly(FolderNode::kReadonlyLocked));
  EXPECT_EQ(sub->GetReadonly(), FolderNode::kReadonlyLocked);
  EXPECT_TRUE(sub->IsChanged());
  EXPECT_FALSE(sub->IsServiceItem());
  EXPECT_TRUE(sub->SetChanged(false));
  EXPECT_EQ(sub->GetReadonly(), FolderNode::kReadonlyLocked);
  EXPECT_TRUE(f2->SetReadonly(true));
  EXPECT_TRUE(f2->SetReadonly(false));
  EXPECT_FALSE(f2->IsReadonly());
  EXPECT_TRUE(f2->IsChanged());
}

class TaggedFolder : public FolderNode {
 public:
  UniqueNodePtr<FolderNode> CreateInstance() const override {
    return std::make_unique<TaggedFolder>();
  }
};

TEST(NodesTest, MarksAndParentsChangeIndependently) {
  const FolderNode::ReadonlyStatus kStatuses[] = {FolderNode::kWritable, FolderNode::kReadonly,
                                                  FolderNode::kReadonlyLocked};
  for (int changed = 0; changed < 2; ++changed) {
    for (int service = 0; service < 2; ++service) {
      for (FolderNode::ReadonlyStatus status : kStatuses) {
        SCOPED_TRACE(testing::Message() << changed << service << status);
        FolderNode root;
        FolderNode* from = root.CreateFolder("from");
        FolderNode* to = root.CreateFolder("to");
        FolderNode* folder = from->CreateFolder("d");
        FileNode* file = from->CreateFileW("f", 1, SomeHash(), 0);
        for (ChildNode* node : {static_cast<ChildNode*>(folder), static_cast<ChildNode*>(file)}) {
          node->SetChanged(changed);
          node->SetServiceItem(service);
        }
        folder->SetReadonly(status);
        file->SetReadonly(status != FolderNode::kWritable);

        ASSERT_TRUE(FolderNode::MoveFolder(from, "d", to, "d"));
        ASSERT_TRUE(FolderNode::MoveFileW(from, "f", to, "f"));
        for (const ChildNode* node :
             {static_cast<ChildNode*>(folder), static_cast<ChildNode*>(file)}) {
          EXPECT_EQ(node->GetParent(), to);
          EXPECT_EQ(node->IsChanged(), changed != 0);
          EXPECT_EQ(node->IsServiceItem(), service != 0);
        }
        EXPECT_EQ(folder->GetReadonly(), status);
        EXPECT_EQ(file->IsReadonly(), status != FolderNode::kWritable);

        folder->SetChanged(!changed);
        file->SetServiceItem(!service);
        EXPECT_EQ(folder->GetParent(), to);
        EXPECT_EQ(file->GetParent(), to);
        UniqueNodePtr<FolderNode> out = to->RemoveFolder(to->FindFolder("d"));
        EXPECT_EQ(out->GetParent(), nullptr);
        EXPECT_EQ(out->IsChanged(), changed == 0);
        EXPECT_EQ(out->GetReadonly(), status);
      }
    }
  }
}

TEST(NodesTest, DeepCopyIsIndependentAndKeepsTheFolderKind) {
  TaggedFolder source;
  FolderNode* a = source.CreateFolder("a");
  EXPECT_NE(dynamic_cast<TaggedFolder*>(a), nullptr);
  a->CreateFileW("f", 3, SomeHash(std::string("h")), 11, 5, true)->SetChanged(true);
  a->CreateFolder("b")->CreateFolder("c")->SetReadonly(FolderNode::kReadonly);

  TaggedFolder copy;
  copy.CreateFileW("old", 1, SomeHash(), 0);
  ASSERT_TRUE(copy.DeepCopyContentFrom(&source));
  EXPECT_FALSE(copy.HasFile("old"));
  FileNode* f = copy.GetFolderAtPath("a")->GetFile("f");
  ASSERT_NE(f, nullptr);
  EXPECT_NE(f, a->GetFile("f"));
  EXPECT_EQ(f->size, 3u);
  EXPECT_EQ(f->GetTime(), 11u);
  EXPECT_EQ(f->GetInode(), 5u);
  EXPECT_EQ(f->hash, SomeHash(std::string("h")));
  EXPECT_TRUE(f->IsReadonly() && f->IsChanged());
  EXPECT_EQ(copy.GetFolderAtPath("a/b/c")->GetReadonly(), FolderNode::kReadonly);
  EXPECT_NE(dynamic_cast<TaggedFolder*>(copy.GetFolderAtPath("a/b/c")), nullptr);

  source.DeleteFolder("a");
  EXPECT_EQ(copy.GetFolderAtPath("a/b/c")->CollectPath(), "a/b/c");

  // Into itself or below itself: refused, content kept.
  EXPECT_FALSE(copy.GetFolderAtPath("a/b")->DeepCopyContentFrom(&copy));
  EXPECT_FALSE(copy.DeepCopyContentFrom(&copy));
  EXPECT_FALSE(copy.DeepCopyContentFrom(copy.GetFolderAtPath("a/b")));
  EXPECT_NE(copy.GetFolderAtPath("a/b/c"), nullptr);
  copy.Clear();
  EXPECT_TRUE(copy.IsEmpty());
}

TEST(NodesTest, LargeAndDeepTreesBuildAndTearDown) {
  auto root = std::make_unique<FolderNode>();
  for (int folder = 0; folder < 10000; ++folder) {
    FolderNode* node = root->CreateFolder("folder" + std::to_string(folder));
    ASSERT_NE(node, nullptr);
    for (int file = 0; file < 10; ++file)
      ASSERT_NE(node->CreateFileW("file" + std::to_string(file), 1, SomeHash(), 0), nullptr);
  }
  EXPECT_EQ(root->FolderSize(FolderNode::WithServiceItems(true)), 100000u);
  for (int folder = 0; folder < 10000; folder += 7) {
    std::string path = "folder" + std::to_string(folder) + "/file3";
    auto [parent, name] = root->TraversePath(path);
    ASSERT_NE(parent, nullptr);
    ASSERT_TRUE(parent->HasFile(name));
  }
  root.reset();

  // A chain far deeper than any stack would take recursively.
  FolderNode chain;
  FolderNode* tip = &chain;
  for (int depth = 0; depth < 300000; ++depth)
    tip = tip->CreateFolder("d");
  tip->CreateFileW("f", 4, SomeHash(), 0);
  EXPECT_EQ(chain.FolderSize(FolderNode::WithServiceItems(false)), 4u);
  EXPECT_EQ(tip->CollectPath().size(), 2 * 300000 - 1u);
  TaggedFolder copy;
  EXPECT_TRUE(copy.DeepCopyContentFrom(&chain));
  EXPECT_TRUE(chain.SetChangedDown());
  chain.Clear();
}

}  // namespace
