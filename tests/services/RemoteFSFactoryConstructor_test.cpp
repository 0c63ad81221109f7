// The entry as the core meets it: the library is opened with dlopen and the function found by its
// undecorated name.
#include "services/RemoteFSFactoryConstructor.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <memory>
#include <typeinfo>

#include "core/LoggerWrapper.h"
#include "core/RemoteFileSystemFactoryS3.h"

namespace {

using Entry = RemoteFileSystemFactory* (*)(CloudServiceId, const std::string&);

class EntryTest : public testing::Test {
 protected:
  void SetUp() override {
    library_ = dlopen(CORVANE_LIBRARY_PATH, RTLD_NOW);
    ASSERT_NE(library_, nullptr) << dlerror();
    entry_ = reinterpret_cast<Entry>(dlsym(library_, "H6BA54F7D00"));
    ASSERT_NE(entry_, nullptr) << dlerror();
  }
  void TearDown() override {
    if (library_) {
      dlclose(library_);
    }
  }

  void* library_ = nullptr;
  Entry entry_ = nullptr;
};

TEST_F(EntryTest, IdsWithoutAFactoryLogOneGraveLineWithTheName) {
  const std::pair<int, const char*> cases[] = {{0, "UNKNOWN"}, {2, "QUILLO"}, {9, "TEAMVOLT"},
                                               {14, ""},       {1000, ""},    {-1, ""}};
  for (const auto& [id, name] : cases) {
    LoggerWrapper::Capture capture;
    std::unique_ptr<RemoteFileSystemFactory> factory(entry_(static_cast<CloudServiceId>(id), "/r"));
    EXPECT_EQ(factory, nullptr) << id;
    std::vector<std::string> lines = capture.LinesAtLevel(LogType::kFatal);
    ASSERT_EQ(lines.size(), 1u) << id;
    ASSERT_EQ(capture.Lines().size(), 1u) << id;
    const std::string expected = std::string("Unhandled service id: ") + name;
    EXPECT_EQ(lines[0].substr(lines[0].size() - expected.size()), expected) << lines[0];
    EXPECT_EQ(lines[0][lines[0].size() - expected.size() - 1], ' ') << lines[0];
  }
}

TEST_F(EntryTest, S3IdsGetTheirOwnFactoryEach) {
  struct Case {
    CloudServiceId id;
    const std::type_info& type;
  };
  const Case cases[] = {
      {CloudServiceId::S3_BASE, typeid(s3::RemoteFileSystemFactoryS3Base)},
      {CloudServiceId::S3_EMBERA, typeid(s3::RemoteFileSystemFactoryS3Embera)},
      {CloudServiceId::S3_AMAZON, typeid(s3::RemoteFileSystemFactoryS3Amazon)},
  };
  for (const Case& c : cases) {
    LoggerWrapper::Capture capture;
    std::unique_ptr<RemoteFileSystemFactory> first(entry_(c.id, "/bucket/root"));
    std::unique_ptr<RemoteFileSystemFactory> second(entry_(c.id, "/bucket/root"));
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(typeid(*first), c.type);
    EXPECT_EQ(first->GetRemoteRootPath(), "/bucket/root");
    auto shared =
        std::dynamic_pointer_cast<s3::RemoteFileSystemS3SharedData>(first->GetSharedData());
    ASSERT_NE(shared, nullptr);
    EXPECT_EQ(shared->service_id, c.id);
    EXPECT_EQ(first->GetSharedData(), shared);   // built once
    EXPECT_NE(second->GetSharedData(), shared);  // two accounts share nothing
    EXPECT_TRUE(capture.Lines().empty());

    // The S3 adapters and the metainfo of S3 live outside this library.
    EXPECT_EQ(first->Create(), nullptr);
    EXPECT_EQ(capture.LinesAtLevel(LogType::kError).size(), 1u);
    EXPECT_EQ(first->CreateMetainfoReader(nullptr), nullptr);
    EXPECT_EQ(first->CreateMetainfoWriter(nullptr, "C:/a", "/b"), nullptr);
    EXPECT_EQ(first->CreateSpecialDocsTypeRemoteReader(nullptr), nullptr);
  }
}

TEST_F(EntryTest, SharedDataOutlivesTheFactory) {
  std::unique_ptr<RemoteFileSystemFactory> factory(entry_(CloudServiceId::S3_AMAZON, ""));
  ASSERT_NE(factory, nullptr);
  std::shared_ptr<RemoteFileSystemSharedData> shared = factory->GetSharedData();
  std::weak_ptr<RemoteFileSystemSharedData> watch = shared;
  factory.reset();
  EXPECT_FALSE(watch.expired());
  shared.reset();
  EXPECT_TRUE(watch.expired());
}

}  // namespace
