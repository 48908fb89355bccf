#include "tools/Replicate/Concurrently.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace Replicate {

void forEachConcurrently(size_t count, size_t limit, const std::function<void(size_t)>& work) {
  std::atomic<size_t> next = 0;
  std::mutex mutex;
  std::exception_ptr first;
  const auto drain = [&] {
    for (size_t i = next++; i < count; i = next++) {
      try {
        work(i);
      } catch (...) {
        const std::lock_guard lock(mutex);
        if (!first) first = std::current_exception();
      }
    }
  };
  std::vector<std::thread> helpers;
  const size_t threads = std::min(count, limit);
  for (size_t i = 1; i < threads; ++i) {
    try {
      helpers.emplace_back(drain);
    } catch (const std::system_error&) {
      // Fewer threads only take longer: each takes the next item when done.
      break;
    }
  }
  drain();
  for (std::thread& helper : helpers) helper.join();
  if (first) std::rethrow_exception(first);
}

}  // namespace Replicate
