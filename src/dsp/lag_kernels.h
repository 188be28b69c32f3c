#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace sonderlark {

// Ways to compute the scores of a lag search. Every kernel gives the same
// bits: each lag's sums run in index order, and lanes of a vector hold
// different lags, never parts of one sum.
enum class LagKernel {
  kScalar,    // one lag at a time
  kPortable,  // two lags per vector: plain x86-64 (SSE2) or any target
  kAvx2,      // four lags per 256-bit register (AVX2 with FMA)
  kAvx512,    // eight lags per 512-bit register
};

// Kernels this machine can run, kScalar first.
std::vector<LagKernel> available_lag_kernels();

// The kernel best_lag uses on this machine.
LagKernel default_lag_kernel();

// Centred, normalised correlation of a and b (first n = min(|a|, |b|)
// samples) at every lag from -max_lag to +max_lag, into scores[L + max_lag];
// 0.0 where fewer than 16 pairs overlap or a side has no variance.
void lag_scores(LagKernel kernel, std::span<const double> a, std::span<const double> b, int32_t max_lag,
                double* scores);

}  // namespace sonderlark
