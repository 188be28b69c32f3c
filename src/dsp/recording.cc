#include "dsp/recording.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <functional>
#include <memory>

#include "dsp/gain.h"
#include "dsp/lag_kernels.h"
#include "util/pipeline.h"

namespace sonderlark {
namespace {

// Every lag the analysis uses lies within +-8: a block is read with this
// many neighbours either side.
constexpr int64_t kHalo = 8;

// A block of every channel with its neighbours: sample i of channel c at
// at[c][i - origin], read for [lo, hi).
struct Window {
  std::vector<std::vector<double>> samples;
  std::vector<double*> at;
  int64_t origin = 0;
  int64_t lo = 0;
  int64_t hi = 0;
  bool processed = false;  // holds the block after the gain: a later pass need not read it again
  std::vector<double*> read_at;                // where a read puts frame lo of each channel
  mutable std::vector<const double*> from_at;  // block_start's pointers: one window, one thread at a time
};

using Fill = std::function<void(Window&, int64_t from, int64_t to)>;
using Work = std::function<void(const Window&, int64_t from, int64_t to)>;

// Pointers to frame `from` of every channel of the window.
const double* const* block_start(const Window& w, int64_t from) {
  for (std::size_t c = 0; c < w.at.size(); ++c) w.from_at[c] = w.at[c] + (from - w.origin);
  return w.from_at.data();
}

static_assert(kFallbackMaxLag <= kHalo && kEndToEndMaxLag <= kHalo && kAdjacentMaxLag <= kHalo);
// The searches' first pass comes from the channels' sums.
static_assert(kFallbackMaxLag <= kChannelSumReach && kEndToEndMaxLag <= kChannelSumReach);

// Samples per window at most, whatever the channel count claims: 2 MiB.
constexpr std::size_t kWindowSamples = 1 << 18;

// Fallback searches run at least this many channels per pass, and in at
// most two passes: every pass reads every channel, so the cost of a wide
// recording follows its data.
constexpr std::size_t kSearchesPerPass = 16;
constexpr std::size_t kMaxSearchPasses = 2;

// One analysis: its source, its windows and the channels' sums that every
// lag search starts from.
struct Run {
  const FrameSource& source;
  int64_t n = 0;
  int64_t block = 1;
  double gain = 1.0;
  std::array<Window, kPassWindows> windows;
  std::vector<ChannelSums> sums;
};

// At 0 dB the gain changes no sample (decoded samples lie in [-1, 1)): the
// processed samples are the raw ones, bit for bit.
bool unit_gain(const Run& run) { return run.gain == 1.0; }

// One pass of the pipeline over the run's windows.
void pass(Run& run, const Fill& fill, const Work& first, const Work& second) {
  one_pass(
      run.n, run.block, [&](std::size_t w, int64_t from, int64_t to) { fill(run.windows[w], from, to); },
      [&](std::size_t w, int64_t from, int64_t to) { first(run.windows[w], from, to); },
      [&](std::size_t w, int64_t from, int64_t to) { second(run.windows[w], from, to); });
}

void make_window(const Run& run, Window& w) {
  w.samples.assign(run.sums.size(), std::vector<double>(static_cast<std::size_t>(run.block + 2 * kHalo)));
  for (auto& channel : w.samples) w.at.push_back(channel.data());
  w.read_at.resize(w.at.size());
  w.from_at.resize(w.at.size());
}

// Reads frames [from, to) and their neighbours, as recorded.
void load_block(const Run& run, int64_t from, int64_t to, Window& w) {
  if (w.at.empty()) make_window(run, w);
  w.processed = false;
  w.origin = from - kHalo;
  w.lo = std::max<int64_t>(0, from - kHalo);
  w.hi = std::min<int64_t>(run.n, to + kHalo);
  for (std::size_t c = 0; c < w.at.size(); ++c) w.read_at[c] = w.at[c] + (w.lo - w.origin);
  run.source.read(static_cast<uint64_t>(w.lo), static_cast<uint64_t>(w.hi - w.lo), w.read_at.data());
}

// The input gain over the whole window; samples limited inside [from, to)
// are counted into `clipped` (the neighbours are counted with their own block).
void gain_block(double gain, int64_t from, int64_t to, Window& w, std::vector<int64_t>* clipped) {
  for (std::size_t c = 0; c < w.at.size(); ++c) {
    double* s = w.at[c];
    scale_and_limit(s + (w.lo - w.origin), static_cast<std::size_t>(from - w.lo), gain);
    const int64_t inside = scale_and_limit(s + (from - w.origin), static_cast<std::size_t>(to - from), gain);
    scale_and_limit(s + (to - w.origin), static_cast<std::size_t>(w.hi - to), gain);
    if (clipped != nullptr) (*clipped)[c] += inside;
  }
}

// A block as the chain sees it: after the gain.
Fill processed_block(const Run& run) {
  return [&run](Window& w, int64_t from, int64_t to) {
    // A recording of one block is read once, whatever the passes.
    if (w.processed && w.origin == from - kHalo) return;
    load_block(run, from, to, w);
    if (!unit_gain(run)) gain_block(run.gain, from, to, w, nullptr);
    w.processed = true;
  };
}

void measure(LevelMeter& meter, const Window& w, int64_t from, int64_t to) {
  add_levels(meter, block_start(w, from), static_cast<std::size_t>(to - from));
}

// First pass: the levels before and after the gain, the clipping, and the
// sums of every channel that the lag searches start from.
void measure_pass(Run& run, const AnalysisLabels& labels, double gain_db, RecordingAnalysis& result) {
  const FrameSource& s = run.source;
  LevelMeter raw = start_levels(s.channels, s.sample_rate, s.frames);
  LevelMeter processed = raw;
  std::vector<int64_t> clipped(run.sums.size(), 0);
  const LagKernel kernel = default_lag_kernel();
  const Work add_sums = [&](const Window& w, int64_t from, int64_t to) {
    add_channel_sums(kernel, run.sums, w.at.data(), w.origin, from, to);
  };
  // At 0 dB the samples as read are the processed ones: the sums go with
  // the reading and the levels beside it. Otherwise the reading measures
  // the raw samples and applies the gain, and the rest goes beside it.
  const bool unit = unit_gain(run);
  const Fill fill = [&](Window& w, int64_t from, int64_t to) {
    load_block(run, from, to, w);
    if (!unit) {
      if (!labels.raw.empty()) measure(raw, w, from, to);
      gain_block(run.gain, from, to, w, &clipped);
    }
    w.processed = true;
  };
  const Work nothing = [](const Window&, int64_t, int64_t) {};
  pass(run, fill, unit ? add_sums : nothing,
           [&](const Window& w, int64_t from, int64_t to) {
             measure(processed, w, from, to);
             if (!unit) add_sums(w, from, to);
           });
  if (!labels.raw.empty()) result.raw = finish_levels(unit ? processed : raw, labels.raw);
  add_clipping_warning(gain_db, clipped, result.gain_warnings);
  result.processed = finish_levels(processed, labels.processed);
}

// A lag search between two channels.
struct PairSearch {
  std::size_t a;
  std::size_t b;
  LagSearch search;
};

PairSearch pair_search(const Run& run, std::size_t a, std::size_t b, int32_t max_lag) {
  return {a, b, start_lag_search(default_lag_kernel(), max_lag, run.n)};
}

LagResult pair_result(const PairSearch& p) {
  std::vector<double> scores(2 * static_cast<std::size_t>(p.search.max_lag) + 1);
  lag_search_scores(p.search, scores.data());
  return pick_lag(scores.data(), p.search.max_lag);
}

// Second pass of a set of searches: their means from the channels' sums,
// then one reading for their centred products, the first `first_share` of
// them on the reading thread and the rest beside it.
void search_pass(Run& run, std::vector<PairSearch>& searches, std::size_t first_share) {
  for (PairSearch& p : searches) take_lag_means(p.search, run.sums[p.a], run.sums[p.b]);
  const auto share = [&searches](std::size_t begin, std::size_t end) -> Work {
    return [&searches, begin, end](const Window& w, int64_t from, int64_t to) {
      for (std::size_t k = begin; k < end; ++k) {
        add_lag_block(searches[k].search, w.at[searches[k].a], w.at[searches[k].b], w.origin, from, to);
      }
    };
  };
  const std::size_t split = std::min(first_share, searches.size());
  pass(run, processed_block(run), share(0, split), share(split, searches.size()));
}

// The estimate's four searches. The end-to-end one (17 lags) costs about
// what the three adjacent ones (9 lags each) cost together: it goes with
// the reading.
DirectionEstimate direction_pass(Run& run, const std::string& source_label) {
  std::vector<PairSearch> searches;
  constexpr int32_t kPairs[4][3] = {{0, 3, kEndToEndMaxLag}, {0, 1, kAdjacentMaxLag}, {1, 2, kAdjacentMaxLag},
                                     {2, 3, kAdjacentMaxLag}};
  for (const auto& [a, b, max_lag] : kPairs) searches.push_back(pair_search(run, a, b, max_lag));
  search_pass(run, searches, 1);
  return direction_from_lags(pair_result(searches[0]), pair_result(searches[1]), pair_result(searches[2]),
                             pair_result(searches[3]), source_label);
}

// The fallback's searches: each wanted channel against channel 0.
std::vector<int32_t> alignment_passes(Run& run, const std::vector<std::size_t>& wanted) {
  std::vector<int32_t> lags;
  const std::size_t per_pass = std::max(kSearchesPerPass, (wanted.size() + kMaxSearchPasses - 1) / kMaxSearchPasses);
  for (std::size_t first = 0; first < wanted.size(); first += per_pass) {
    std::vector<PairSearch> searches;
    for (std::size_t k = first; k < std::min(wanted.size(), first + per_pass); ++k) {
      searches.push_back(pair_search(run, 0, wanted[k], kFallbackMaxLag));
    }
    search_pass(run, searches, searches.size() / 2);
    for (const PairSearch& p : searches) lags.push_back(pair_result(p).lag);
  }
  return lags;
}

// Last pass: the beam, formed by the reading thread into the window's own
// buffer; the other thread measures it and hands it to the sink.
ChannelDiagnostics beam_pass(Run& run, const BeamformResult& beam, const std::string& label,
                             const BeamSink& beam_out) {
  LevelMeter levels = start_levels(1, run.source.sample_rate, run.source.frames);
  std::array<std::vector<double>, kPassWindows> outs;
  const auto out_of = [&](const Window& w) {
    std::vector<double>& out = outs[static_cast<std::size_t>(&w - run.windows.data())];
    if (out.empty()) out.resize(static_cast<std::size_t>(run.block));  // called by one thread per window
    return out.data();
  };
  const Work form = [&](const Window& w, int64_t from, int64_t to) {
    beam_block(w.at.data(), w.at.size(), beam.lags, w.origin, run.n, from, to, out_of(w));
  };
  pass(run, processed_block(run), form, [&](const Window& w, int64_t from, int64_t to) {
    double* out = out_of(w);
    if (!label.empty()) add_levels(levels, &out, static_cast<std::size_t>(to - from));
    beam_out(out, static_cast<std::size_t>(to - from));
  });
  return label.empty() ? ChannelDiagnostics{} : finish_levels(levels, label);
}

}  // namespace

FrameSource frames_of(const WavSource& source) {
  auto scratch = std::make_shared<std::vector<uint8_t>>();
  return {source.format.channels, source.format.sample_rate, source.frames,
          [&source, scratch](uint64_t first, uint64_t count, double* const* out) {
            read_frames(source, first, count, out, *scratch);
          }};
}

FrameSource frames_of(const WavData& data) {
  const uint64_t frames = data.samples.empty() ? 0 : data.samples[0].size();
  return {data.channels, data.sample_rate, frames, [&data](uint64_t first, uint64_t count, double* const* out) {
            for (std::size_t c = 0; c < data.samples.size(); ++c) {
              std::copy_n(data.samples[c].data() + first, count, out[c]);
            }
          }};
}

RecordingAnalysis analyse_recording(const FrameSource& source, double gain_db, const BeamSink& beam_out,
                                    const AnalysisLabels& labels, std::size_t block_frames) {
  RecordingAnalysis result;
  const std::size_t m = static_cast<std::size_t>(source.channels);
  assert(m >= 1);
  Run run{source, static_cast<int64_t>(source.frames), 1, gain_factor(gain_db), {}, {}};
  run.block = static_cast<int64_t>(std::max<std::size_t>(1, std::min(block_frames, kWindowSamples / m)));
  run.sums.assign(m, ChannelSums{run.n});
  // A recording of several blocks uses every window: they are made together,
  // side by side, before the passes; a single block's one window comes when
  // it is first read.
  if (run.n > run.block) {
    for (Window& w : run.windows) make_window(run, w);
  }

  measure_pass(run, labels, gain_db, result);
  const bool estimated = can_estimate_direction(source.channels, source.frames);
  if (estimated) {
    result.direction = direction_pass(run, labels.source);
  } else {
    result.direction.samples_source = labels.source;
  }
  result.beam = choose_beam(result.direction, source.channels, estimated,
                            [&run](const std::vector<std::size_t>& wanted) { return alignment_passes(run, wanted); });
  result.beamformed = beam_pass(run, result.beam, labels.beamformed, beam_out);
  return result;
}

}  // namespace sonderlark
