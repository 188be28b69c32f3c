#include "util/pipeline.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <thread>
#include <utility>

namespace sonderlark {
namespace {

// Waits until ready(counter) and returns the counter: spins a while, then sleeps.
template <typename Ready>
int64_t await(std::atomic<int64_t>& counter, Ready ready) {
  constexpr int kSpins = 4096;
  for (int spin = 0; spin < kSpins; ++spin) {
    const int64_t v = counter.load();
    if (ready(v)) return v;
#if defined(__x86_64__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
  }
  for (;;) {
    const int64_t v = counter.load();
    if (ready(v)) return v;
    counter.wait(v);
  }
}

void publish(std::atomic<int64_t>& counter, int64_t value) {
  counter.store(value);
  counter.notify_one();
}

}  // namespace

void one_pass(int64_t n, int64_t block, const BlockStep& fill, const BlockStep& first, const BlockStep& second) {
  if (n <= 0) return;
  const int64_t blocks = (n + block - 1) / block;
  const auto range = [&](int64_t k) { return std::pair{k * block, std::min(n, (k + 1) * block)}; };
  if (blocks < 2 || std::thread::hardware_concurrency() < 2) {
    for (int64_t k = 0; k < blocks; ++k) {
      const auto [from, to] = range(k);
      fill(0, from, to);
      first(0, from, to);
      second(0, from, to);
    }
    return;
  }
  std::atomic<int64_t> filled = 0;
  std::atomic<int64_t> done = 0;
  std::thread helper([&] {
    for (int64_t k = 0; k < blocks; ++k) {
      if (await(filled, [k](int64_t v) { return v > k || v < 0; }) < 0) return;
      const auto [from, to] = range(k);
      second(static_cast<std::size_t>(k) % kPassWindows, from, to);
      publish(done, k + 1);
    }
  });
  std::exception_ptr failure;
  for (int64_t k = 0; k < blocks; ++k) {
    await(done, [k](int64_t d) { return d >= k - static_cast<int64_t>(kPassWindows) + 1; });
    const auto [from, to] = range(k);
    const std::size_t w = static_cast<std::size_t>(k) % kPassWindows;
    try {
      fill(w, from, to);
    } catch (...) {
      failure = std::current_exception();
      publish(filled, -1);
      break;
    }
    first(w, from, to);
    publish(filled, k + 1);
  }
  helper.join();
  if (failure) std::rethrow_exception(failure);
}

}  // namespace sonderlark
