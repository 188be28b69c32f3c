#include "dsp/lag_kernels.h"

#include <algorithm>
#include <cassert>
#include <cmath>

#include "dsp/direction.h"
#include "dsp/lag_lanes.h"

namespace sonderlark {
namespace {

// The vector functions of a kernel: W lags per group, and the channel sums
// W at a time. The scalar kernel uses the portable ones only where a
// search's groups need lanes; its channel sums go one by one.
struct Kernel {
  void (*products)(const LagRange&, const int32_t*, int, const LaneSums&);
  int lanes;
  void (*channel_sums)(ChannelSums*, const double* const*, int, int64_t);
};

Kernel vector_kernel(LagKernel kernel) {
#if defined(__x86_64__)
  if (kernel == LagKernel::kAvx2) return {lag_sweep_4, 4, channel_sums_sweep_4};
  if (kernel == LagKernel::kAvx512) return {lag_sweep_8, 8, channel_sums_sweep_8};
#elif defined(__aarch64__)
  if (kernel == LagKernel::kNeon) return {lag_sweep_4, 4, channel_sums_sweep_4};
#endif
  return {lag_sweep_2, 2, kernel == LagKernel::kScalar ? nullptr : channel_sums_sweep_2};
}

}  // namespace

std::vector<LagKernel> available_lag_kernels() {
  std::vector<LagKernel> kernels = {LagKernel::kScalar, LagKernel::kPortable};
#if defined(__x86_64__)
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) kernels.push_back(LagKernel::kAvx2);
  if (__builtin_cpu_supports("avx512f")) kernels.push_back(LagKernel::kAvx512);
#elif defined(__aarch64__)
  // Before the 2-lane kernel (itself NEON here), so not the default: under
  // qemu it ran 25 % slower (bench/README.md); a real board's
  // BM_LagKernel figures should decide.
  kernels.insert(kernels.begin() + 1, LagKernel::kNeon);
#endif
  return kernels;
}

LagKernel default_lag_kernel() {
  static const LagKernel best = available_lag_kernels().back();
  return best;
}

LagSearch start_lag_search(LagKernel kernel, int32_t max_lag, int64_t n) {
  assert(max_lag >= 0 && max_lag <= kChannelSumReach);
  LagSearch search;
  search.kernel = kernel;
  search.max_lag = max_lag;
  search.n = n;
  const int64_t lags = 2 * static_cast<int64_t>(max_lag) + 1;
  if (kernel != LagKernel::kScalar && lags < vector_kernel(kernel).lanes) search.kernel = LagKernel::kPortable;
  if (search.kernel == LagKernel::kScalar || lags < vector_kernel(search.kernel).lanes) {
    search.kernel = LagKernel::kScalar;  // one lag per group
    for (int64_t lag = -max_lag; lag <= max_lag; ++lag) search.starts.push_back(static_cast<int32_t>(lag));
  } else {
    // Groups of W lags from -max_lag; the last group ends at +max_lag and may
    // overlap the one before (those lags are simply computed twice).
    search.lanes = vector_kernel(search.kernel).lanes;
    const int w = search.lanes;
    for (int64_t s = -max_lag; s + w - 1 <= max_lag; s += w) search.starts.push_back(static_cast<int32_t>(s));
    if (search.starts.back() + w - 1 < max_lag) search.starts.push_back(max_lag - w + 1);
  }
  const std::size_t lanes = search.starts.size() * static_cast<std::size_t>(search.lanes);
  for (std::vector<double>* v : {&search.first, &search.second, &search.ab, &search.aa, &search.bb}) {
    v->assign(lanes, 0.0);
  }
  return search;
}

void add_lag_block(LagSearch& search, const double* a, const double* b, int64_t origin, int64_t from, int64_t to) {
  const LagRange range{a, b, origin, search.n, from, to};
  assert(search.means_taken);
  if (search.kernel == LagKernel::kScalar) {
    for (std::size_t k = 0; k < search.starts.size(); ++k) {
      const int64_t lag = search.starts[k];
      const LagOverlap o = lag_overlap(search.n, lag);
      add_lag_products(range, lag, std::max(o.begin, from), std::min(o.end, to), search.first[k], search.second[k],
                       search.ab[k], search.aa[k], search.bb[k]);
    }
    return;
  }
  const Kernel run = vector_kernel(search.kernel);
  const std::size_t groups_total = search.starts.size();
  for (std::size_t first = 0; first < groups_total; first += kMaxLagGroupsPerSweep) {
    const int groups = static_cast<int>(std::min<std::size_t>(kMaxLagGroupsPerSweep, groups_total - first));
    const std::size_t lane = first * static_cast<std::size_t>(run.lanes);
    const LaneSums sums{search.first.data() + lane, search.second.data() + lane, search.ab.data() + lane,
                        search.aa.data() + lane, search.bb.data() + lane};
    run.products(range, search.starts.data() + first, groups, sums);
  }
}

