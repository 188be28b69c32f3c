#pragma once

#include <string>
#include <vector>

#include "util/logger.h"
#include "util/unique_fd.h"

namespace sonderlark {

// The live PCM stream: mono s16le into an existing file or FIFO, never
// blocking. The path is never created.
struct PcmOutput {
  std::string path;
  UniqueFd fd;          // none while closed
  bool warned = false;  // the no-reader warning was logged (once per run)
};

// When closed, opens the path write-only and non-blocking (no create,
// truncate or append). On a FIFO this fails while nobody reads it. A
// symbolic link, anything but a FIFO or regular file, and, in a sticky
// world-writable folder such as /tmp, a file of another user than ours or
// root are refused: the output stays closed and the once-per-run warning
// names the reason.
void open_pcm_output(PcmOutput& output, Logger& logger);

// Why the open descriptor `fd` of `path` must not receive our audio, or ""
// when it may.
std::string pcm_output_refusal(int fd, const std::string& path);

// Writes `samples` as s16le (clamped, x 32767, halves away from zero). A full
// pipe drops the rest of the chunk; any other failure closes the output and
// logs the disconnect.
void write_pcm_chunk(PcmOutput& output, const std::vector<double>& samples, Logger& logger);

// Closes the output if open.
void close_pcm_output(PcmOutput& output);

}  // namespace sonderlark
