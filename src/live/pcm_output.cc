#include "live/pcm_output.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <unistd.h>

#include "audio/wav.h"

namespace sonderlark {

void open_pcm_output(PcmOutput& output, Logger& logger) {
  if (output.fd >= 0) return;
  // O_CLOEXEC keeps the descriptor out of the arecord children.
  output.fd = open(output.path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  if (output.fd >= 0) {
    logger.line("live PCM output connected: " + output.path);
    return;
  }
  if (!output.warned) {
    logger.line(
        "warning: live PCM output has no reader or cannot be opened nonblocking; direction status "
        "will continue without virtual mic PCM writes");
    output.warned = true;
  }
}

void write_pcm_chunk(PcmOutput& output, const std::vector<double>& samples, Logger& logger) {
  std::vector<uint8_t> bytes;
  bytes.reserve(samples.size() * 2);
  for (double x : samples) {
    const uint16_t v = static_cast<uint16_t>(pcm16_from_sample(x));
    bytes.push_back(static_cast<uint8_t>(v & 0xFFu));
    bytes.push_back(static_cast<uint8_t>(v >> 8));
  }
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = write(output.fd, bytes.data() + done, bytes.size() - done);
    if (n > 0) {
      done += static_cast<std::size_t>(n);
      continue;
    }
    if (n < 0 && errno == EAGAIN) return;  // reader too slow: drop the rest of this chunk
    close_pcm_output(output);
    logger.line("warning: live PCM output reader disconnected; direction status will continue");
    return;
  }
}

void close_pcm_output(PcmOutput& output) {
  if (output.fd < 0) return;
  close(output.fd);
  output.fd = -1;
}

}  // namespace sonderlark