namespace {

// The lag of lane k: lane j of group g is lag starts[g] + j.
int64_t lane_lag(const LagSearch& search, std::size_t k) {
  const std::size_t lanes = static_cast<std::size_t>(search.lanes);
  return search.starts[k / lanes] + static_cast<int64_t>(k % lanes);
}

int64_t lane_pairs(const LagSearch& search, std::size_t lane) {
  const LagOverlap o = lag_overlap(search.n, lane_lag(search, lane));
  return o.end - o.begin;
}

}  // namespace

namespace {

// Index i of one channel, one sum at a time.
void add_channel_sample(ChannelSums& s, int64_t i, double x) {
  s.running += x;
  for (int64_t k = 1; k <= kChannelSumReach; ++k) {
    if (i >= k) s.tail[static_cast<std::size_t>(k - 1)] += x;
  }
  const int64_t k = s.n - 1 - i;  // the running sum is now head[k]
  if (k >= 0 && k <= kChannelSumReach) s.head[static_cast<std::size_t>(k)] = s.running;
}

}  // namespace

void add_channel_sums(LagKernel kernel, std::span<ChannelSums> sums, const double* const* x, int64_t origin,
                      int64_t from, int64_t to) {
  if (sums.empty() || from >= to) return;
  const int64_t n = sums[0].n;
  const auto sweep = vector_kernel(kernel).channel_sums;
  // Where every tail has begun and no head is yet to be read, the sums go
  // side by side; before and after, one by one.
  const int64_t shared_begin = sweep ? std::min(to, std::max<int64_t>(from, kChannelSumReach)) : to;
  const int64_t shared_end = std::max(shared_begin, std::min(to, n - 1 - kChannelSumReach));
  const auto one_by_one = [&](int64_t begin, int64_t end) {
    for (std::size_t c = 0; c < sums.size(); ++c) {
      for (int64_t i = begin; i < end; ++i) add_channel_sample(sums[c], i, x[c][i - origin]);
    }
  };
  one_by_one(from, shared_begin);
  for (std::size_t c = 0; c < sums.size() && shared_begin < shared_end; c += 4) {
    const std::size_t k = std::min<std::size_t>(4, sums.size() - c);
    const double* at[4];
    for (std::size_t j = 0; j < k; ++j) at[j] = x[c + j] + (shared_begin - origin);
    sweep(sums.data() + c, at, static_cast<int>(k), shared_end - shared_begin);
  }
  one_by_one(shared_end, to);
}

void take_lag_means(LagSearch& search, const ChannelSums& a, const ChannelSums& b) {
  assert(!search.means_taken && a.n == search.n && b.n == search.n);
  const auto tail = [](const ChannelSums& s, int64_t k) { return s.tail[static_cast<std::size_t>(k - 1)]; };
  const auto head = [](const ChannelSums& s, int64_t k) { return s.head[static_cast<std::size_t>(k)]; };
  for (std::size_t k = 0; k < search.first.size(); ++k) {
    // Lag L pairs a over [0, n - L) with b over [L, n), or a over [-L, n)
    // with b over [0, n + L).
    const int64_t lag = lane_lag(search, k);
    search.first[k] = lag >= 0 ? head(a, lag) : tail(a, -lag);
    search.second[k] = lag <= 0 ? head(b, -lag) : tail(b, lag);
    const double pairs = static_cast<double>(lane_pairs(search, k));
    // No overlap: the sums stay 0 and the lag scores 0.0 whatever its mean.
    if (pairs > 0) {
      search.first[k] /= pairs;
      search.second[k] /= pairs;
    }
  }
  search.means_taken = true;
}

void lag_search_scores(const LagSearch& search, double* scores) {
  for (std::size_t k = 0; k < search.first.size(); ++k) {
    scores[lane_lag(search, k) + search.max_lag] =
        lag_score(lane_pairs(search, k), search.ab[k], search.aa[k], search.bb[k]);
  }
}

void lag_scores(LagKernel kernel, std::span<const double> a, std::span<const double> b, int32_t max_lag,
                double* scores) {
  const int64_t n = static_cast<int64_t>(std::min(a.size(), b.size()));
  ChannelSums sums[2] = {{n}, {n}};
  const double* x[2] = {a.data(), b.data()};
  add_channel_sums(kernel, sums, x, 0, 0, n);
  LagSearch search = start_lag_search(kernel, max_lag, n);
  take_lag_means(search, sums[0], sums[1]);
  add_lag_block(search, a.data(), b.data(), 0, 0, n);
  lag_search_scores(search, scores);
}

}  // namespace sonderlark
