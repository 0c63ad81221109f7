// Content hashes computed apart from the library, for the tests that check its calculators and
// the tool: digests by the openssl command line, QuickXorHash bit by bit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace test {

// The lower-case hex digest of a file by `openssl dgst -ALGORITHM` ("md5", "sha1", "sha256").
std::string OpensslDigestOf(const std::string& path, const std::string& algorithm);

// Dropbox's composition by shell tools: the file split in 4 MiB pieces (written as
// `scratch_prefix` + a suffix), SHA-256 over the concatenated binary SHA-256 of each piece.
std::string DropboxHashByOpenssl(const std::string& path, const std::string& scratch_prefix);

// QuickXorHash as Microsoft describes it, one bit at a time, in lower-case hex.
std::string QuickXorReference(const std::uint8_t* data, std::size_t size);

}  // namespace test
