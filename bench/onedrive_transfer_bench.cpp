// OneDrive transfers through the Graph emulator on loopback: 1 GiB up and down through the
// adapter, beside curl sending the same bytes in an upload session (createUploadSession, then the
// pieces to the upload URL) and reading the same file back (the content request's redirect, then
// the download URL), against the same emulator.
//
//   build-release/bench/onedrive_transfer_bench
//   CORVANE_BENCH_SCALE=0.1 build-release/bench/onedrive_transfer_bench   # 102 MiB
#include <benchmark/benchmark.h>

#include "support/EmulatedAccount.h"
#include "support/Measure.h"
#include "support/TransferBench.h"

namespace {

// Blocks of a size that falls on no chunk boundary.
constexpr std::uint32_t kOddBlock = 999983;
// What curl sends per request: the adapter's own chunk, 150 times Graph's 320 KiB step.
constexpr std::uint64_t kCurlPiece = 49152000;

struct OneDriveAccount : bench::EmulatedAccount {
  OneDriveAccount()
      : bench::EmulatedAccount(emulators::MakeDialect("onedrive"), CloudServiceId::ONEDRIVE) {}

  std::string ItemUrl(const std::string& path, const std::string& call) {
    return emulator().BaseUrl() + "/v1.0/me/drive/root:/" + path + ":/" + call;
  }
  static std::string Authorization() { return std::string("Authorization: Bearer ") + kToken; }
};

bench::Timing CurlUpload(OneDriveAccount& drive, const bench::Payload& payload,
                         const std::string& path) {
  return bench::RunCurlSteps({
      [&](const bench::Timing&) {
        return bench::RunCurl({{"-X", "POST", "-H", OneDriveAccount::Authorization(), "-H",
                                "Content-Type: application/json", "--data-binary",
                                R"({"item":{"@microsoft.graph.conflictBehavior":"replace"}})",
                                drive.ItemUrl(path, "createUploadSession")}});
      },
      [&](const bench::Timing& created) {
        // The upload URL is pre-authorized: no token goes to it.
        const std::string url = bench::JsonText(created.out, "uploadUrl");
        std::vector<bench::CurlRequest> requests;
        for (std::size_t i = 0; i < payload.pieces().size(); ++i) {
          const std::uint64_t first = i * payload.piece_size();
          const std::uint64_t last = std::min(payload.size(), first + payload.piece_size()) - 1;
          requests.push_back({"-o", "/dev/null", "-H",
                              "Content-Range: bytes " + std::to_string(first) + "-" +
                                  std::to_string(last) + "/" + std::to_string(payload.size()),
                              "-T", payload.pieces()[i], url});
        }
        return bench::RunCurl(requests);
      },
  });
}

bench::Timing CurlDownload(OneDriveAccount& drive, const std::string& path, std::uint64_t size) {
  return bench::RunCurlSteps({
      [&](const bench::Timing&) {
        return bench::RunCurl({{"-o", "/dev/null", "-w", "%{redirect_url}", "-H",
                                OneDriveAccount::Authorization(), drive.ItemUrl(path, "content")}});
      },
      [&](const bench::Timing& redirected) {
        return bench::CheckDownloaded(bench::RunCurl({bench::CountDownloaded({redirected.out})}),
                                      size);
      },
  });
}

void BM_OneDriveUpload(benchmark::State& state) {
  const std::uint64_t size = bench::ScaledBytes(1ull << 30);
  const bench::Payload payload(size, kCurlPiece);
  OneDriveAccount drive;
  emulators::Item expected;
  drive.account().CreateGeneratedFile(drive.account().RootId(), "expected.bin", size, &expected);
  std::unique_ptr<RemoteFileSystem> fs = drive.Open();
  bench::MeasureTransfer(
      state, size,
      [&] {
        return bench::CheckStored(
            bench::UploadThrough(*fs, "ours.bin", payload.Source(), size, kOddBlock),
            drive.account(), "ours.bin", expected);
      },
      [&] {
        return bench::CheckStored(CurlUpload(drive, payload, "curl.bin"), drive.account(),
                                  "curl.bin", expected);
      });
}
BENCHMARK(BM_OneDriveUpload)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_OneDriveDownload(benchmark::State& state) {
  const std::uint64_t size = bench::ScaledBytes(1ull << 30);
  OneDriveAccount drive;
  drive.account().CreateGeneratedFile(drive.account().RootId(), "download.bin", size, nullptr);
  std::unique_ptr<RemoteFileSystem> fs = drive.Open();
  bench::MeasureTransfer(
      state, size, [&] { return bench::DownloadThrough(*fs, "download.bin", size, kOddBlock); },
      [&] { return CurlDownload(drive, "download.bin", size); });
}
BENCHMARK(BM_OneDriveDownload)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  return bench::RunBenchmarks(argc, argv);
}
