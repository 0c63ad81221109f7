// Any text as a folder's description: the reader of our backup record never crashes, what it
// accepts is written back to text it accepts again, and a second writing changes nothing more
// (the first may replace bytes that are no UTF-8).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "services/OneDriveBackupDescription.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  OneDriveBackupDescription description;
  if (!OneDriveBackupDescription::Parse(std::string(reinterpret_cast<const char*>(data), size),
                                        &description))
    return 0;
  OneDriveBackupDescription once, twice;
  if (!OneDriveBackupDescription::Parse(description.ToText(), &once) ||
      !OneDriveBackupDescription::Parse(once.ToText(), &twice) || once.ToText() != twice.ToText() ||
      once.localPathList.size() != description.localPathList.size())
    std::abort();
  return 0;
}
