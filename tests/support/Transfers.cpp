#include "support/Transfers.h"

#include <algorithm>

namespace test {

FileSystem::Result WriteFrom(RemoteFileSystem& fs, const std::string& content, std::uint64_t from,
                             std::uint32_t block) {
  for (std::uint64_t done = from; done < content.size();) {
    const std::uint32_t n =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(block, content.size() - done));
    const FileSystem::Result written =
        fs.WriteFile(reinterpret_cast<const std::uint8_t*>(content.data()) + done, n);
    if (written != FileSystem::SUCCEEDED) {
      fs.CloseFile(nullptr);
      return written;
    }
    done += n;
  }
  return FileSystem::SUCCEEDED;
}

}  // namespace test
