// Transfers: the body of an upload as the core sends it, for the suites that drive an adapter's
// write path by hand.
//
//   if (fs.OpenForCreate(..., &resume, false) == FileSystem::SUCCEEDED)
//     result = test::WriteFrom(fs, content, resume, 64 * 1024);
#pragma once

#include <cstdint>
#include <string>

#include "core/RemoteFileSystem.h"

namespace test {

// `content` from byte `from` on in blocks of `block` bytes; on the first failed block the file is
// closed without properties and that block's Result answered.
FileSystem::Result WriteFrom(RemoteFileSystem& fs, const std::string& content, std::uint64_t from,
                             std::uint32_t block);

}  // namespace test
