// The reader of Google documents against the Drive emulator: the export format chosen for each
// kind, the documents without links left out, sizes asked by HEAD only where Drive tells none, the
// exported bytes read back exact, and a reader without a client that does nothing.
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/Cookie.h"
#include "core/CurlURLProcessorFactory.h"
#include "core/Json.h"
#include "core/LoggerWrapper.h"
#include "services/GoogleDocsReader.h"
#include "support/GoogleDriveFixture.h"

namespace {

using Result = FileSystem::Result;

TEST(GoogleExportLink, FollowsThePreferenceElseTheFirst) {
  const struct {
    const char* name;
    const char* links;  // JSON of "exportLinks"
    bool chosen;
    const char* extension;
  } cases[] = {
      {"docx before pdf",
       R"({"application/pdf":"u?exportFormat=pdf","application/vnd.openxmlformats-officedocument.wordprocessingml.document":"u?exportFormat=docx"})",
       true, "docx"},
      {"xlsx before pdf",
       R"({"application/pdf":"u?exportFormat=pdf","application/vnd.openxmlformats-officedocument.spreadsheetml.sheet":"u?exportFormat=xlsx&x=1"})",
       true, "xlsx"},
      {"jpeg before pdf",
       R"({"application/pdf":"u?exportFormat=pdf","image/jpeg":"u?exportFormat=jpeg"})", true,
       "jpeg"},
      {"none preferred: the first", R"({"text/csv":"u?exportFormat=csv"})", true, "csv"},
      {"no exportFormat", R"({"application/pdf":"https://x/y"})", false, ""},
      {"no links", R"({})", false, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    utils::json::json_tree links;
    ASSERT_TRUE(utils::json::Parse(c.links, &links));
    google::ExportLink link;
    EXPECT_EQ(google::ChooseExportLink(links, &link), c.chosen);
    EXPECT_EQ(link.extension, c.extension);
  }
}

class GoogleDocsReaderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    emulators::CloudAccount& account = drive.account();
    const std::pair<const char*, const char*> docs[] = {
        {"Letter", "application/vnd.google-apps.document"},
        {"Budget", "application/vnd.google-apps.spreadsheet"},
        {"Talk", "application/vnd.google-apps.presentation"},
        {"Sketch", "application/vnd.google-apps.drawing"},
        {"Survey", "application/vnd.google-apps.form"},
        {"Sized", "application/vnd.google-apps.document"},
    };
    for (const auto& [name, mime] : docs) {
      emulators::Item item;
      account.CreateFile(account.RootId(), name, std::string(), 0, &item);
      account.SetProperty(item.id, "google.mimeType", mime, nullptr);
      ids[name] = item.id;
    }
    account.SetProperty(ids["Sized"], "google.size", "777", nullptr);
    // Two documents a page: the links come in three pages.
    drive.dialect->SetMaxPageSize(2);
    FolderNode root;
    ASSERT_EQ(drive.GetFullTree(&root), FileSystem::SUCCEEDED);
    reader =
        drive.factory->CreateSpecialDocsTypeRemoteReader(std::make_shared<CurlURLProcessorFactory>(
            std::make_shared<core::cookie::CookieOAuth>("t")));
    ASSERT_TRUE(reader);
  }
  int Requests(const std::string& verb, const std::string& prefix) {
    int count = 0;
    for (const auto& request : drive.emulator->server().Requests())
      count += request.verb == verb && request.path.compare(0, prefix.size(), prefix) == 0;
    return count;
  }

  test::GoogleDrive drive;
  std::map<std::string, std::string> ids;
  std::shared_ptr<SpecialDocsTypeRemoteReader> reader;
  LoggerWrapper::Capture log;
};

TEST_F(GoogleDocsReaderTest, EachKindGetsItsFormatAndDocsWithoutLinksAreLeftOut) {
  int listings = Requests("GET", "/drive/v3/files");
  ASSERT_TRUE(reader->LoadLinks());
  EXPECT_EQ(Requests("GET", "/drive/v3/files") - listings, 3);
  const std::pair<const char*, const char*> expected[] = {{"Letter.url", "docx"},
                                                          {"Budget.url", "xlsx"},
                                                          {"Talk.url", "pptx"},
                                                          {"Sketch.url", "jpeg"},
                                                          {"Sized.url", "docx"}};
  for (const auto& [path, extension] : expected) {
    EXPECT_TRUE(reader->HasLink(path)) << path;
    EXPECT_EQ(reader->GetExtension(path), extension) << path;
  }
  EXPECT_FALSE(reader->HasLink("Survey.url"));
  EXPECT_TRUE(log.Contains("No export links found for file Survey"));
  EXPECT_TRUE(log.Contains("Got links for google docs downloading."));
}

TEST_F(GoogleDocsReaderTest, SizesAreAskedByHeadOnlyWhereDriveTellsNone) {
  ASSERT_TRUE(reader->LoadLinks());
  std::uint64_t total = 0;
  ASSERT_TRUE(reader->GetTotalSize(&total));
  EXPECT_EQ(Requests("HEAD", "/feeds/download/"), 4);
  std::uint64_t expected = 0;
  for (const auto& [name, extension] : std::vector<std::pair<std::string, std::string>>{
           {"Letter", "docx"}, {"Budget", "xlsx"}, {"Talk", "pptx"}, {"Sketch", "jpeg"}})
    expected += emulators::GoogleDialect::ExportedBytes(ids[name], extension).size();
  EXPECT_EQ(total, expected);
}

TEST_F(GoogleDocsReaderTest, TheExportedBytesReadBackExact) {
  // With the links, and without them (Drive's export of the document).
  for (bool links : {true, false}) {
    SCOPED_TRACE(links);
    auto fresh =
        drive.factory->CreateSpecialDocsTypeRemoteReader(std::make_shared<CurlURLProcessorFactory>(
            std::make_shared<core::cookie::CookieOAuth>("t")));
    if (links) {
      ASSERT_TRUE(fresh->LoadLinks());
    }
    ASSERT_EQ(fresh->Open("Letter.url"), FileSystem::SUCCEEDED);
    std::uint64_t size = 0;
    ASSERT_EQ(fresh->ReadSizeHeader(&size), FileSystem::SUCCEEDED);
    std::string bytes;
    std::uint8_t block[1000];
    std::uint32_t done = 0;
    do {
      ASSERT_EQ(fresh->Read(block, sizeof block, &done), FileSystem::SUCCEEDED);
      bytes.append(reinterpret_cast<char*>(block), done);
    } while (done > 0);
    EXPECT_EQ(fresh->Close(), FileSystem::SUCCEEDED);
    const std::string expected = emulators::GoogleDialect::ExportedBytes(ids["Letter"], "docx");
    EXPECT_EQ(bytes, expected);
    EXPECT_EQ(size, expected.size());
  }
  EXPECT_EQ(Requests("GET", "/drive/v3/files/" + ids["Letter"] + "/export"), 1);
  // A path that is no item of the tree is refused without a request.
  std::size_t before = drive.emulator->server().Requests().size();
  EXPECT_EQ(reader->Open("Missing.url"), FileSystem::ITEM_MISSED);
  EXPECT_EQ(drive.emulator->server().Requests().size(), before);
}

class NoClients : public URLProcessorFactory {
 public:
  std::shared_ptr<URLProcessor> Create() override { return nullptr; }
};

TEST_F(GoogleDocsReaderTest, AReaderWithoutAClientDoesNothing) {
  auto inert = drive.factory->CreateSpecialDocsTypeRemoteReader(std::make_shared<NoClients>());
  EXPECT_TRUE(log.Contains("Failed to open http client."));
  std::size_t before = drive.emulator->server().Requests().size();
  EXPECT_FALSE(inert->LoadLinks());
  std::uint64_t total = 1;
  EXPECT_FALSE(inert->GetTotalSize(&total));
  EXPECT_EQ(inert->Open("Letter.url"), FileSystem::FATAL);
  std::uint32_t done = 1;
  std::uint8_t block[10];
  EXPECT_EQ(inert->Read(block, sizeof block, &done), FileSystem::FAILED);
  EXPECT_EQ(done, 0u);
  EXPECT_EQ(drive.emulator->server().Requests().size(), before);
}

}  // namespace
