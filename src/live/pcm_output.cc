#include "live/pcm_output.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "audio/wav.h"

namespace sonderlark {

std::string pcm_output_refusal(int fd, const std::string& path) {
  struct stat file {};
  if (fstat(fd, &file) != 0 || !(S_ISFIFO(file.st_mode) || S_ISREG(file.st_mode))) {
    return "not a FIFO or regular file";
  }
  // In a folder where anyone may create files but only remove their own
  // (like /tmp), a file of another user may be a trap set for our audio.
  const std::size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  struct stat parent {};
  const bool shared = stat(folder.c_str(), &parent) == 0 && (parent.st_mode & S_IWOTH) != 0 &&
                      (parent.st_mode & S_ISVTX) != 0;
  if (shared && file.st_uid != geteuid() && file.st_uid != 0) return "owned by another user";
  return "";
}

void open_pcm_output(PcmOutput& output, Logger& logger) {
  if (output.fd.valid()) return;
  // O_CLOEXEC keeps the descriptor out of the arecord children; O_NOFOLLOW
  // refuses a symbolic link planted at the path.
  UniqueFd fd(open(output.path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW));
  std::string reason;
  if (!fd.valid() && errno == ELOOP) reason = "symbolic link";
  if (fd.valid()) {
    reason = pcm_output_refusal(fd.get(), output.path);
    if (!reason.empty()) fd.reset();
  }
  if (fd.valid()) {
    output.fd = std::move(fd);
    logger.line("live PCM output connected: " + output.path);
    return;
  }
  if (!output.warned) {
    logger.line(
        "warning: live PCM output has no reader or cannot be opened nonblocking; direction status "
        "will continue without virtual mic PCM writes" +
        (reason.empty() ? "" : ": " + reason));
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
    const ssize_t n = write(output.fd.get(), bytes.data() + done, bytes.size() - done);
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
  output.fd.reset();
}

}  // namespace sonderlark
