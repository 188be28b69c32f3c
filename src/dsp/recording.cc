#include "dsp/recording.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cassert>
#include <exception>
#include <functional>
#include <thread>

#include "dsp/gain.h"
#include "dsp/lag_kernels.h"

namespace sonderlark {
namespace {

// Every lag the chain uses lies within +-8: a block is read with this many
// neighbours either side.
constexpr int64_t kHalo = kEndToEndMaxLag;
static_assert(kFallbackMaxLag <= kHalo && kAdjacentMaxLag <= kHalo);
// The searches' first pass comes from the channels' sums.
static_assert(kFallbackMaxLag <= kChannelSumReach && kEndToEndMaxLag <= kChannelSumReach);

// Samples per window at most, whatever the channel count claims: 2 MiB.
constexpr std::size_t kWindowSamples = 1 << 18;

// Fallback searches run this many channels per two passes.
constexpr std::size_t kSearchesPerPass = 16;
constexpr std::size_t kMaxSearchPasses = 2;  // more searches per pass beyond 16 x 2 channels

// A block of every channel with its neighbours: sample i of channel c at
// at[c][i - origin], read for [lo, hi).
struct Window {
  std::vector<std::vector<double>> samples;
  std::vector<double*> at;
  int64_t origin = 0;
  int64_t lo = 0;
  int64_t hi = 0;
  std::vector<uint8_t> scratch;
  std::vector<double*> read_at;
};

Window make_window(std::size_t channels, std::size_t block) {
  Window w;
  w.samples.assign(channels, std::vector<double>(block + 2 * kHalo));
  for (auto& channel : w.samples) w.at.push_back(channel.data());
  w.read_at.resize(channels);
  return w;
}

// Reads frames [from, to) and their neighbours, as recorded.
void load_block(const WavSource& source, int64_t from, int64_t to, Window& w) {
  const int64_t n = static_cast<int64_t>(source.frames);
  w.origin = from - kHalo;
  w.lo = std::max<int64_t>(0, from - kHalo);
  w.hi = std::min<int64_t>(n, to + kHalo);
  for (std::size_t c = 0; c < w.at.size(); ++c) w.read_at[c] = w.at[c] + (w.lo - w.origin);
  read_frames(source, static_cast<uint64_t>(w.lo), static_cast<uint64_t>(w.hi - w.lo), w.read_at.data(), w.scratch);
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

// Pointers to frame `from` of every channel of the window.
std::vector<const double*> block_start(const Window& w, int64_t from) {
  std::vector<const double*> p;
  for (double* channel : w.at) p.push_back(channel + (from - w.origin));
  return p;
}

// A lag search between two channels.
struct PairSearch {
  std::size_t a;
  std::size_t b;
  LagSearch search;
};

PairSearch pair_search(std::size_t a, std::size_t b, int32_t max_lag, uint64_t frames) {
  return {a, b, start_lag_search(default_lag_kernel(), max_lag, static_cast<int64_t>(frames))};
}

LagResult pair_result(const PairSearch& p) {
  std::vector<double> scores(2 * static_cast<std::size_t>(p.search.max_lag) + 1);
  lag_search_scores(p.search, scores.data());
  return pick_lag(scores.data(), p.search.max_lag);
}

// Windows in flight: the reader fills one while the other thread may still
// work on the two before it, so that neither waits on the other's every
// block.
constexpr std::size_t kWindows = 3;
using Windows = std::array<Window, kWindows>;

// Waits until ready(counter) and returns the counter. The other thread is
// usually there within microseconds, less than a sleep and a wake-up cost:
// it spins a while before it sleeps.
template <typename Ready>
int64_t await(std::atomic<int64_t>& counter, Ready ready) {
  constexpr int kSpins = 4096;
  for (int spin = 0; spin < kSpins; ++spin) {
    const int64_t v = counter.load();
    if (ready(v)) return v;
#if defined(__x86_64__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
  }
  for (;;) {
    const int64_t v = counter.load();
    if (ready(v)) return v;
    counter.wait(v);
  }
}

// One pass over the recording: fill(window, from, to) reads a block into a
// window; then `first` and `second` each do their share of the block's work
// (every accumulator belongs to one of them; `second` may read what `first`
// wrote). With two cores, `second` runs on a thread of its own, up to two
// blocks behind the reading: the work of each accumulator still comes block
// after block, in order, so the bits do not change.
using Fill = std::function<void(Window&, int64_t, int64_t)>;
using Work = std::function<void(const Window&, int64_t, int64_t)>;

void one_pass(int64_t n, int64_t block, Windows& windows, const Fill& fill, const Work& first, const Work& second) {
  if (n <= 0) return;
  const int64_t blocks = (n + block - 1) / block;
  const auto range = [&](int64_t k) { return std::pair{k * block, std::min(n, (k + 1) * block)}; };
  if (std::thread::hardware_concurrency() < 2) {
    for (int64_t k = 0; k < blocks; ++k) {
      const auto [from, to] = range(k);
      fill(windows[0], from, to);
      first(windows[0], from, to);
      second(windows[0], from, to);
    }
    return;
  }
  // Blocks read and through `first` so far (-1 once a read failed), and
  // blocks the helper is done with.
  std::atomic<int64_t> filled = 0;
  std::atomic<int64_t> done = 0;
  std::thread helper([&] {
    for (int64_t k = 0; k < blocks; ++k) {
      const int64_t seen = await(filled, [k](int64_t v) { return v > k || v < 0; });
      if (seen < 0) return;
      const auto [from, to] = range(k);
      second(windows[static_cast<std::size_t>(k) % kWindows], from, to);
      done.store(k + 1);
      done.notify_one();
    }
  });
  std::exception_ptr failure;
  for (int64_t k = 0; k < blocks && !failure; ++k) {
    // The window of block k last held block k - kWindows: wait for the helper to be done with it.
    await(done, [k](int64_t d) { return d >= k - static_cast<int64_t>(kWindows) + 1; });
    const auto [from, to] = range(k);
    Window& w = windows[static_cast<std::size_t>(k) % kWindows];
    try {
      fill(w, from, to);
    } catch (...) {
      failure = std::current_exception();
      filled.store(-1);
      filled.notify_one();
      break;
    }
    first(w, from, to);
    filled.store(k + 1);
    filled.notify_one();
  }
  helper.join();
  if (failure) std::rethrow_exception(failure);
}

}  // namespace

RecordingAnalysis analyse_recording(const WavSource& source, double gain_db, const BeamSink& beam_out,
                                    std::size_t block_frames) {
  RecordingAnalysis result;
  const std::size_t m = static_cast<std::size_t>(source.format.channels);
  assert(m >= 1);
  const int32_t channels = source.format.channels;
  const uint64_t frames = source.frames;
  const int64_t n = static_cast<int64_t>(frames);
  const double gain = gain_factor(gain_db);
  // At 0 dB the gain changes no sample (decoded samples lie in [-1, 1)):
  // the processed samples are the raw ones, bit for bit.
  const bool unit_gain = gain == 1.0;
  const int64_t block = static_cast<int64_t>(std::max<std::size_t>(1, std::min(block_frames, kWindowSamples / m)));
  Windows windows;
  for (Window& w : windows) w = make_window(m, static_cast<std::size_t>(block));

  // A block as the chain sees it: after the gain.
  const Fill processed = [&](Window& w, int64_t from, int64_t to) {
    load_block(source, from, to, w);
    if (!unit_gain) gain_block(gain, from, to, w, nullptr);
  };
  // Searches split between the two threads (the first `first_share` with
  // the reading of the next block): their means from the channels' sums of
  // the first pass, then one pass for their centred products.
  std::vector<ChannelSums> channel_sums(m);
  for (ChannelSums& s : channel_sums) s.n = n;
  auto run_searches = [&](std::vector<PairSearch>& searches, std::size_t first_share) {
    const auto share = [&searches](std::size_t begin, std::size_t end) -> Work {
      return [&searches, begin, end](const Window& w, int64_t from, int64_t to) {
        for (std::size_t k = begin; k < std::min(end, searches.size()); ++k) {
          add_lag_block(searches[k].search, w.at[searches[k].a], w.at[searches[k].b], w.origin, from, to);
        }
      };
    };
    for (PairSearch& p : searches) take_lag_means(p.search, channel_sums[p.a], channel_sums[p.b]);
    const std::size_t split = std::min(first_share, searches.size());
    one_pass(n, block, windows, processed, share(0, split), share(split, searches.size()));
  };

  // First: the levels before and after the gain, and the sums of every
  // channel that the lag searches start from.
  LevelMeter raw = start_levels(channels, source.format.sample_rate, frames);
  LevelMeter processed_levels = start_levels(channels, source.format.sample_rate, frames);
  std::vector<int64_t> clipped(m, 0);
  const LagKernel kernel = default_lag_kernel();
  const auto add_sums = [&](const Window& w, int64_t from, int64_t to) {
    add_channel_sums(kernel, channel_sums, w.at.data(), w.origin, from, to);
  };
  if (unit_gain) {
    // The samples as read are the processed ones.
    one_pass(n, block, windows, processed, add_sums, [&](const Window& w, int64_t from, int64_t to) {
      add_levels(raw, block_start(w, from).data(), static_cast<std::size_t>(to - from));
    });
  } else {
    const Fill raw_then_processed = [&](Window& w, int64_t from, int64_t to) {
      load_block(source, from, to, w);
      add_levels(raw, block_start(w, from).data(), static_cast<std::size_t>(to - from));
      gain_block(gain, from, to, w, &clipped);
    };
    one_pass(n, block, windows, raw_then_processed, [](const Window&, int64_t, int64_t) {},
             [&](const Window& w, int64_t from, int64_t to) {
               add_levels(processed_levels, block_start(w, from).data(), static_cast<std::size_t>(to - from));
               add_sums(w, from, to);
             });
  }
  result.raw = finish_levels(raw, "raw channel");
  add_clipping_warning(gain_db, clipped, result.gain_warnings);
  result.processed = finish_levels(unit_gain ? raw : processed_levels, "processed channel");

  const bool estimate = m >= 4 && n > 0;
  std::optional<int32_t> end_to_end_lag;
  if (estimate) {
    // The end-to-end search (17 lags) costs about what the three adjacent
    // ones (9 lags each) cost together: it goes with the reading.
    std::vector<PairSearch> direction_searches;
    direction_searches.push_back(pair_search(0, 3, kEndToEndMaxLag, frames));
    direction_searches.push_back(pair_search(0, 1, kAdjacentMaxLag, frames));
    direction_searches.push_back(pair_search(1, 2, kAdjacentMaxLag, frames));
    direction_searches.push_back(pair_search(2, 3, kAdjacentMaxLag, frames));
    run_searches(direction_searches, 1);
    const LagResult r03 = pair_result(direction_searches[0]);
    end_to_end_lag = r03.lag;
    result.direction = direction_from_lags(r03, pair_result(direction_searches[1]),
                                           pair_result(direction_searches[2]), pair_result(direction_searches[3]),
                                           "processed");
  } else {
    result.direction.samples_source = "processed";
  }

  // The shifts: from the estimate, or each channel aligned to channel 0
  // (one more pass per batch of channels; channel 3's search is the
  // estimate's own).
  BeamformResult& beam = result.beam;
  if (beam_is_guided(result.direction, channels)) {
    beam.lags = guided_lags(result.direction, channels);
    beam.method = kGuidedBeamMethod;
  } else {
    beam.lags.assign(m, 0);
    std::vector<std::size_t> wanted;
    for (std::size_t c = 1; c < m; ++c) {
      if (c == 3 && end_to_end_lag) {
        beam.lags[c] = *end_to_end_lag;
      } else {
        wanted.push_back(c);
      }
    }
    // Every pass reads every channel, so a wide recording takes its
    // searches in a bounded number of passes: the cost follows the data.
    const std::size_t per_pass =
        std::max(kSearchesPerPass, (wanted.size() + kMaxSearchPasses - 1) / kMaxSearchPasses);
    for (std::size_t first = 0; first < wanted.size(); first += per_pass) {
      std::vector<PairSearch> searches;
      for (std::size_t k = first; k < std::min(wanted.size(), first + per_pass); ++k) {
        searches.push_back(pair_search(0, wanted[k], kFallbackMaxLag, frames));
      }
      run_searches(searches, searches.size() / 2);
      for (const PairSearch& p : searches) beam.lags[p.b] = pair_result(p).lag;
    }
    beam.method = kFallbackBeamMethod;
  }

  // Last: the beam, to the sink and its levels.
  LevelMeter beam_levels = start_levels(1, source.format.sample_rate, frames);
  // The reading thread forms the beam of a window, into the window's own
  // buffer; the other thread measures it and hands it to the sink.
  std::array<std::vector<double>, kWindows> outs;
  for (auto& out : outs) out.resize(static_cast<std::size_t>(block));
  const auto out_of = [&](const Window& w) { return outs[static_cast<std::size_t>(&w - windows.data())].data(); };
  const Work beam_of = [&](const Window& w, int64_t from, int64_t to) {
    beam_block(w.at.data(), m, beam.lags, w.origin, n, from, to, out_of(w));
  };
  one_pass(n, block, windows, processed, beam_of, [&](const Window& w, int64_t from, int64_t to) {
    double* out = out_of(w);
    add_levels(beam_levels, &out, static_cast<std::size_t>(to - from));
    beam_out(out, static_cast<std::size_t>(to - from));
  });
  result.beamformed = finish_levels(beam_levels, "beamformed channel");
  return result;
}

}  // namespace sonderlark
