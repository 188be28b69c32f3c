// Per-chunk cost of the live analysis chain and of its parts.
#include <benchmark/benchmark.h>

#include <malloc.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "audio/wav.h"
#include "dsp/beam.h"
#include "dsp/diagnostics.h"
#include "dsp/direction.h"
#include "dsp/gain.h"
#include "dsp/lag_kernels.h"
#include "live/live_mode.h"

namespace sonderlark {
namespace {

// A chunk of noise arriving with an end-to-end lag of 3 samples.
std::vector<int32_t> interleaved_chunk(std::size_t frames, bool silent) {
  std::mt19937 rng(7);
  std::vector<double> source(frames + 8);
  for (double& v : source) v = silent ? 0.0 : (static_cast<double>(rng()) / 4294967296.0 - 0.5) * 0.4;
  std::vector<int32_t> out;
  for (std::size_t f = 0; f < frames; ++f) {
    for (std::size_t c = 0; c < 4; ++c) out.push_back(static_cast<int32_t>(std::lround(source[f + 8 - c] * 2147483647.0)));
  }
  return out;
}

// Interleaved 4-channel S32 frames, decoded.
WavData decoded(const std::vector<int32_t>& interleaved) {
  WavData chunk;
  chunk.sample_rate = 16000;
  chunk.channels = 4;
  chunk.bits_per_sample = 32;
  chunk.samples.assign(4, std::vector<double>(interleaved.size() / 4));
  double* out[4] = {chunk.samples[0].data(), chunk.samples[1].data(), chunk.samples[2].data(), chunk.samples[3].data()};
  decode_frames(reinterpret_cast<const uint8_t*>(interleaved.data()), interleaved.size() / 4, chunk, out);
  return chunk;
}

// The whole chain a live chunk goes through: conversion, gain, diagnostics,
// direction, beam. Silent input makes the estimate weak and takes the
// fallback beam with its three extra lag searches.
void BM_LiveChunkChain(benchmark::State& state) {
  // As in live mode: freed chunk buffers stay in the heap.
  mallopt(M_TRIM_THRESHOLD, 64 << 20);
  mallopt(M_MMAP_THRESHOLD, 64 << 20);
  const std::size_t frames = static_cast<std::size_t>(state.range(0));
  const std::vector<int32_t> chunk = interleaved_chunk(frames, state.range(1) != 0);
  for (auto _ : state) {
    ChunkAnalysis analysis = analyse_chunk(chunk.data(), frames, 6.0);
    benchmark::DoNotOptimize(analysis);
  }
  state.SetLabel(state.range(1) != 0 ? "fallback beam" : "guided beam");
}
BENCHMARK(BM_LiveChunkChain)->Args({1024, 0})->Args({1024, 1})->Args({256, 0})->Args({4096, 0})->Unit(benchmark::kMicrosecond);

void BM_BestLag(benchmark::State& state) {
  const std::size_t n = static_cast<std::size_t>(state.range(0));
  const WavData chunk = decoded(interleaved_chunk(n, false));
  for (auto _ : state) benchmark::DoNotOptimize(best_lag(chunk.samples[0], chunk.samples[3], 8));
  state.counters["lag_samples_per_s"] =
      benchmark::Counter(static_cast<double>(17 * n), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_BestLag)->Arg(1024)->Arg(16000)->Unit(benchmark::kMicrosecond);

// One +-8 search of 1024 samples with each kernel this machine has.
void BM_LagKernel(benchmark::State& state) {
  const std::vector<LagKernel> kernels = available_lag_kernels();
  const std::size_t k = static_cast<std::size_t>(state.range(0));
  if (k >= kernels.size()) {
    state.SkipWithError("kernel not available here");
    return;
  }
  const WavData chunk = decoded(interleaved_chunk(1024, false));
  double scores[17];
  for (auto _ : state) {
    lag_scores(kernels[k], chunk.samples[0], chunk.samples[3], 8, scores);
    benchmark::DoNotOptimize(scores);
  }
  const char* names[] = {"scalar", "portable (SSE2 or NEON)", "AVX2", "AVX-512", "NEON, 4 lanes"};
  state.SetLabel(names[static_cast<int>(kernels[k])]);
}
BENCHMARK(BM_LagKernel)->DenseRange(0, 3)->Unit(benchmark::kMicrosecond);

void BM_ReadWavDecode(benchmark::State& state) {
  const std::size_t frames = static_cast<std::size_t>(state.range(0));
  const std::vector<int32_t> chunk = interleaved_chunk(frames, false);
  std::vector<uint8_t> bytes = {'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'A', 'V', 'E', 'f', 'm', 't', ' ', 16, 0, 0, 0, 1, 0, 4, 0,
                                0x80, 0x3E, 0, 0, 0, 0xE8, 0x03, 0, 16, 0, 32, 0, 'd', 'a', 't', 'a'};
  const uint32_t data_size = static_cast<uint32_t>(chunk.size() * 4);
  for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<uint8_t>(data_size >> (8 * i)));
  const auto* raw = reinterpret_cast<const uint8_t*>(chunk.data());
  bytes.insert(bytes.end(), raw, raw + data_size);
  for (auto _ : state) benchmark::DoNotOptimize(parse_wav(bytes, "bench.wav"));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * data_size);
}
BENCHMARK(BM_ReadWavDecode)->Arg(16000 * 10)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace sonderlark
