#include "support/HeapUsage.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define CORVANE_SANITIZER_ALLOCATOR 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define CORVANE_SANITIZER_ALLOCATOR 1
#endif

#ifdef CORVANE_SANITIZER_ALLOCATOR
// Declared here rather than through <sanitizer/allocator_interface.h>, which gcc does not ship.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#else
#include <malloc.h>
#endif

namespace test {

std::size_t HeapInUse() {
#ifdef CORVANE_SANITIZER_ALLOCATOR
  // The sanitizers replace malloc, and mallinfo knows nothing of their heap.
  return __sanitizer_get_current_allocated_bytes();
#else
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
#endif
}

}  // namespace test
