#include "dsp/diagnostics.h"

#include <algorithm>
#include <cassert>
#include <cmath>

#include "util/text.h"

namespace sonderlark {
namespace {

struct Levels {
  double rms = 0.0;
  double peak = 0.0;
  double noise_floor = 0.0;
};

double mean_of_quietest(std::vector<double>& block_rms) {
  std::sort(block_rms.begin(), block_rms.end());
  const std::size_t quiet = std::max<std::size_t>(block_rms.size() / 10, 1);
  double sum = 0.0;
  for (std::size_t b = 0; b < quiet; ++b) sum += block_rms[b];
  return sum / static_cast<double>(quiet);
}

// One pass over K non-empty channels of one length n, side by side: per
// channel the running sum of squares for the rms and, beside it, each
// block's own sum, all in index order. The channels' sums are independent
// chains, so measuring them together keeps each exact and overlaps their
// latencies.
template <int K>
void measure_together(const double* const* x, std::size_t n, int32_t sample_rate, Levels* out) {
  const std::size_t block = static_cast<std::size_t>(std::max<int32_t>(sample_rate / 50, 1));
  const std::size_t blocks = n / block;  // a trailing partial block is ignored
  std::vector<double> block_rms[K];
  for (int k = 0; k < K; ++k) block_rms[k].resize(blocks);
  double total[K] = {};
  double peak[K] = {};
  std::size_t i = 0;
  for (std::size_t b = 0; b < blocks; ++b) {
    double sum[K] = {};
    for (const std::size_t end = i + block; i < end; ++i) {
      for (int k = 0; k < K; ++k) {
        const double square = x[k][i] * x[k][i];
        total[k] += square;
        sum[k] += square;
        peak[k] = std::max(peak[k], std::fabs(x[k][i]));
      }
    }
    for (int k = 0; k < K; ++k) block_rms[k][b] = std::sqrt(sum[k] / static_cast<double>(block));
  }
  for (; i < n; ++i) {
    for (int k = 0; k < K; ++k) {
      total[k] += x[k][i] * x[k][i];
      peak[k] = std::max(peak[k], std::fabs(x[k][i]));
    }
  }
  for (int k = 0; k < K; ++k) {
    out[k].rms = std::sqrt(total[k] / static_cast<double>(n));
    out[k].peak = peak[k];
    out[k].noise_floor = n < block ? out[k].rms : mean_of_quietest(block_rms[k]);
  }
}

// Measures channels [first, first + count), count 1 to 4, all of length n > 0.
void measure_group(const std::vector<std::vector<double>>& samples, std::size_t first, std::size_t count,
                   int32_t sample_rate, Levels* out) {
  assert(count >= 1 && count <= 4);
  const double* x[4];
  for (std::size_t k = 0; k < count; ++k) x[k] = samples[first + k].data();
  const std::size_t n = samples[first].size();
  switch (count) {
    case 4: measure_together<4>(x, n, sample_rate, out); break;
    case 3: measure_together<3>(x, n, sample_rate, out); break;
    case 2: measure_together<2>(x, n, sample_rate, out); break;
    default: measure_together<1>(x, n, sample_rate, out); break;
  }
}

// The warning lines of finished measures.
void flag_levels(ChannelDiagnostics& result, const std::string& label) {
  for (std::size_t c = 0; c < result.rms.size(); ++c) {
    const std::string name = label + " " + std::to_string(c);
    if (result.rms[c] < kSilenceRmsThreshold || result.peak[c] < kSilencePeakThreshold) {
      result.warnings.push_back(name + " may be silent or dead");
    }
    if (result.peak[c] >= kClippingPeakThreshold) result.warnings.push_back(name + " may be clipping");
  }
}

}  // namespace

ChannelDiagnostics diagnose_channels(const WavData& data, const std::string& label) {
  ChannelDiagnostics result;
  if (data.channels <= 0) return result;
  const std::size_t m = static_cast<std::size_t>(data.channels);
  result.rms.assign(m, 0.0);
  result.peak.assign(m, 0.0);
  result.noise_floor.assign(m, 0.0);
  // Up to four neighbouring channels of one length are measured together.
  const std::size_t present = std::min(m, data.samples.size());
  std::vector<Levels> levels(m);
  for (std::size_t c = 0; c < present;) {
    const std::size_t n = data.samples[c].size();
    std::size_t count = 1;
    while (count < 4 && c + count < present && data.samples[c + count].size() == n) ++count;
    if (n > 0) measure_group(data.samples, c, count, data.sample_rate, levels.data() + c);
    c += count;
  }
  for (std::size_t c = 0; c < m; ++c) {
    result.rms[c] = levels[c].rms;
    result.peak[c] = levels[c].peak;
    result.noise_floor[c] = levels[c].noise_floor;
  }
  flag_levels(result, label);
  return result;
}

LevelMeter start_levels(int32_t channels, int32_t sample_rate, uint64_t frames) {
  LevelMeter meter;
  meter.channels = static_cast<std::size_t>(std::max<int32_t>(channels, 0));
  meter.block = static_cast<std::size_t>(std::max<int32_t>(sample_rate / 50, 1));
  meter.frames = frames;
  meter.quiet = std::max<std::size_t>(static_cast<std::size_t>(frames / meter.block) / 10, 1);
  meter.total.assign(meter.channels, 0.0);
  meter.peak.assign(meter.channels, 0.0);
  meter.block_sum.assign(meter.channels, 0.0);
  meter.quietest.assign(meter.channels, {});
  return meter;
}

namespace {

// Adds frames [0, count) of K channels, all inside one noise-floor block,
// side by side as measure_together does.
template <int K>
void add_span(const double* const* x, std::size_t count, double* total, double* block_sum, double* peak) {
  double t[K], b[K], p[K];
  for (int k = 0; k < K; ++k) {
    t[k] = total[k];
    b[k] = block_sum[k];
    p[k] = peak[k];
  }
  for (std::size_t i = 0; i < count; ++i) {
    for (int k = 0; k < K; ++k) {
      const double square = x[k][i] * x[k][i];
      t[k] += square;
      b[k] += square;
      p[k] = std::max(p[k], std::fabs(x[k][i]));
    }
  }
  for (int k = 0; k < K; ++k) {
    total[k] = t[k];
    block_sum[k] = b[k];
    peak[k] = p[k];
  }
}

// Keeps the `quiet` smallest levels seen: the largest of them on top.
void keep_quietest(std::vector<double>& heap, std::size_t quiet, double level) {
  if (heap.size() < quiet) {
    heap.push_back(level);
    std::push_heap(heap.begin(), heap.end());
  } else if (level < heap.front()) {
    std::pop_heap(heap.begin(), heap.end());
    heap.back() = level;
    std::push_heap(heap.begin(), heap.end());
  }
}

}  // namespace

void add_levels(LevelMeter& meter, const double* const* x, std::size_t count) {
  const uint64_t blocks = meter.frames / meter.block;  // a trailing partial block is ignored
  std::size_t done = 0;
  while (done < count) {
    const std::size_t in_block = static_cast<std::size_t>(meter.seen % meter.block);
    const std::size_t span = std::min(count - done, meter.block - in_block);
    for (std::size_t c = 0; c < meter.channels;) {
      const std::size_t k = std::min<std::size_t>(4, meter.channels - c);
      const double* at[4];
      for (std::size_t j = 0; j < k; ++j) at[j] = x[c + j] + done;
      double* total = meter.total.data() + c;
      double* sum = meter.block_sum.data() + c;
      double* peak = meter.peak.data() + c;
      switch (k) {
        case 4: add_span<4>(at, span, total, sum, peak); break;
        case 3: add_span<3>(at, span, total, sum, peak); break;
        case 2: add_span<2>(at, span, total, sum, peak); break;
        default: add_span<1>(at, span, total, sum, peak); break;
      }
      c += k;
    }
    done += span;
    meter.seen += span;
    if (in_block + span == meter.block) {
      const bool whole = meter.seen / meter.block <= blocks;
      for (std::size_t c = 0; c < meter.channels; ++c) {
        if (whole) {
          keep_quietest(meter.quietest[c], meter.quiet,
                        std::sqrt(meter.block_sum[c] / static_cast<double>(meter.block)));
        }
        meter.block_sum[c] = 0.0;
      }
    }
  }
}

ChannelDiagnostics finish_levels(const LevelMeter& meter, const std::string& label) {
  ChannelDiagnostics result;
  result.rms.assign(meter.channels, 0.0);
  result.peak.assign(meter.channels, 0.0);
  result.noise_floor.assign(meter.channels, 0.0);
  const uint64_t n = meter.seen;
  for (std::size_t c = 0; c < meter.channels && n > 0; ++c) {
    result.rms[c] = std::sqrt(meter.total[c] / static_cast<double>(n));
    result.peak[c] = meter.peak[c];
    if (n < meter.block) {
      result.noise_floor[c] = result.rms[c];
    } else {
      // The heap holds exactly the quietest blocks: their mean, smallest first.
      std::vector<double> quietest = meter.quietest[c];
      std::sort(quietest.begin(), quietest.end());
      double sum = 0.0;
      for (double level : quietest) sum += level;
      result.noise_floor[c] = sum / static_cast<double>(quietest.size());
    }
  }
  flag_levels(result, label);
  return result;
}

bool detected_speech(const std::vector<double>& processed_rms) {
  for (double rms : processed_rms) {
    if (rms > kSpeechRmsThreshold) return true;
  }
  return false;
}

void log_diagnostics(Logger& logger, const std::string& title, const ChannelDiagnostics& diagnostics) {
  logger.line(title + " diagnostics:");
  for (std::size_t i = 0; i < diagnostics.rms.size(); ++i) {
    logger.line("  channel " + std::to_string(i) + ": rms=" + fixed(diagnostics.rms[i], 8) +
                ", peak=" + fixed(diagnostics.peak[i], 8) +
                ", noise_floor=" + fixed(diagnostics.noise_floor[i], 8));
  }
}

}  // namespace sonderlark
