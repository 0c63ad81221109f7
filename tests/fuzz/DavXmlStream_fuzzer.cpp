// Any bytes through the listing's XML reader, whole and split over reads at places the input
// chooses: no crash, the same verdict and, for a good document, the same tokens whatever the
// splits, with every end tag closing the element it should.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "core/InputStream.h"
#include "tests/fuzz/FuzzInput.h"
#include "tests/fuzz/SplitReads.h"
#include "tests/support/XmlTokens.h"

namespace {

bool Balanced(const std::vector<std::string>& tokens) {
  std::vector<std::string> open;
  for (const std::string& token : tokens) {
    if (token[0] == '<') {
      open.push_back(token.substr(1));
    } else if (token[0] == '>') {
      if (open.empty() || open.back() != token.substr(1)) {
        return false;
      }
      open.pop_back();
    } else if (open.empty()) {
      return false;  // text outside the root
    }
  }
  return open.empty() && !tokens.empty();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::QuietLog();
  const auto [body, splits] = fuzz::SplitInput(data, size, 16);
  MemoryInputStream wholeInput(body);
  const test::XmlTokens whole = test::ReadXmlTokens(wholeInput);
  MemoryInputStream splitInput(body);
  splitInput.SetBlockSizes(splits);
  const test::XmlTokens split = test::ReadXmlTokens(splitInput);
  if (whole.state != split.state ||
      (body.empty() != (whole.state == DavXmlStream::kStreamFailed))) {
    std::abort();
  }
  if (whole.state == DavXmlStream::kGood &&
      (whole.tokens != split.tokens || !Balanced(whole.tokens))) {
    std::abort();
  }
  return 0;
}
