// TransferBench: the pieces of a transfer benchmark through an emulator beside the curl tool: a
// generated payload on disk, an upload and a download through an adapter, curl timed as a child
// process, and the figures in MB/s.
//
//   bench::Payload payload(1ull << 30, 64ull << 20);      // 1 GiB of PatternBytes, in 16 files
//   bench::MeasureTransfer(
//       state, payload.size(),
//       [&] { return bench::UploadThrough(*fs, "a.bin", payload.Source(), payload.size(), 4096); },
//       [&] { return bench::RunCurl({{"-T", payload.pieces()[0], url}}); });
//
// Both sides read the same bytes from the same files (in the page cache after the first run) and
// talk to the same emulator on loopback. The emulator hashes what it receives and generates what
// it sends in this process, so its work is in both sides' time alike.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/RemoteFileSystem.h"
#include "emulators/CloudAccount.h"
#include "support/Processes.h"

namespace bench {

// 1 GiB, or its share of CORVANE_BENCH_SCALE.
std::uint64_t ScaledBytes(std::uint64_t bytes);

// Fills `out` with the `size` bytes of the content at `offset`.
using ContentSource =
    std::function<bool(std::uint64_t offset, std::uint8_t* out, std::size_t size)>;

// The bytes the emulators generate for a seeded file (emulators::PatternBytes), made as read.
ContentSource GeneratedContent();

// Those bytes on disk in files of `piece_size` bytes (the last one shorter), for curl to send
// piece by piece as the services' upload sessions take them.
class Payload {
 public:
  Payload(std::uint64_t size, std::uint64_t piece_size);
  std::uint64_t size() const { return size_; }
  std::uint64_t piece_size() const { return piece_size_; }
  const std::vector<std::string>& pieces() const { return pieces_; }
  // The files read in order, as one content.
  ContentSource Source() const;

 private:
  test::TempDir dir_;
  std::uint64_t size_;
  std::uint64_t piece_size_;
  std::vector<std::string> pieces_;
};

struct Timing {
  bool ok = false;
  double seconds = 0;
  std::string error;  // why a side has no figure
  std::string out;    // curl's standard output
};

// The account's tree and the service's hash of the content first (untimed, as the core has them
// before an upload), then
// OpenForCreate, WriteFile in blocks of `block` bytes and CloseFile, timed. No figure when the
// server's hash that CloseFile reports differs from the announced one.
Timing UploadThrough(RemoteFileSystem& fs, const std::string& path, const ContentSource& content,
                     std::uint64_t size, std::uint32_t block);
// The file's node from a tree of the account (untimed), then OpenForRead of the whole file,
// ReadFile in blocks of `block` bytes until `size` came, and CloseFile, timed. The adapter checks
// what came against the node's hash or size.
Timing DownloadThrough(RemoteFileSystem& fs, const std::string& path, std::uint64_t size,
                       std::uint32_t block);

// One curl process, timed, for one or more requests on one connection: each group of arguments
// is a request, failing on an HTTP error ("-f"), joined to the next by "--next". Its standard
// output in Timing::out.
using CurlRequest = std::vector<std::string>;
Timing RunCurl(const std::vector<CurlRequest>& requests);
// Steps one after the other (a later one may need what an earlier one printed); the sum of their
// times, and the last step's output.
Timing RunCurlSteps(const std::vector<std::function<Timing(const Timing& previous)>>& steps);

// The arguments that make a curl request print the count of the bytes it read and drop them, and
// the check of that count: no figure for a download that read other than `size` bytes.
CurlRequest CountDownloaded(CurlRequest request);
Timing CheckDownloaded(Timing download, std::uint64_t size);

// The string `key` of the JSON object `json` (a session id, an upload URL); empty when missing.
std::string JsonText(const std::string& json, const char* key);

// An upload's timing, or no figure when the account doesn't hold at `path` the size and SHA-256
// of `expected` (a generated file of the same size).
Timing CheckStored(Timing upload, const emulators::CloudAccount& account, const std::string& path,
                   const emulators::Item& expected);

// Runs ours and then curl's side once per iteration, and sets "ours_MBps", "curl_MBps" and
// "ratio" (ours over curl's; above 1 is better). A side that failed ends the benchmark with its
// error.
void MeasureTransfer(benchmark::State& state, std::uint64_t bytes,
                     const std::function<Timing()>& ours, const std::function<Timing()>& curl);

}  // namespace bench
