#include "dsp/diagnostics.h"

#include <algorithm>
#include <cmath>

#include "util/text.h"

namespace sonderlark {
namespace {

struct Levels {
  double rms = 0.0;
  double peak = 0.0;
  double noise_floor = 0.0;
};

// One pass over a non-empty channel: the running sum of squares for the rms
// and, beside it, each block's own sum, all in index order.
Levels measure(const std::vector<double>& x, int32_t sample_rate) {
  const std::size_t n = x.size();
  const std::size_t block = static_cast<std::size_t>(std::max<int32_t>(sample_rate / 50, 1));
  const std::size_t blocks = n / block;  // a trailing partial block is ignored
  std::vector<double> block_rms(blocks);
  double total = 0.0;
  double peak = 0.0;
  std::size_t i = 0;
  for (std::size_t b = 0; b < blocks; ++b) {
    double sum = 0.0;
    for (const std::size_t end = i + block; i < end; ++i) {
      const double square = x[i] * x[i];
      total += square;
      sum += square;
      peak = std::max(peak, std::fabs(x[i]));
    }
    block_rms[b] = std::sqrt(sum / static_cast<double>(block));
  }
  for (; i < n; ++i) {
    total += x[i] * x[i];
    peak = std::max(peak, std::fabs(x[i]));
  }
  Levels levels;
  levels.rms = std::sqrt(total / static_cast<double>(n));
  levels.peak = peak;
  if (n < block) {
    levels.noise_floor = levels.rms;
    return levels;
  }
  std::sort(block_rms.begin(), block_rms.end());
  const std::size_t quiet = std::max<std::size_t>(blocks / 10, 1);
  double sum = 0.0;
  for (std::size_t b = 0; b < quiet; ++b) sum += block_rms[b];
  levels.noise_floor = sum / static_cast<double>(quiet);
  return levels;
}

}  // namespace

ChannelDiagnostics diagnose_channels(const WavData& data, const std::string& label) {
  ChannelDiagnostics result;
  if (data.channels <= 0) return result;
  const std::size_t m = static_cast<std::size_t>(data.channels);
  result.rms.assign(m, 0.0);
  result.peak.assign(m, 0.0);
  result.noise_floor.assign(m, 0.0);
  for (std::size_t c = 0; c < m; ++c) {
    if (c < data.samples.size() && !data.samples[c].empty()) {
      const Levels levels = measure(data.samples[c], data.sample_rate);
      result.rms[c] = levels.rms;
      result.peak[c] = levels.peak;
      result.noise_floor[c] = levels.noise_floor;
    }
    const std::string name = label + " " + std::to_string(c);
    if (result.rms[c] < kSilenceRmsThreshold || result.peak[c] < kSilencePeakThreshold) {
      result.warnings.push_back(name + " may be silent or dead");
    }
    if (result.peak[c] >= kClippingPeakThreshold) result.warnings.push_back(name + " may be clipping");
  }
  return result;
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
