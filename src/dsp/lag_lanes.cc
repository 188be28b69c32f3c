// The vector kernels of the lag search: W lags side by side in the lanes of
// one vector, instantiated for each lane width inside a function compiled
// for that instruction set.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "dsp/lag_lanes.h"

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
// Vectors pass by value only between these inlined functions, so the AVX
// calling-convention note does not concern any interface.
#pragma GCC diagnostic ignored "-Wpsabi"

template <int W>
__attribute__((always_inline)) inline typename LaneVector<W>::type load(const double* p) {
  typename LaneVector<W>::type v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

template <int W>
__attribute__((always_inline)) inline void store(double* p, const typename LaneVector<W>::type& v) {
  std::memcpy(p, &v, sizeof v);
}

// The value at p in every lane. GCC assembles a wide vector of one scalar
// lane by lane; the broadcast instruction does it in one step. (Clang checks
// assembly operands against the file's baseline target, so it gets the plain
// form: the same bits, a little slower.)
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

// One group of W consecutive lags in one sweep: five vectors that stay in
// registers (two means, three products).
template <int W>
struct GroupSums {
  using Lanes = typename LaneVector<W>::type;
  Lanes first, second, ab, aa, bb;  // the means of a and b, the products
  int64_t first_lag;                // the group's first lag

  __attribute__((always_inline)) void load_from(const LaneSums& sums, int g, int64_t lag) {
    first = load<W>(sums.first + g * W);
    second = load<W>(sums.second + g * W);
    ab = load<W>(sums.ab + g * W);
    aa = load<W>(sums.aa + g * W);
    bb = load<W>(sums.bb + g * W);
    first_lag = lag;
  }
  __attribute__((always_inline)) void add(const double* a, const double* b, int64_t i) {
    const Lanes da = splat<W>(a + i) - first;
    const Lanes db = load<W>(b + (i + first_lag)) - second;
    ab += da * db;
    aa += da * da;
    bb += db * db;
  }
  __attribute__((always_inline)) void store_to(const LaneSums& sums, int g) const {
    store<W>(sums.ab + g * W, ab);
    store<W>(sums.aa + g * W, aa);
    store<W>(sums.bb + g * W, bb);
  }
};

// Adds the centred products of range r to the lanes of G groups of W
// consecutive lags, starts[g] .. starts[g] + W - 1, in one sweep. Every
// lane's sum stays its lag's literal sum: the indices that only some lanes
// cover (near the ends of the sequences and of the range) are added lane by
// lane before and after the shared range, so each lane still adds in index
// order.
template <int W, int G>
__attribute__((always_inline)) inline void sweep_groups(const LagRange& r, const int32_t* starts,
                                                        const LaneSums& sums) {
  // The indices every lane of every group covers (the first lag is the most
  // negative, the last the most positive); empty on a short input or range,
  // and then the lanes do all the work one by one.
  const int64_t shared_begin = std::max<int64_t>(r.from, std::max<int64_t>(0, -static_cast<int64_t>(starts[0])));
  const int64_t shared_end =
      std::max(shared_begin, std::min<int64_t>(r.to, std::min<int64_t>(r.n, r.n - (starts[G - 1] + W - 1))));
  // Each lane's indices before (before == true) or after the shared range.
  auto each_lane_edge = [&](bool before) {
    for (int g = 0; g < G; ++g) {
      for (int j = 0; j < W; ++j) {
        const int64_t lag = starts[g] + j;
        const LagOverlap o = lag_overlap(r.n, lag);
        const int64_t begin = before ? std::max(o.begin, r.from) : std::max(shared_end, std::max(o.begin, r.from));
        const int64_t end = before ? std::min(shared_begin, std::min(o.end, r.to)) : std::min(o.end, r.to);
        const int k = g * W + j;
        add_lag_products(r, lag, begin, end, sums.first[k], sums.second[k], sums.ab[k], sums.aa[k], sums.bb[k]);
      }
    }
  };
  each_lane_edge(true);
  if (shared_begin < shared_end) {
    // Named groups, not an array, so that GCC keeps all of them in registers.
    GroupSums<W> g0{}, g1{}, g2{};
    // Index i of a at r.a[i - origin], of b at r.b[i + lag - origin].
    const double* a = r.a;
    const double* b = r.b;
    g0.load_from(sums, 0, starts[0]);
    if constexpr (G > 1) g1.load_from(sums, 1, starts[1]);
    if constexpr (G > 2) g2.load_from(sums, 2, starts[2]);
    for (int64_t i = shared_begin - r.origin; i < shared_end - r.origin; ++i) {
      g0.add(a, b, i);
      if constexpr (G > 1) g1.add(a, b, i);
      if constexpr (G > 2) g2.add(a, b, i);
    }
    g0.store_to(sums, 0);
    if constexpr (G > 1) g1.store_to(sums, 1);
    if constexpr (G > 2) g2.store_to(sums, 2);
  }
  each_lane_edge(false);
}

// One sweep of 1 to kMaxGroupsPerSweep groups.
template <int W>
__attribute__((always_inline)) inline void sweep_range(const LagRange& r, const int32_t* starts,
                                                       int groups, const LaneSums& sums) {
  if (groups >= 3) {
    sweep_groups<W, 3>(r, starts, sums);
  } else if (groups == 2) {
    sweep_groups<W, 2>(r, starts, sums);
  } else {
    sweep_groups<W, 1>(r, starts, sums);
  }
}

// One channel's sums in a sweep: the running sum and the lanes in K
// vectors of W (named, not an array, so that GCC keeps them in registers).
template <int W>
struct ChannelLanes {
  static constexpr int K = kChannelSumLanes / W;
  static_assert(K * W == kChannelSumLanes && K <= 4);
  double running;
  typename LaneVector<W>::type v0, v1, v2, v3;
  const double* x;

  __attribute__((always_inline)) void load_from(const ChannelSums& sums, const double* samples) {
    const double* lanes = sums.tail.data();
    running = sums.running;
    v0 = load<W>(lanes);
    if constexpr (K > 1) v1 = load<W>(lanes + W);
    if constexpr (K > 2) v2 = load<W>(lanes + 2 * W);
    if constexpr (K > 3) v3 = load<W>(lanes + 3 * W);
    x = samples;
  }
  __attribute__((always_inline)) void add(int64_t i) {
    running += x[i];
    const typename LaneVector<W>::type s = splat<W>(x + i);
    v0 += s;
    if constexpr (K > 1) v1 += s;
    if constexpr (K > 2) v2 += s;
    if constexpr (K > 3) v3 += s;
  }
  __attribute__((always_inline)) void store_to(ChannelSums& sums) const {
    double* lanes = sums.tail.data();
    sums.running = running;
    store<W>(lanes, v0);
    if constexpr (K > 1) store<W>(lanes + W, v1);
    if constexpr (K > 2) store<W>(lanes + 2 * W, v2);
    if constexpr (K > 3) store<W>(lanes + 3 * W, v3);
  }
};

// The running sums of C channels over a range that every sum covers, all C
// channels in one loop so that their additions overlap.
template <int W, int C>
__attribute__((always_inline)) inline void sweep_channels(ChannelSums* sums, const double* const* x,
                                                          int64_t count) {
  ChannelLanes<W> c0{}, c1{}, c2{}, c3{};
  const auto each = [&](auto step) __attribute__((always_inline)) {
    step(c0, 0);
    if constexpr (C > 1) step(c1, 1);
    if constexpr (C > 2) step(c2, 2);
    if constexpr (C > 3) step(c3, 3);
  };
  each([&](ChannelLanes<W>& c, int k) { c.load_from(sums[k], x[k]); });
  for (int64_t i = 0; i < count; ++i) {
    each([i](ChannelLanes<W>& c, int) __attribute__((always_inline)) { c.add(i); });
  }
  each([&](ChannelLanes<W>& c, int k) { c.store_to(sums[k]); });
}

template <int W>
__attribute__((always_inline)) inline void sweep_channel_sums(ChannelSums* sums, const double* const* x,
                                                              int channels, int64_t count) {
  switch (channels) {
    case 4: sweep_channels<W, 4>(sums, x, count); break;
    case 3: sweep_channels<W, 3>(sums, x, count); break;
    case 2: sweep_channels<W, 2>(sums, x, count); break;
    default: sweep_channels<W, 1>(sums, x, count); break;
  }
}

}  // namespace

