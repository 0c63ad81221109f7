// Streams 1 GiB up and down over loopback with CurlURLProcessor and with the curl command-line
// tool against the same in-process server, and prints both throughputs side by side.
//
//   build/bench/transport_bench [MiB]
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "core/CurlURLProcessor.h"
#include "emulators/HttpServer.h"

namespace {

using Clock = std::chrono::steady_clock;

double MiBPerSecond(std::uint64_t bytes, Clock::duration elapsed) {
  return static_cast<double>(bytes) / (1024.0 * 1024.0) /
         std::chrono::duration<double>(elapsed).count();
}

double Ours(emulators::HttpServer& server, std::uint64_t size, bool upload) {
  CurlURLProcessor http;
  http.Open(nullptr);
  URLProcessor::Request request;
  request.verb = upload ? "PUT" : "GET";
  request.url = DispatcherUrl::FromString(server.BaseUrl() + "/blob");
  std::vector<std::uint8_t> block(1024 * 1024, 0x5A);
  auto start = Clock::now();
  if (upload) {
    http.BeginUpload(request, size);
    for (std::uint64_t sent = 0; sent < size; sent += block.size()) {
      http.GetOutputStream()->Write(block.data(), static_cast<std::uint32_t>(block.size()));
    }
  } else {
    http.Send(request);
    std::uint32_t done = 0;
    while (http.GetInputStream()->Read(block.data(), static_cast<std::uint32_t>(block.size()),
                                       &done) == StreamResult::OK) {
    }
  }
  URLProcessor::Result result = http.Finish();
  auto elapsed = Clock::now() - start;
  if (URLProcessor::IsNetworkError(result)) {
    std::fprintf(stderr, "transfer failed: %s\n", ToString(result));
  }
  return MiBPerSecond(size, elapsed);
}

double Tool(const std::string& command, std::uint64_t size) {
  auto start = Clock::now();
  if (std::system(command.c_str()) != 0) {
    std::fprintf(stderr, "failed: %s\n", command.c_str());
  }
  return MiBPerSecond(size, Clock::now() - start);
}

}  // namespace

int main(int argc, char** argv) {
  std::uint64_t size = (argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1024) * 1024 * 1024;
  emulators::HttpServer server;
  server.Handle("GET", "/blob", [size](const emulators::HttpRequest&) {
    emulators::HttpResponse response;
    response.generated_size = size;
    return response;
  });
  server.Handle(
      "PUT", "/blob",
      [](const emulators::HttpRequest&) { return emulators::HttpResponse::Status(201); },
      emulators::Match::kExact, emulators::BodyMode::kHashOnly);

  // The tool uploads a sparse file of the same size, so no disk is read.
  std::string source = "/tmp/transport_bench_" + std::to_string(::getpid());
  std::filesystem::resize_file((std::ofstream(source), source), size);
  std::string url = server.BaseUrl() + "/blob";

  std::printf("%-10s %14s %14s\n", "MiB/s", "URLProcessor", "curl tool");
  std::printf("%-10s %14.1f %14.1f\n", "download", Ours(server, size, false),
              Tool("curl -s -o /dev/null " + url, size));
  std::printf("%-10s %14.1f %14.1f\n", "upload", Ours(server, size, true),
              Tool("curl -s -o /dev/null -T " + source + " " + url, size));
  std::filesystem::remove(source);
  return 0;
}
