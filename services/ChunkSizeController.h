// ChunkSizeController: the size of the next chunk of an upload session. Two successes in a row
// double it up to the maximum; two failures in a row halve it, rounded down to the granularity,
// but never below granularity << 10. A line that fails keeps its chunks small enough to get
// through, and a line that recovers earns the large chunks back.
//
//   ChunkSizeController chunking(128, 128 << 20, 128 << 20);
//   chunking.Report(sent);
//   std::uint64_t next = std::min(chunking.chunk, rest);
#pragma once

#include <cstdint>

class ChunkSizeController {
 public:
  ChunkSizeController(std::uint64_t granularity, std::uint64_t maxChunk, std::uint64_t initial);

  void Report(bool succeeded);

  int growAfter = 2;
  int shrinkAfter = 2;
  std::uint64_t minChunk;
  std::uint64_t granularity;
  std::uint64_t maxChunk;
  std::uint64_t chunk;
  std::uint64_t previousChunk;
  int successes = 0;
  int failures = 0;
  bool lastFailed = false;
};
