#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace sonderlark {

// One pass over a recording of n frames in blocks of `block` frames, with
// the caller's kPassWindows windows to hold them.
//
// For each block k in order, `fill` reads it into a window, `first` does
// its share of the block's work, then `second` does the rest; each is told
// the window (0 .. kPassWindows - 1) and the block's frames [from, to).
// Each accumulator belongs to exactly one of `first` and `second`; `second`
// may read what `fill` and `first` wrote into the window.
//
// With two blocks or more on a machine with two cores or more, `second`
// runs on a helper thread of its own, up to kPassWindows - 1 blocks behind
// the reading. The contract:
//   - window k % kPassWindows belongs to the reading thread from the moment
//     the helper is done with block k - kPassWindows until `first` is done
//     with block k; then to the helper until it is done with block k;
//   - two counters are all the threads share besides the windows and what
//     `first` hands to `second` in them: blocks read and through `first`
//     (-1 once `fill` threw) and blocks through `second`;
//   - each accumulator still sees its blocks one after another, in order,
//     so every sum is the same bits as on one thread.
// A waiting thread spins for a few thousand pauses before it sleeps: the
// other side is usually there within microseconds, less than a sleep and a
// wake-up cost. An exception from `fill` stops both threads and is thrown
// again here; `first` and `second` must not throw. On one thread, every
// block goes through window 0.
//
// The one-shot run reads long files: reading and decoding a block overlaps
// the other half of the work. A live chunk is one block, so live mode stays
// on its own thread: there is nothing to overlap within a 64 ms chunk, and
// starting a thread per chunk would cost more than it saves.
constexpr std::size_t kPassWindows = 3;
using BlockStep = std::function<void(std::size_t window, int64_t from, int64_t to)>;

void one_pass(int64_t n, int64_t block, const BlockStep& fill, const BlockStep& first, const BlockStep& second);

}  // namespace sonderlark
