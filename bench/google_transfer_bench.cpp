// Google Drive transfers through the emulator on loopback: 1 GiB up through the adapter's
// resumable session (one streaming PUT) and down through one "alt=media" GET, each beside curl
// doing the same against the same emulator (the session POST and the PUT; the GET). The emulator
// keeps only the digests of what it receives.
//
//   build-release/bench/google_transfer_bench
//   CORVANE_BENCH_SCALE=0.1 build-release/bench/google_transfer_bench   # a tenth of the size
#include <benchmark/benchmark.h>

#include <cctype>
#include <string>

#include "support/EmulatedAccount.h"
#include "support/Measure.h"
#include "support/TransferBench.h"

namespace {

// Blocks of a size that falls on no boundary the server knows.
constexpr std::uint32_t kOddBlock = 999983;

struct GoogleAccount : bench::EmulatedAccount {
  GoogleAccount()
      : bench::EmulatedAccount(emulators::MakeDialect("google"), CloudServiceId::GOOGLE) {}

  std::string Authorization() const { return std::string("Authorization: Bearer ") + kToken; }
};

// The session's URL from the head curl printed ("-D -").
std::string Location(const std::string& head) {
  const std::string name = "location:";
  std::string lower = head;
  for (char& c : lower)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  std::size_t at = lower.find(name);
  if (at == std::string::npos)
    return std::string();
  std::size_t start = head.find_first_not_of(' ', at + name.size());
  return head.substr(start, head.find_first_of("\r\n", start) - start);
}

bench::Timing CurlUpload(GoogleAccount& google, const bench::Payload& payload,
                         const std::string& name) {
  return bench::RunCurlSteps({
      [&](const bench::Timing&) {
        return bench::RunCurl(
            {{"-X", "POST", "-D", "-", "-H", google.Authorization(), "-H",
              "Content-Type: application/json", "--data-binary", R"({"name":")" + name + R"("})",
              google.emulator().BaseUrl() + "/upload/drive/v3/files?uploadType=resumable"}});
      },
      [&](const bench::Timing& session) {
        return bench::RunCurl({{"-X", "PUT", "-T", payload.pieces()[0], Location(session.out)}});
      },
  });
}

bench::Timing CurlDownload(GoogleAccount& google, const std::string& id, std::uint64_t size) {
  const bench::CurlRequest request = {
      "-H", google.Authorization(),
      google.emulator().BaseUrl() + "/drive/v3/files/" + id + "?alt=media"};
  return bench::CheckDownloaded(bench::RunCurl({bench::CountDownloaded(request)}), size);
}

void BM_GoogleUpload(benchmark::State& state) {
  const std::uint64_t size = bench::ScaledBytes(1ull << 30);
  // Drive's session takes the whole file in one PUT: one piece for curl too.
  const bench::Payload payload(size, size);
  GoogleAccount google;
  emulators::Item expected;
  google.account().CreateGeneratedFile(google.account().RootId(), "expected.bin", size, &expected);
  std::unique_ptr<RemoteFileSystem> fs = google.Open();
  bench::MeasureTransfer(
      state, size,
      [&] {
        return bench::CheckStored(
            bench::UploadThrough(*fs, "ours.bin", payload.Source(), size, kOddBlock),
            google.account(), "ours.bin", expected);
      },
      [&] {
        return bench::CheckStored(CurlUpload(google, payload, "curl.bin"), google.account(),
                                  "curl.bin", expected);
      });
}
BENCHMARK(BM_GoogleUpload)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_GoogleDownload(benchmark::State& state) {
  const std::uint64_t size = bench::ScaledBytes(1ull << 30);
  GoogleAccount google;
  emulators::Item file;
  google.account().CreateGeneratedFile(google.account().RootId(), "download.bin", size, &file);
  std::unique_ptr<RemoteFileSystem> fs = google.Open();
  bench::MeasureTransfer(
      state, size, [&] { return bench::DownloadThrough(*fs, "download.bin", size, kOddBlock); },
      [&] { return CurlDownload(google, file.id, size); });
}
BENCHMARK(BM_GoogleDownload)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  return bench::RunBenchmarks(argc, argv);
}
