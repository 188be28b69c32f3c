#include "dsp/diagnostics.h"

#include <algorithm>
#include <cassert>
#include <cmath>

#include "util/text.h"

namespace sonderlark {
namespace {

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
// side by side: the channels' sums are independent chains, so measuring
// them together keeps each exact and overlaps their latencies.
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
      if (k == 4) {
        add_span<4>(at, span, total, sum, peak);
      } else {
        for (std::size_t j = 0; j < k; ++j) add_span<1>(at + j, span, total + j, sum + j, peak + j);
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

ChannelDiagnostics diagnose_channels(const WavData& data, const std::string& label) {
  ChannelDiagnostics result;
  for (int32_t c = 0; c < data.channels; ++c) {
    // Channels are measured one by one: each may have a length of its own.
    const std::size_t k = static_cast<std::size_t>(c);
    const double* x = k < data.samples.size() ? data.samples[k].data() : nullptr;
    const std::size_t n = k < data.samples.size() ? data.samples[k].size() : 0;
    LevelMeter meter = start_levels(1, data.sample_rate, n);
    add_levels(meter, &x, n);
    const ChannelDiagnostics one = finish_levels(meter, label);
    result.rms.push_back(one.rms[0]);
    result.peak.push_back(one.peak[0]);
    result.noise_floor.push_back(one.noise_floor[0]);
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

double level_dbfs(double rms) { return rms > 0.0 ? std::max(20.0 * std::log10(rms), -120.0) : -120.0; }

void log_diagnostics(Logger& logger, const std::string& title, const ChannelDiagnostics& diagnostics) {
  logger.line(title + " diagnostics:");
  for (std::size_t i = 0; i < diagnostics.rms.size(); ++i) {
    logger.line("  channel " + std::to_string(i) + ": rms=" + fixed(diagnostics.rms[i], 8) +
                ", peak=" + fixed(diagnostics.peak[i], 8) +
                ", noise_floor=" + fixed(diagnostics.noise_floor[i], 8));
  }
}

}  // namespace sonderlark
