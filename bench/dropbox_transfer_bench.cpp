// Dropbox transfers through the emulator on loopback:
//
// - BM_DropboxUploadMemory: files of 100 MiB + 7 and 300 MiB + 7 written in odd-sized blocks
//   through the adapter's upload sessions, the emulator keeping only digests. The peak resident
//   memory of each upload is printed: it must not grow with the file's size.
// - BM_DropboxUpload, BM_DropboxDownload: 1 GiB up and down through the adapter, beside curl
//   sending the same bytes in an upload session (start, append_v2, finish) and reading the same
//   file back, against the same emulator.
//
//   build-release/bench/dropbox_transfer_bench
//   CORVANE_BENCH_SCALE=0.1 build-release/bench/dropbox_transfer_bench   # a tenth of the sizes
#include <benchmark/benchmark.h>

#include "support/EmulatedAccount.h"
#include "support/Measure.h"
#include "support/TransferBench.h"

namespace {

// Blocks of a size that falls on no chunk boundary.
constexpr std::uint32_t kOddBlock = 999983;
// What curl sends per request: below Dropbox's 150 MiB a request.
constexpr std::uint64_t kCurlPiece = 64ull << 20;

struct DropboxAccount : bench::EmulatedAccount {
  DropboxAccount()
      : bench::EmulatedAccount(emulators::MakeDialect("dropbox"), CloudServiceId::DROPBOX) {}

  bench::CurlRequest Content(const std::string& call, const std::string& arg,
                             const std::string& body_file) {
    bench::CurlRequest request = {"-X", "POST",
                                  "-H", std::string("Authorization: Bearer ") + kToken,
                                  "-H", "Dropbox-API-Arg: " + arg,
                                  "-H", "Content-Type: application/octet-stream"};
    if (body_file.empty()) {
      request.insert(request.end(), {"--data-binary", ""});
    } else {
      request.insert(request.end(), {"-T", body_file});
    }
    request.push_back(emulator().BaseUrl() + "/content/2/files/" + call);
    return request;
  }
};

// The "cursor" member of an append's or a finish's argument.
std::string Cursor(const std::string& session, std::uint64_t offset) {
  return R"("cursor":{"session_id":")" + session + R"(","offset":)" + std::to_string(offset) + "}";
}

// Start with the first piece; append the middle ones and finish with the last in one process.
bench::Timing CurlUpload(DropboxAccount& dropbox, const bench::Payload& payload,
                         const std::string& path) {
  const std::vector<std::string>& pieces = payload.pieces();
  return bench::RunCurlSteps({
      [&](const bench::Timing&) {
        return bench::RunCurl({dropbox.Content("upload_session/start", "{}", pieces[0])});
      },
      [&](const bench::Timing& started) {
        const std::string session = bench::JsonText(started.out, "session_id");
        std::vector<bench::CurlRequest> requests;
        for (std::size_t i = 1; i + 1 < pieces.size(); ++i) {
          requests.push_back(dropbox.Content("upload_session/append_v2",
                                             "{" + Cursor(session, i * payload.piece_size()) + "}",
                                             pieces[i]));
        }
        const std::uint64_t last_offset = (pieces.size() - 1) * payload.piece_size();
        const std::string finish =
            "{" + Cursor(session, pieces.size() > 1 ? last_offset : payload.size()) +
            R"(,"commit":{"path":"/)" + path + R"(","mode":"overwrite"}})";
        requests.push_back(dropbox.Content("upload_session/finish", finish,
                                           pieces.size() > 1 ? pieces.back() : std::string()));
        return bench::RunCurl(requests);
      },
  });
}

bench::Timing CurlDownload(DropboxAccount& dropbox, const std::string& path, std::uint64_t size) {
  const bench::CurlRequest request =
      dropbox.Content("download", R"({"path":"/)" + path + R"("})", std::string());
  return bench::CheckDownloaded(bench::RunCurl({bench::CountDownloaded(request)}), size);
}

// The emulator serves from a child process that keeps only digests: the peak is the adapter's.
// Registered first, so that the fork comes before this process has threads.
void BM_DropboxUploadMemory(benchmark::State& state) {
  const std::uint64_t size = bench::ScaledBytes(state.range(0) << 20) + 7;
  bench::EmulatedAccount dropbox(
      emulators::MakeDialect("dropbox"), CloudServiceId::DROPBOX,
      [](emulators::CloudAccount& account) { account.SetKeepContentLimit(0); });
  std::unique_ptr<RemoteFileSystem> fs = dropbox.Open();
  for (auto _ : state) {
    const bench::ResourceMeter meter;
    const bench::Timing timing =
        bench::UploadThrough(*fs, "upload.bin", bench::GeneratedContent(), size, kOddBlock);
    const bench::Reading reading = meter.Read();
    if (!timing.ok) {
      state.SkipWithError(timing.error.c_str());
      return;
    }
    state.counters["MiB"] = size / 1048576.0;
    state.counters["MBps"] = size / 1e6 / timing.seconds;
    state.counters["peak_MiB"] = reading.peak_bytes / 1048576.0;
    state.counters["peak_growth_MiB"] = reading.peak_growth_bytes / 1048576.0;
  }
}
BENCHMARK(BM_DropboxUploadMemory)
    ->Arg(100)
    ->Arg(300)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void BM_DropboxUpload(benchmark::State& state) {
  const std::uint64_t size = bench::ScaledBytes(1ull << 30);
  const bench::Payload payload(size, kCurlPiece);
  DropboxAccount dropbox;
  emulators::Item expected;
  dropbox.account().CreateGeneratedFile(dropbox.account().RootId(), "expected.bin", size,
                                        &expected);
  std::unique_ptr<RemoteFileSystem> fs = dropbox.Open();
  bench::MeasureTransfer(
      state, size,
      [&] {
        return bench::CheckStored(
            bench::UploadThrough(*fs, "ours.bin", payload.Source(), size, kOddBlock),
            dropbox.account(), "ours.bin", expected);
      },
      [&] {
        return bench::CheckStored(CurlUpload(dropbox, payload, "curl.bin"), dropbox.account(),
                                  "curl.bin", expected);
      });
}
BENCHMARK(BM_DropboxUpload)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_DropboxDownload(benchmark::State& state) {
  const std::uint64_t size = bench::ScaledBytes(1ull << 30);
  DropboxAccount dropbox;
  dropbox.account().CreateGeneratedFile(dropbox.account().RootId(), "download.bin", size, nullptr);
  std::unique_ptr<RemoteFileSystem> fs = dropbox.Open();
  bench::MeasureTransfer(
      state, size, [&] { return bench::DownloadThrough(*fs, "download.bin", size, kOddBlock); },
      [&] { return CurlDownload(dropbox, "download.bin", size); });
}
BENCHMARK(BM_DropboxDownload)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  return bench::RunBenchmarks(argc, argv);
}