void channel_sums_sweep_2(ChannelSums* sums, const double* const* x, int channels, int64_t count) {
  sweep_channel_sums<2>(sums, x, channels, count);
}

#if defined(__x86_64__)
__attribute__((target("avx2,fma"))) void channel_sums_sweep_4(ChannelSums* sums, const double* const* x, int channels,
                                                              int64_t count) {
  sweep_channel_sums<4>(sums, x, channels, count);
}

__attribute__((target("avx512f"))) void channel_sums_sweep_8(ChannelSums* sums, const double* const* x, int channels,
                                                             int64_t count) {
  sweep_channel_sums<8>(sums, x, channels, count);
}
#elif defined(__aarch64__)
void channel_sums_sweep_4(ChannelSums* sums, const double* const* x, int channels, int64_t count) {
  sweep_channel_sums<4>(sums, x, channels, count);
}
#endif

void lag_sweep_2(const LagRange& range, const int32_t* starts, int groups, const LaneSums& sums) {
  sweep_range<2>(range, starts, groups, sums);
}

#if defined(__x86_64__)
__attribute__((target("avx2,fma"))) void lag_sweep_4(const LagRange& range, const int32_t* starts,
                                                     int groups, const LaneSums& sums) {
  sweep_range<4>(range, starts, groups, sums);
}

__attribute__((target("avx512f"))) void lag_sweep_8(const LagRange& range, const int32_t* starts,
                                                    int groups, const LaneSums& sums) {
  sweep_range<8>(range, starts, groups, sums);
}
#elif defined(__aarch64__)
// NEON is part of every aarch64 CPU: GCC and Clang split each 4-lane vector
// into two 128-bit registers, twice the independent additions in flight.
void lag_sweep_4(const LagRange& range, const int32_t* starts, int groups, const LaneSums& sums) {
  sweep_range<4>(range, starts, groups, sums);
}
#endif

}  // namespace sonderlark
