#include "services/ChunkSizeController.h"

#include <algorithm>

ChunkSizeController::ChunkSizeController(std::uint64_t granularity, std::uint64_t maxChunk,
                                         std::uint64_t initial)
    : minChunk(granularity << 10),
      granularity(granularity),
      maxChunk(maxChunk),
      chunk(initial),
      previousChunk(initial) {}

void ChunkSizeController::Report(bool succeeded) {
  if (succeeded) {
    failures = 0;
    if (++successes >= growAfter) {
      previousChunk = chunk;
      lastFailed = false;
      chunk = std::min(2 * chunk, maxChunk);
      successes = 0;
    }
    return;
  }
  lastFailed = true;
  successes = 0;
  if (++failures >= shrinkAfter) {
    previousChunk = chunk;
    const std::uint64_t half = chunk / 2;
    chunk = half < minChunk ? minChunk : half - half % granularity;
    failures = 0;
  }
}
