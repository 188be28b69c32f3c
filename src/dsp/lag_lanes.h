#pragma once
// The pieces of the lag search that the scalar reference (lag_kernels.cc)
// and the vector kernels (lag_lanes.cc) share: the overlap of a lag and the
// literal per-lag loops, which the vector kernels run for the indices that
// only some of their lanes cover.

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "dsp/direction.h"
#include "dsp/lag_kernels.h"

namespace sonderlark {

// The indices i with 0 <= i + lag < n.
struct LagOverlap {
  int64_t begin;
  int64_t end;
};

inline LagOverlap lag_overlap(int64_t n, int64_t lag) {
  return {std::max<int64_t>(0, -lag), std::min<int64_t>(n, n - lag)};
}

// The indices and samples one call of a lane kernel covers: global indices
// i in [from, to) of sequences of length n, sample i of a at a[i - origin]
// and of b at b[i - origin]. Each lag adds only the i of its overlap, and b
// must hold every b[i + lag] those need.
struct LagRange {
  const double* a;
  const double* b;
  int64_t origin;
  int64_t n;
  int64_t from;
  int64_t to;
};

// Second pass of one lag: adds the centred products of a[i] and b[i + lag]
// about the means for i in [from, to), in index order.
inline void add_lag_products(const LagRange& r, int64_t lag, int64_t from, int64_t to, double mean_a, double mean_b,
                             double& ab, double& aa, double& bb) {
  for (int64_t i = from; i < to; ++i) {
    const double da = r.a[i - r.origin] - mean_a;
    const double db = r.b[i + lag - r.origin] - mean_b;
    ab += da * db;
    aa += da * da;
    bb += db * db;
  }
}

// The score from the finished sums of `pairs` overlapping pairs.
inline double lag_score(int64_t pairs, double ab, double aa, double bb) {
  if (pairs >= kMinOverlapPairs && aa > 0.0 && bb > 0.0) return ab / std::sqrt(aa * bb);
  return 0.0;
}

// Running sums of the lanes of `groups` groups, lane k = g * W + j for lag
// starts[g] + j: `first` and `second` hold the means of a and b, and ab,
// aa, bb gather the centred products.
struct LaneSums {
  double* first;
  double* second;
  double* ab;
  double* aa;
  double* bb;
};

// Adds the centred products of one range to `groups` (1 to 3) groups of W consecutive lags, each lane
// bit for bit the scalar reference's running sums. W = 2 runs on any x86-64
// (SSE2), aarch64 (one NEON register) or other target; W = 4 needs AVX2 and
// FMA on x86-64, and is two NEON registers on aarch64; W = 8 AVX-512F.
void lag_sweep_2(const LagRange& range, const int32_t* starts, int groups, const LaneSums& sums);
#if defined(__x86_64__) || defined(__aarch64__)
void lag_sweep_4(const LagRange& range, const int32_t* starts, int groups, const LaneSums& sums);
#endif
#if defined(__x86_64__)
void lag_sweep_8(const LagRange& range, const int32_t* starts, int groups, const LaneSums& sums);
#endif

// Groups per sweep: five vectors each stay in registers at every width.
constexpr int kMaxLagGroupsPerSweep = 3;

// Adds indices 0 .. count - 1 of `channels` (1 to 4) channels, x[c][i], to
// the running sum and every tail of sums[c], one addition per index and sum,
// in index order: every tail must have begun and no head be due. Widths as
// lag_sweep_W.
void channel_sums_sweep_2(ChannelSums* sums, const double* const* x, int channels, int64_t count);
#if defined(__x86_64__) || defined(__aarch64__)
void channel_sums_sweep_4(ChannelSums* sums, const double* const* x, int channels, int64_t count);
#endif
#if defined(__x86_64__)
void channel_sums_sweep_8(ChannelSums* sums, const double* const* x, int channels, int64_t count);
#endif

}  // namespace sonderlark
