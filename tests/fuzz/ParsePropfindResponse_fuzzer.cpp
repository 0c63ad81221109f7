// Any body through the listing parser, split over reads at places the input chooses: the parse
// ends without a crash, never hands out an empty name, and gives the same answer whatever the
// splits.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "core/InputStream.h"
#include "services/DavListingParser.h"
#include "services/ParseFolderListener.h"
#include "tests/fuzz/FuzzInput.h"
#include "tests/fuzz/SplitReads.h"
#include "tests/support/PassThroughNameMapper.h"

namespace {

class RecordingListener : public auxil::ParseFolderListener {
 public:
  bool AddFolder(std::string&& name) override {
    if (name.empty()) {
      std::abort();  // the parser must never hand out an empty name
    }
    events.push_back("d" + name);
    return true;
  }
  bool AddFile(std::string&& name, std::uint64_t size, std::uint64_t modified,
               const std::string& etag) override {
    if (name.empty()) {
      std::abort();
    }
    events.push_back("f" + name + "/" + std::to_string(size) + "/" + std::to_string(modified) +
                     "/" + etag);
    return true;
  }
  std::vector<std::string> events;
};

std::pair<bool, std::vector<std::string>> Parse(const std::string& body,
                                                std::vector<std::uint32_t> splits) {
  MemoryInputStream input(body);
  input.SetBlockSizes(std::move(splits));
  test::PassThroughNameMapper mapper;
  RecordingListener listener;
  const bool ok =
      auxil::ParsePropfindResponse(&input, listener, "https://dav.test/dav/folder/", &mapper);
  return {ok, std::move(listener.events)};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::QuietLog();
  const auto [body, splits] = fuzz::SplitInput(data, size, 64);
  const auto whole = Parse(body, {});
  const auto split = Parse(body, splits);
  // Whether a body is a good listing, and what it lists, may not depend on the splits. What a
  // failing parse handed out before it failed may: the reader looks further ahead in a larger read.
  if (whole.first != split.first || (whole.first && whole.second != split.second)) {
    std::abort();
  }
  return 0;
}
