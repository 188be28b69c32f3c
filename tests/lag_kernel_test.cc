#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <random>

#include "dsp/lag_kernels.h"
#include "support.h"

namespace sonderlark {
namespace {

// The lag search's score exactly as the algorithm states it, kept here as the
// reference that every kernel must reproduce bit for bit.
double reference_score(const std::vector<double>& a, const std::vector<double>& b, int lag) {
  const int n = static_cast<int>(std::min(a.size(), b.size()));
  std::vector<int> overlap;
  for (int i = 0; i < n; ++i) {
    if (i + lag >= 0 && i + lag < n) overlap.push_back(i);
  }
  const int m = static_cast<int>(overlap.size());
  if (n == 0 || m < 16) return 0.0;
  double sum_a = 0.0, sum_b = 0.0;
  for (int i : overlap) {
    sum_a += a[i];
    sum_b += b[i + lag];
  }
  const double mean_a = sum_a / m, mean_b = sum_b / m;
  double sab = 0.0, saa = 0.0, sbb = 0.0;
  for (int i : overlap) {
    const double da = a[i] - mean_a;
    const double db = b[i + lag] - mean_b;
    sab += da * db;
    saa += da * da;
    sbb += db * db;
  }
  return saa > 0.0 && sbb > 0.0 ? sab / std::sqrt(saa * sbb) : 0.0;
}

std::vector<double> adversarial(std::size_t n, uint32_t seed, int style) {
  std::mt19937 rng(seed);
  std::vector<double> x(n);
  for (std::size_t i = 0; i < n; ++i) {
    const double u = (static_cast<double>(rng()) - 2147483648.0) / 2147483648.0;
    switch (style) {
      case 0: x[i] = u; break;                                   // noise
      case 1: x[i] = u * 1e150; break;                           // squares near the top of the range
      case 2: x[i] = u * 1e-160; break;                          // squares underflow
      case 3: x[i] = (i % 7 == 0) ? 1e300 * u : u; break;        // sums overflow to inf
      case 4: x[i] = 0.25; break;                                // constant: no variance
      case 5: x[i] = (rng() & 1) ? 1.0 : -1.0; break;            // full scale, many ties
      default: x[i] = 1e-3 + u * 1e-12; break;                   // tiny variance on an offset
    }
  }
  return x;
}

// The search run block by block, both passes, each block copied with its
// max_lag neighbours into a window of its own (as a stream reads them).
void block_scores(LagKernel kernel, const std::vector<double>& a, const std::vector<double>& b, int max_lag,
                  int64_t block, double* scores) {
  const int64_t n = static_cast<int64_t>(std::min(a.size(), b.size()));
  LagSearch search = start_lag_search(kernel, max_lag, n);
  std::vector<ChannelSums> sums(2, ChannelSums{n});
  for (int pass = 0; pass < 2; ++pass) {
    for (int64_t from = 0; from < n; from += block) {
      const int64_t to = std::min(n, from + block);
      const int64_t origin = from - max_lag;
      std::vector<double> wa(static_cast<std::size_t>(to - origin + max_lag), 99.0);
      std::vector<double> wb(wa.size(), 99.0);
      for (int64_t i = std::max<int64_t>(0, origin); i < std::min(n, to + max_lag); ++i) {
        wa[static_cast<std::size_t>(i - origin)] = a[static_cast<std::size_t>(i)];
        wb[static_cast<std::size_t>(i - origin)] = b[static_cast<std::size_t>(i)];
      }
      const double* x[2] = {wa.data(), wb.data()};
      if (pass == 0) add_channel_sums(kernel, sums, x, origin, from, to);
      if (pass == 1) add_lag_block(search, wa.data(), wb.data(), origin, from, to);
    }
    if (pass == 0) take_lag_means(search, sums[0], sums[1]);
  }
  lag_search_scores(search, scores);
}

TEST(LagKernels, EveryKernelMatchesTheReferenceBitExactness) {
  const std::vector<LagKernel> kernels = available_lag_kernels();
  ASSERT_GE(kernels.size(), 2u);
  std::size_t cases = 0;
  std::vector<std::size_t> lengths = {64, 68, 1000, 1024, 4099};  // every lane width's edges, and long inputs
  for (std::size_t n = 0; n <= 40; ++n) lengths.push_back(n);
  for (int max_lag : {0, 1, 2, 3, 4, 5, 7, 8}) {
    for (std::size_t na : lengths) {
      for (std::size_t extra : {0u, 1u, 7u}) {
        for (int style = 0; style < 7; ++style) {
          const uint32_t seed = static_cast<uint32_t>(1000 * max_lag + 10 * na + extra * 100000 + style);
          const std::vector<double> a = adversarial(na, seed, style);
          const std::vector<double> b = adversarial(na + extra, seed + 1, (style + extra) % 7);
          std::vector<double> expected(2 * static_cast<std::size_t>(max_lag) + 1);
          for (int lag = -max_lag; lag <= max_lag; ++lag) expected[lag + max_lag] = reference_score(a, b, lag);
          for (LagKernel kernel : kernels) {
            std::vector<double> got(expected.size(), -7.0);
            lag_scores(kernel, a, b, max_lag, got.data());
            // And fed in blocks.
            std::vector<double> blocked(expected.size(), -7.0);
            block_scores(kernel, a, b, max_lag, 1 + seed % 37, blocked.data());
            const auto where = [&](std::size_t k) {  // formed only for a failure
              return "kernel " + std::to_string(static_cast<int>(kernel)) + " seed " + std::to_string(seed) +
                     " max_lag " + std::to_string(max_lag) + " lag index " + std::to_string(k);
            };
            for (std::size_t k = 0; k < got.size(); ++k) {
              ASSERT_EQ(std::bit_cast<uint64_t>(got[k]), std::bit_cast<uint64_t>(expected[k])) << where(k);
              ASSERT_EQ(std::bit_cast<uint64_t>(blocked[k]), std::bit_cast<uint64_t>(expected[k])) << where(k) << " in blocks";
            }
          }
          ++cases;
        }
      }
    }
  }
  EXPECT_GT(cases, 7000u);
}

}  // namespace
}  // namespace sonderlark
