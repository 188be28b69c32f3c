#include "dsp/lag_kernels.h"

#include <algorithm>
#include <cassert>
#include <cmath>

#include "dsp/direction.h"
#include "dsp/lag_lanes.h"

namespace sonderlark {
namespace {

// The score of one lag, literally: two passes over the overlap in index
// order. The reference every vector kernel reproduces.
double scalar_score(const double* a, const double* b, int64_t n, int64_t lag) {
  const LagOverlap o = lag_overlap(n, lag);
  const int64_t m = o.end - o.begin;
  if (n == 0 || m < kMinOverlapPairs) return 0.0;
  double sum_a = 0.0;
  double sum_b = 0.0;
  add_lag_sums(a, b, lag, o.begin, o.end, sum_a, sum_b);
  const double mean_a = sum_a / static_cast<double>(m);
  const double mean_b = sum_b / static_cast<double>(m);
  double ab = 0.0;
  double aa = 0.0;
  double bb = 0.0;
  add_lag_products(a, b, lag, o.begin, o.end, mean_a, mean_b, ab, aa, bb);
  return lag_score(m, ab, aa, bb);
}

using GroupKernel = void (*)(const double*, const double*, int64_t, const int32_t*, int, double*);

struct Kernel {
  GroupKernel run;
  int lanes;
};

Kernel group_kernel(LagKernel kernel) {
#if defined(__x86_64__)
  if (kernel == LagKernel::kAvx2) return {lag_sweep_4, 4};
  if (kernel == LagKernel::kAvx512) return {lag_sweep_8, 8};
#endif
  (void)kernel;
  return {lag_sweep_2, 2};
}

}  // namespace

std::vector<LagKernel> available_lag_kernels() {
  std::vector<LagKernel> kernels = {LagKernel::kScalar, LagKernel::kPortable};
#if defined(__x86_64__)
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) kernels.push_back(LagKernel::kAvx2);
  if (__builtin_cpu_supports("avx512f")) kernels.push_back(LagKernel::kAvx512);
#endif
  return kernels;
}

LagKernel default_lag_kernel() {
  static const LagKernel best = available_lag_kernels().back();
  return best;
}

void lag_scores(LagKernel kernel, std::span<const double> a, std::span<const double> b, int32_t max_lag,
                double* scores) {
  assert(max_lag >= 0);
  const int64_t n = static_cast<int64_t>(std::min(a.size(), b.size()));
  const int64_t lags = 2 * static_cast<int64_t>(max_lag) + 1;
  Kernel run = group_kernel(kernel);
  if (lags < run.lanes) run = group_kernel(LagKernel::kPortable);
  if (kernel == LagKernel::kScalar || lags < run.lanes) {
    for (int64_t k = 0; k < lags; ++k) scores[k] = scalar_score(a.data(), b.data(), n, k - max_lag);
    return;
  }
  // Groups of W lags from -max_lag; the last group ends at +max_lag and may
  // overlap the one before (those lags are simply computed twice).
  const int w = run.lanes;
  const std::size_t needed = static_cast<std::size_t>(lags / w + 2);
  int32_t stack_starts[32];
  std::vector<int32_t> heap_starts(needed > 32 ? needed : 0);
  int32_t* starts = needed > 32 ? heap_starts.data() : stack_starts;
  std::size_t groups_total = 0;
  for (int64_t s = -max_lag; s + w - 1 <= max_lag; s += w) starts[groups_total++] = static_cast<int32_t>(s);
  if (starts[groups_total - 1] + w - 1 < max_lag) starts[groups_total++] = max_lag - w + 1;
  const std::size_t groups_per_sweep = kMaxLagGroupsPerSweep;
  double out[kMaxLagGroupsPerSweep * 8];
  for (std::size_t first = 0; first < groups_total; first += groups_per_sweep) {
    const int groups = static_cast<int>(std::min(groups_per_sweep, groups_total - first));
    run.run(a.data(), b.data(), n, starts + first, groups, out);
    for (int g = 0; g < groups; ++g) {
      for (int j = 0; j < w; ++j) scores[starts[first + static_cast<std::size_t>(g)] + j + max_lag] = out[g * w + j];
    }
  }
}

}  // namespace sonderlark
