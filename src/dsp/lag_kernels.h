#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

namespace sonderlark {

// Ways to compute the scores of a lag search. Every kernel gives the same
// bits: each lag's sums run in index order, and lanes of a vector hold
// different lags, never parts of one sum.
enum class LagKernel {
  kScalar,    // one lag at a time
  kPortable,  // two lags per vector: plain x86-64 (SSE2), aarch64 (NEON) or any target
  kAvx2,      // four lags per 256-bit register (AVX2 with FMA)
  kAvx512,    // eight lags per 512-bit register
  kNeon,      // four lags in two 128-bit NEON registers (aarch64)
};

// Kernels this machine can run, kScalar first, the default last.
std::vector<LagKernel> available_lag_kernels();

// The kernel best_lag uses on this machine.
LagKernel default_lag_kernel();

// Centred, normalised correlation of a and b (first n = min(|a|, |b|)
// samples) at every lag from -max_lag to +max_lag (at most 8), into
// scores[L + max_lag]; 0.0 where fewer than 16 pairs overlap or a side has
// no variance. One search over one block.
void lag_scores(LagKernel kernel, std::span<const double> a, std::span<const double> b, int32_t max_lag,
                double* scores);

// The first pass of every search comes from per-channel sums. Each side of
// a lag's overlap is a head [0, n - k) or a tail [k, n) of its channel,
// k = |lag|: the sums of each channel's heads and tails up to
// kChannelSumReach, each added in index order from 0.0, are the bits of the
// literal sums over each overlap. All heads are one running sum, read as
// it passes n - k.
constexpr int32_t kChannelSumReach = 8;
constexpr int kChannelSumLanes = kChannelSumReach;  // the tails k = 1 .. reach

struct ChannelSums {
  int64_t n = 0;
  double running = 0.0;                             // [0, i) so far
  std::array<double, kChannelSumReach + 1> head{};  // head[k]: [0, n - k)
  std::array<double, kChannelSumLanes> tail{};      // tail[k - 1]: [k, n)
};

// Adds indices [from, to) of every channel, sample i of channel c at
// x[c][i - origin], to sums[c] (all of length n).
void add_channel_sums(LagKernel kernel, std::span<ChannelSums> sums, const double* const* x, int64_t origin,
                      int64_t from, int64_t to);

// A search of lags -max_lag .. +max_lag (at most kChannelSumReach) between
// sequences a and b of length n that arrive in consecutive blocks: the
// channels' sums, take_lag_means, every block once for the centred
// products, then lag_search_scores. Each lag's sums run in index order
// across the blocks, so the scores are the same bits whatever the blocks.
struct LagSearch {
  LagKernel kernel = LagKernel::kScalar;
  int32_t max_lag = 0;
  int64_t n = 0;
  int lanes = 1;                // lags per group
  std::vector<int32_t> starts;  // first lag of each group; groups may overlap
  std::vector<double> first, second, ab, aa, bb;  // per lane of every group: means, then products
  bool means_taken = false;
};

LagSearch start_lag_search(LagKernel kernel, int32_t max_lag, int64_t n);

// The means of each lag's overlap from the finished sums of a and b.
void take_lag_means(LagSearch& search, const ChannelSums& a, const ChannelSums& b);

// Adds the centred products of indices [from, to) of a and b, sample i of
// each at a[i - origin] and b[i - origin]; b must hold every index within
// max_lag of the block that lies in [0, n).
void add_lag_block(LagSearch& search, const double* a, const double* b, int64_t origin, int64_t from, int64_t to);

// The scores of the finished search, into scores[L + max_lag].
void lag_search_scores(const LagSearch& search, double* scores);

}  // namespace sonderlark
