#include "dsp/diagnostics.h"

#include <algorithm>
#include <cmath>

#include "util/text.h"

namespace sonderlark {
namespace {

// Sum of squares in index order, so the result is the same everywhere.
double sum_of_squares(const double* x, std::size_t n) {
  double sum = 0.0;
  for (std::size_t i = 0; i < n; ++i) sum += x[i] * x[i];
  return sum;
}

double noise_floor_of(const std::vector<double>& x, double rms, int32_t sample_rate) {
  const std::size_t block = static_cast<std::size_t>(std::max<int32_t>(sample_rate / 50, 1));
  if (x.size() < block) return rms;
  const std::size_t blocks = x.size() / block;  // a trailing partial block is ignored
  std::vector<double> block_rms(blocks);
  for (std::size_t b = 0; b < blocks; ++b) {
    block_rms[b] = std::sqrt(sum_of_squares(x.data() + b * block, block) / static_cast<double>(block));
  }
  std::sort(block_rms.begin(), block_rms.end());
  const std::size_t quiet = std::max<std::size_t>(blocks / 10, 1);
  double sum = 0.0;
  for (std::size_t b = 0; b < quiet; ++b) sum += block_rms[b];
  return sum / static_cast<double>(quiet);
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
      const std::vector<double>& x = data.samples[c];
      result.rms[c] = std::sqrt(sum_of_squares(x.data(), x.size()) / static_cast<double>(x.size()));
      double peak = 0.0;
      for (double v : x) peak = std::max(peak, std::fabs(v));
      result.peak[c] = peak;
      result.noise_floor[c] = noise_floor_of(x, result.rms[c], data.sample_rate);
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
