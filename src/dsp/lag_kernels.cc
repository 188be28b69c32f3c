#include "dsp/lag_kernels.h"

#include <algorithm>
#include <cassert>
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

// Groups of W lags scored in one sweep. Each group keeps five vectors in
// registers (two means, three sums); three groups fit the register files of
// every width.
constexpr int kMaxGroupsPerSweep = 3;

template <int W>
__attribute__((always_inline)) inline typename LaneVector<W>::type load(const double* p) {
  typename LaneVector<W>::type v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

// Writes v's lanes to p. The vector is passed by value so that no array of
// vectors has its address taken, which would keep it out of registers.
template <int W>
__attribute__((always_inline)) inline void store(double* p, typename LaneVector<W>::type v) {
  std::memcpy(p, &v, sizeof v);
}

// The value at p in every lane. GCC assembles a wide vector of one scalar
// lane by lane; the broadcast instruction does it in one step. (Clang checks
// assembly operands against the file's baseline target, so it gets the plain
// forms here and in add_on_multiplier: the same bits, a little slower.)
template <int W>
__attribute__((always_inline)) inline typename LaneVector<W>::type splat(const double* p) {
  typename LaneVector<W>::type v;
#if defined(__x86_64__) && !defined(__clang__)
  if constexpr (W == 8) {
    asm("vbroadcastsd %1, %0" : "=v"(v) : "m"(*p));
    return v;
  } else if constexpr (W == 4) {
    asm("vbroadcastsd %1, %0" : "=x"(v) : "m"(*p));
    return v;
  }
#endif
  for (int j = 0; j < W; ++j) v[j] = *p;
  return v;
}

// x + y, rounded once like any addition. For 256- and 512-bit vectors the sum
// is issued as x * 1.0 + y, a fused multiply-add: the product is exact, so
// the bits are those of the addition, but the work goes to the multiply
// units, which the lag search otherwise leaves half idle while the adders are
// saturated. `one` holds 1.0 in every lane; the assembly keeps the compiler
// from turning the operation back into an addition.
template <int W>
__attribute__((always_inline)) inline typename LaneVector<W>::type add_on_multiplier(
    typename LaneVector<W>::type x, typename LaneVector<W>::type y, typename LaneVector<W>::type one) {
#if defined(__x86_64__) && !defined(__clang__)
  if constexpr (W == 8) {
    asm("vfmadd231pd %1, %2, %0" : "+v"(y) : "v"(x), "v"(one));
    return y;
  } else if constexpr (W == 4) {
    asm("vfmadd231pd %1, %2, %0" : "+x"(y) : "x"(x), "x"(one));
    return y;
  }
#endif
  (void)one;
  return x + y;
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

// Vectors of one group of lanes for the shared range of a sweep.
template <int W>
struct GroupSums {
  typename LaneVector<W>::type first;   // sum of a, or mean of a
  typename LaneVector<W>::type second;  // sum of b, or mean of b
  typename LaneVector<W>::type ab;
  typename LaneVector<W>::type aa;
  typename LaneVector<W>::type bb;
  int64_t first_lag;
};

// Calls step on each of the G groups. The groups are named variables, not an
// array, so that GCC keeps all of them in registers across the loop.
template <int G, typename Group, typename Step>
__attribute__((always_inline)) inline void for_groups(Group& g0, Group& g1, Group& g2, Step step) {
  step(g0);
  if constexpr (G > 1) step(g1);
  if constexpr (G > 2) step(g2);
}

// The shared range of the first pass: lane sums of a[i] and b[i + lag]
// continued from sum_a and sum_b, in index order.
template <int W, int G>
__attribute__((always_inline)) inline void sweep_sums(const double* a, const double* b, const int32_t* starts,
                                                      int64_t begin, int64_t end, double (*sum_a)[W],
                                                      double (*sum_b)[W]) {
  if (begin >= end) return;
  using Lanes = typename LaneVector<W>::type;
  const double unit = 1.0;
  const Lanes one = splat<W>(&unit);
  GroupSums<W> group[3] = {};
  for (int g = 0; g < G; ++g) {
    group[g].first = load<W>(sum_a[g]);
    group[g].second = load<W>(sum_b[g]);
    group[g].first_lag = starts[g];
  }
  GroupSums<W> g0 = group[0];
  GroupSums<W> g1 = group[1];
  GroupSums<W> g2 = group[2];
  for (int64_t i = begin; i < end; ++i) {
    const Lanes ai = splat<W>(a + i);
    for_groups<G>(g0, g1, g2, [&](GroupSums<W>& g) __attribute__((always_inline)) {
      g.first += ai;
      g.second = add_on_multiplier<W>(load<W>(b + (i + g.first_lag)), g.second, one);
    });
  }
  group[0] = g0;
  group[1] = g1;
  group[2] = g2;
  for (int g = 0; g < G; ++g) {
    store<W>(sum_a[g], group[g].first);
    store<W>(sum_b[g], group[g].second);
  }
}

// The shared range of the second pass: centred products of a[i] and
// b[i + lag] about each lane's means, added to sab, saa and sbb in index order.
template <int W, int G>
__attribute__((always_inline)) inline void sweep_products(const double* a, const double* b, const int32_t* starts,
                                                          int64_t begin, int64_t end, const double (*mean_a)[W],
                                                          const double (*mean_b)[W], double (*sum_ab)[W],
                                                          double (*sum_aa)[W], double (*sum_bb)[W]) {
  if (begin >= end) return;
  using Lanes = typename LaneVector<W>::type;
  const double unit = 1.0;
  const Lanes one = splat<W>(&unit);
  GroupSums<W> group[3] = {};
  for (int g = 0; g < G; ++g) {
    group[g].first = load<W>(mean_a[g]);
    group[g].second = load<W>(mean_b[g]);
    group[g].ab = load<W>(sum_ab[g]);
    group[g].aa = load<W>(sum_aa[g]);
    group[g].bb = load<W>(sum_bb[g]);
    group[g].first_lag = starts[g];
  }
  GroupSums<W> g0 = group[0];
  GroupSums<W> g1 = group[1];
  GroupSums<W> g2 = group[2];
  for (int64_t i = begin; i < end; ++i) {
    const Lanes ai = splat<W>(a + i);
    for_groups<G>(g0, g1, g2, [&](GroupSums<W>& g) __attribute__((always_inline)) {
      const Lanes da = ai - g.first;
      const Lanes db = load<W>(b + (i + g.first_lag)) - g.second;
      g.ab = add_on_multiplier<W>(da * db, g.ab, one);
      g.aa += da * da;
      g.bb += db * db;
    });
  }
  group[0] = g0;
  group[1] = g1;
  group[2] = g2;
  for (int g = 0; g < G; ++g) {
    store<W>(sum_ab[g], group[g].ab);
    store<W>(sum_aa[g], group[g].aa);
    store<W>(sum_bb[g], group[g].bb);
  }
}

// Scores G groups of W consecutive lags, starts[g] .. starts[g] + W - 1, in
// one sweep per pass. Every lane's sum is its lag's literal sum: the indices
// that only some lanes cover (near the ends) are added one by one before and
// after the shared range, so each lane still adds in index order.
template <int W, int G>
__attribute__((always_inline)) inline void score_groups(const double* a, const double* b, int64_t n,
                                                        const int32_t* starts, double* out) {
  const int64_t lowest = starts[0];
  const int64_t highest = starts[G - 1] + W - 1;
  const int64_t shared_begin = std::max<int64_t>(0, -lowest);
  // Empty when the input is short: then the lanes do all the work one by one.
  const int64_t shared_end = std::max(shared_begin, std::min<int64_t>(n, n - highest));

  // First pass: the sums of each lane's overlap, then its means.
  double lane_a[G][W];
  double lane_b[G][W];
  for (int g = 0; g < G; ++g) {
    for (int j = 0; j < W; ++j) {
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
  }
  sweep_sums<W, G>(a, b, starts, shared_begin, shared_end, lane_a, lane_b);
  double count[G][W];
  for (int g = 0; g < G; ++g) {
    for (int j = 0; j < W; ++j) {
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
  }

  // Second pass: the centred sums.
  double lane_ab[G][W];
  double lane_aa[G][W];
  double lane_bb[G][W];
  for (int g = 0; g < G; ++g) {
    for (int j = 0; j < W; ++j) {
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
  }
  sweep_products<W, G>(a, b, starts, shared_begin, shared_end, lane_a, lane_b, lane_ab, lane_aa, lane_bb);
  for (int g = 0; g < G; ++g) {
    for (int j = 0; j < W; ++j) {
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
      out[g * W + j] = r;
    }
  }
}

// One sweep of 1 to kMaxGroupsPerSweep groups.
template <int W>
__attribute__((always_inline)) inline void score_sweep(const double* a, const double* b, int64_t n,
                                                       const int32_t* starts, int groups, double* out) {
  if (groups >= 3) {
    score_groups<W, 3>(a, b, n, starts, out);
  } else if (groups == 2) {
    score_groups<W, 2>(a, b, n, starts, out);
  } else {
    score_groups<W, 1>(a, b, n, starts, out);
  }
}

// Two lanes: one SSE2 register, which every x86-64 has.
void score_sweep_portable(const double* a, const double* b, int64_t n, const int32_t* starts, int groups,
                          double* out) {
  score_sweep<2>(a, b, n, starts, groups, out);
}

#if defined(__x86_64__)
__attribute__((target("avx2,fma"))) void score_sweep_avx2(const double* a, const double* b, int64_t n,
                                                          const int32_t* starts, int groups, double* out) {
  score_sweep<4>(a, b, n, starts, groups, out);
}

__attribute__((target("avx512f"))) void score_sweep_avx512(const double* a, const double* b, int64_t n,
                                                           const int32_t* starts, int groups, double* out) {
  score_sweep<8>(a, b, n, starts, groups, out);
}
#endif

using GroupKernel = void (*)(const double*, const double*, int64_t, const int32_t*, int, double*);

struct Kernel {
  GroupKernel run;
  int lanes;
};

Kernel group_kernel(LagKernel kernel) {
#if defined(__x86_64__)
  if (kernel == LagKernel::kAvx2) return {score_sweep_avx2, 4};
  if (kernel == LagKernel::kAvx512) return {score_sweep_avx512, 8};
#endif
  (void)kernel;
  return {score_sweep_portable, 2};
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
  const std::size_t groups_per_sweep = kMaxGroupsPerSweep;
  double out[kMaxGroupsPerSweep * 8];
  for (std::size_t first = 0; first < groups_total; first += groups_per_sweep) {
    const int groups = static_cast<int>(std::min(groups_per_sweep, groups_total - first));
    run.run(a.data(), b.data(), n, starts + first, groups, out);
    for (int g = 0; g < groups; ++g) {
      for (int j = 0; j < w; ++j) scores[starts[first + static_cast<std::size_t>(g)] + j + max_lag] = out[g * w + j];
    }
  }
}

}  // namespace sonderlark
