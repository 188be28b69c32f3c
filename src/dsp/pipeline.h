#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace sonderlark {

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
};

Window make_window(std::size_t channels, std::size_t block);

// Pointers to frame `from` of every channel of the window.
std::vector<const double*> block_start(const Window& w, int64_t from);

// One pass over a recording of n frames in blocks of `block` frames.
//
// For each block k in order, `fill` reads it into a window, `first` does
// its share of the block's work, then `second` does the rest. Each
// accumulator belongs to exactly one of `first` and `second`; `second` may
// read what `fill` and `first` wrote into the window.
//
// With two blocks or more on a machine with two cores or more, `second`
// runs on a helper thread of its own, up to kWindows - 1 blocks behind the
// reading. The contract:
//   - window k % kWindows belongs to the reading thread from the moment the
//     helper is done with block k - kWindows until `first` is done with
//     block k; then to the helper until it is done with block k;
//   - `filled` (blocks read and through `first`, -1 once `fill` threw) and
//     `done` (blocks through `second`) are the only state the threads share
//     besides the windows and what `first` hands to `second` in them;
//   - each accumulator still sees its blocks one after another, in order,
//     so every sum is the same bits as on one thread.
// A waiting thread spins for a few thousand pauses before it sleeps: the
// other side is usually there within microseconds, less than a sleep and a
// wake-up cost. An exception from `fill` stops both threads and is thrown
// again here; `first` and `second` must not throw.
//
// The one-shot run reads long files: reading and decoding a block overlaps
// the other half of the work. A live chunk is one block, so live mode stays
// on its own thread: there is nothing to overlap within a 64 ms chunk, and
// starting a thread per chunk would cost more than it saves.
constexpr std::size_t kWindows = 3;
using Windows = std::array<Window, kWindows>;
using Fill = std::function<void(Window&, int64_t from, int64_t to)>;
using Work = std::function<void(const Window&, int64_t from, int64_t to)>;

void one_pass(int64_t n, int64_t block, Windows& windows, const Fill& fill, const Work& first, const Work& second);

}  // namespace sonderlark
