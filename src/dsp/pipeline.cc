#include "dsp/pipeline.h"

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

Window make_window(std::size_t channels, std::size_t block) {
  Window w;
  w.samples.assign(channels, std::vector<double>(block + 2 * kHalo));
  for (auto& channel : w.samples) w.at.push_back(channel.data());
  return w;
}

std::vector<const double*> block_start(const Window& w, int64_t from) {
  std::vector<const double*> p;
  for (double* channel : w.at) p.push_back(channel + (from - w.origin));
  return p;
}

void one_pass(int64_t n, int64_t block, Windows& windows, const Fill& fill, const Work& first, const Work& second) {
  if (n <= 0) return;
  const int64_t blocks = (n + block - 1) / block;
  const auto range = [&](int64_t k) { return std::pair{k * block, std::min(n, (k + 1) * block)}; };
  if (blocks < 2 || std::thread::hardware_concurrency() < 2) {
    for (int64_t k = 0; k < blocks; ++k) {
      const auto [from, to] = range(k);
      fill(windows[0], from, to);
      first(windows[0], from, to);
      second(windows[0], from, to);
    }
    return;
  }
  std::atomic<int64_t> filled = 0;
  std::atomic<int64_t> done = 0;
  std::thread helper([&] {
    for (int64_t k = 0; k < blocks; ++k) {
      if (await(filled, [k](int64_t v) { return v > k || v < 0; }) < 0) return;
      const auto [from, to] = range(k);
      second(windows[static_cast<std::size_t>(k) % kWindows], from, to);
      publish(done, k + 1);
    }
  });
  std::exception_ptr failure;
  for (int64_t k = 0; k < blocks; ++k) {
    await(done, [k](int64_t d) { return d >= k - static_cast<int64_t>(kWindows) + 1; });
    const auto [from, to] = range(k);
    Window& w = windows[static_cast<std::size_t>(k) % kWindows];
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
