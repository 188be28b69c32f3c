#include "dsp/lag_kernels.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "dsp/direction.h"

namespace sonderlark {
namespace {

// W lags side by side. GCC and Clang lower these vectors to SSE2 pairs on
// plain x86-64 and to single registers where AVX or AVX-512 is enabled; each
// lane is ordinary IEEE double arithmetic either way (no contraction:
// -ffp-contract=off), so every width gives the same bits.
template <int W>
struct LaneVector {
  typedef double type __attribute__((vector_size(W * sizeof(double))));
};
// These helpers pass vectors by value only between inlined internal functions,
// so the AVX calling-convention note does not concern any interface.
#pragma GCC diagnostic ignored "-Wpsabi"
constexpr int kMaxLanesPerSweep = 24;  // all 17 lags of a +-8 search in one sweep

template <int W>
__attribute__((always_inline)) inline typename LaneVector<W>::type load(const double* p) {
  typename LaneVector<W>::type v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

template <int W>
__attribute__((always_inline)) inline typename LaneVector<W>::type splat(double x) {
  return typename LaneVector<W>::type{} + x;  // the scalar is broadcast
}

struct Overlap {
  int64_t begin;  // first i with 0 <= i + lag < n
  int64_t end;
};

Overlap overlap_of(int64_t n, int64_t lag) { return {std::max<int64_t>(0, -lag), std::min<int64_t>(n, n - lag)}; }

// The score of one lag, literally: two passes over the overlap in index order.
double scalar_score(const double* a, const double* b, int64_t n, int64_t lag) {
  const Overlap o = overlap_of(n, lag);
  const int64_t m = o.end - o.begin;
  if (n == 0 || m < kMinOverlapPairs) return 0.0;
  double sum_a = 0.0;
  double sum_b = 0.0;
  for (int64_t i = o.begin; i < o.end; ++i) {
    sum_a += a[i];
    sum_b += b[i + lag];
  }
  const double mean_a = sum_a / static_cast<double>(m);
  const double mean_b = sum_b / static_cast<double>(m);
  double sab = 0.0;
  double saa = 0.0;
  double sbb = 0.0;
  for (int64_t i = o.begin; i < o.end; ++i) {
    const double da = a[i] - mean_a;
    const double db = b[i + lag] - mean_b;
    sab += da * db;
    saa += da * da;
    sbb += db * db;
  }
  if (saa > 0.0 && sbb > 0.0) return sab / std::sqrt(saa * sbb);
  return 0.0;
}

// Scores groups of W consecutive lags, starts[g] .. starts[g] + W - 1, in one
// sweep per pass. Every lane's sum is its lag's literal sum: the indices
// that only some lanes cover (near the ends) are added one by one before and
// after the shared range, so each lane still adds in index order.
template <int W>
__attribute__((always_inline)) inline void score_groups(const double* a, const double* b, int64_t n,
                                                        const int32_t* starts, int groups, double* out) {
  using Lanes = typename LaneVector<W>::type;
  constexpr int kLanes = W;
  constexpr int kMaxGroups = kMaxLanesPerSweep / W;
  const int64_t lowest = starts[0];
  const int64_t highest = starts[groups - 1] + kLanes - 1;
  const int64_t shared_begin = std::max<int64_t>(0, -lowest);
  // Empty when the input is short: then the lanes do all the work one by one.
  const int64_t shared_end = std::max(shared_begin, std::min<int64_t>(n, n - highest));

  Lanes sum_a[kMaxGroups];
  Lanes sum_b[kMaxGroups];
  double lane_a[kMaxGroups][kLanes];
  double lane_b[kMaxGroups][kLanes];
  for (int g = 0; g < groups; ++g) {
    for (int j = 0; j < kLanes; ++j) {
      const int64_t lag = starts[g] + j;
      double sa = 0.0;
      double sb = 0.0;
      const Overlap o = overlap_of(n, lag);
      for (int64_t i = o.begin; i < std::min(shared_begin, o.end); ++i) {
        sa += a[i];
        sb += b[i + lag];
      }
      lane_a[g][j] = sa;
      lane_b[g][j] = sb;
    }
    std::memcpy(&sum_a[g], lane_a[g], sizeof(Lanes));
    std::memcpy(&sum_b[g], lane_b[g], sizeof(Lanes));
  }
  for (int64_t i = shared_begin; i < shared_end; ++i) {
    const Lanes ai = splat<W>(a[i]);
    for (int g = 0; g < groups; ++g) {
      sum_a[g] += ai;
      sum_b[g] += load<W>(b + i + starts[g]);
    }
  }
  Lanes mean_a[kMaxGroups];
  Lanes mean_b[kMaxGroups];
  double count[kMaxGroups][kLanes];
  for (int g = 0; g < groups; ++g) {
    std::memcpy(lane_a[g], &sum_a[g], sizeof(Lanes));
    std::memcpy(lane_b[g], &sum_b[g], sizeof(Lanes));
    for (int j = 0; j < kLanes; ++j) {
      const int64_t lag = starts[g] + j;
      const Overlap o = overlap_of(n, lag);
      for (int64_t i = std::max(shared_end, o.begin); i < o.end; ++i) {
        lane_a[g][j] += a[i];
        lane_b[g][j] += b[i + lag];
      }
      count[g][j] = static_cast<double>(o.end - o.begin);
      lane_a[g][j] /= count[g][j];
      lane_b[g][j] /= count[g][j];
    }
    std::memcpy(&mean_a[g], lane_a[g], sizeof(Lanes));
    std::memcpy(&mean_b[g], lane_b[g], sizeof(Lanes));
  }

  Lanes sab[kMaxGroups];
  Lanes saa[kMaxGroups];
  Lanes sbb[kMaxGroups];
  double lane_ab[kMaxGroups][kLanes];
  double lane_aa[kMaxGroups][kLanes];
  double lane_bb[kMaxGroups][kLanes];
  for (int g = 0; g < groups; ++g) {
    for (int j = 0; j < kLanes; ++j) {
      const int64_t lag = starts[g] + j;
      double s_ab = 0.0;
      double s_aa = 0.0;
      double s_bb = 0.0;
      const Overlap o = overlap_of(n, lag);
      for (int64_t i = o.begin; i < std::min(shared_begin, o.end); ++i) {
        const double da = a[i] - lane_a[g][j];
        const double db = b[i + lag] - lane_b[g][j];
        s_ab += da * db;
        s_aa += da * da;
        s_bb += db * db;
      }
      lane_ab[g][j] = s_ab;
      lane_aa[g][j] = s_aa;
      lane_bb[g][j] = s_bb;
    }
    std::memcpy(&sab[g], lane_ab[g], sizeof(Lanes));
    std::memcpy(&saa[g], lane_aa[g], sizeof(Lanes));
    std::memcpy(&sbb[g], lane_bb[g], sizeof(Lanes));
  }
  for (int64_t i = shared_begin; i < shared_end; ++i) {
    const Lanes ai = splat<W>(a[i]);
    for (int g = 0; g < groups; ++g) {
      const Lanes da = ai - mean_a[g];
      const Lanes db = load<W>(b + i + starts[g]) - mean_b[g];
      sab[g] += da * db;
      saa[g] += da * da;
      sbb[g] += db * db;
    }
  }
  for (int g = 0; g < groups; ++g) {
    std::memcpy(lane_ab[g], &sab[g], sizeof(Lanes));
    std::memcpy(lane_aa[g], &saa[g], sizeof(Lanes));
    std::memcpy(lane_bb[g], &sbb[g], sizeof(Lanes));
    for (int j = 0; j < kLanes; ++j) {
      const int64_t lag = starts[g] + j;
      const Overlap o = overlap_of(n, lag);
      for (int64_t i = std::max(shared_end, o.begin); i < o.end; ++i) {
        const double da = a[i] - lane_a[g][j];
        const double db = b[i + lag] - lane_b[g][j];
        lane_ab[g][j] += da * db;
        lane_aa[g][j] += da * da;
        lane_bb[g][j] += db * db;
      }
      double r = 0.0;
      if (count[g][j] >= kMinOverlapPairs && lane_aa[g][j] > 0.0 && lane_bb[g][j] > 0.0) {
        r = lane_ab[g][j] / std::sqrt(lane_aa[g][j] * lane_bb[g][j]);
      }
      out[g * kLanes + j] = r;
    }
  }
}

// Two lanes: one SSE2 register, which every x86-64 has.
void score_groups_portable(const double* a, const double* b, int64_t n, const int32_t* starts, int groups,
                           double* out) {
  score_groups<2>(a, b, n, starts, groups, out);
}

#if defined(__x86_64__)
__attribute__((target("avx2"))) void score_groups_avx2(const double* a, const double* b, int64_t n,
                                                       const int32_t* starts, int groups, double* out) {
  score_groups<4>(a, b, n, starts, groups, out);
}

__attribute__((target("avx512f"))) void score_groups_avx512(const double* a, const double* b, int64_t n,
                                                            const int32_t* starts, int groups, double* out) {
  score_groups<8>(a, b, n, starts, groups, out);
}
#endif

using GroupKernel = void (*)(const double*, const double*, int64_t, const int32_t*, int, double*);

struct Kernel {
  GroupKernel run;
  int lanes;
};

Kernel group_kernel(LagKernel kernel) {
#if defined(__x86_64__)
  if (kernel == LagKernel::kAvx2) return {score_groups_avx2, 4};
  if (kernel == LagKernel::kAvx512) return {score_groups_avx512, 8};
#endif
  (void)kernel;
  return {score_groups_portable, 2};
}

}  // namespace

std::vector<LagKernel> available_lag_kernels() {
  std::vector<LagKernel> kernels = {LagKernel::kScalar, LagKernel::kPortable};
#if defined(__x86_64__)
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx2")) kernels.push_back(LagKernel::kAvx2);
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
  const std::size_t groups_per_sweep = static_cast<std::size_t>(kMaxLanesPerSweep / w);
  double out[kMaxLanesPerSweep];
  for (std::size_t first = 0; first < groups_total; first += groups_per_sweep) {
    const int groups = static_cast<int>(std::min(groups_per_sweep, groups_total - first));
    run.run(a.data(), b.data(), n, starts + first, groups, out);
    for (int g = 0; g < groups; ++g) {
      for (int j = 0; j < w; ++j) scores[starts[first + static_cast<std::size_t>(g)] + j + max_lag] = out[g * w + j];
    }
  }
}

}  // namespace sonderlark
