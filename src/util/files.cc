#include "util/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>

namespace sonderlark {

int open_regular_for_writing(const std::string& path) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666);
  if (fd < 0) return -1;
  struct stat info {};
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    close(fd);
    return -1;
  }
  return fd;
}

void make_parent_folder(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos || slash == 0) return;
  const std::string folder = path.substr(0, slash);
  struct stat info {};
  if (stat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) std::filesystem::create_directories(folder);
}

bool write_all(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

FileReplacement begin_replacement(const std::string& path) {
  FileReplacement file;
  file.path = path;
  file.temp_path = path + ".tmp";
  file.fd.reset(open_regular_for_writing(file.temp_path));
  return file;
}

void replacement_write(FileReplacement& file, std::string_view bytes) {
  if (!file.fd.valid() || file.failed) return;
  file.failed = !write_all(file.fd.get(), bytes);
}

bool finish_replacement(FileReplacement& file) {
  if (!file.fd.valid()) return false;  // nothing of ours to remove
  const bool closed = file.fd.reset() == 0;
  if (!file.failed && closed && std::rename(file.temp_path.c_str(), file.path.c_str()) == 0) return true;
  unlink(file.temp_path.c_str());
  return false;
}

void abandon_replacement(FileReplacement& file) {
  if (!file.fd.valid()) return;
  file.fd.reset();
  unlink(file.temp_path.c_str());
}

FileReplacement::~FileReplacement() { abandon_replacement(*this); }

void ignore_write_signals() {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

}  // namespace sonderlark
