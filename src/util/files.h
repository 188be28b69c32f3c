#pragma once

#include <string>
#include <string_view>

#include "util/unique_fd.h"

namespace sonderlark {

// Opens `path` for writing as a plain file of ours: created or truncated,
// never through a symbolic link, never blocking on a FIFO, closed on exec,
// and checked to be a regular file. -1 when any of that fails.
int open_regular_for_writing(const std::string& path);

// Makes the folders above `path` that are missing; almost always they are
// there already, and one stat says so. Throws std::filesystem::filesystem_error
// when they cannot be made.
void make_parent_folder(const std::string& path);

// Writes all of `bytes`, resuming after interruptions and short writes.
bool write_all(int fd, std::string_view bytes);

// A file written whole or not at all: the bytes go to `path`.tmp, which
// replaces `path` only once every write and the close have succeeded.
// Dropped unfinished (an error on the way), it removes its temporary file.
struct FileReplacement {
  std::string path;
  std::string temp_path;
  UniqueFd fd;          // none when the temporary file could not be had
  bool failed = false;  // a write failed

  FileReplacement() = default;
  FileReplacement(FileReplacement&&) = default;
  FileReplacement& operator=(FileReplacement&&) = delete;
  ~FileReplacement();
};

// Opens `path`.tmp for a replacement of `path`.
FileReplacement begin_replacement(const std::string& path);

// Appends `bytes` to the temporary file; a failure is remembered.
void replacement_write(FileReplacement& file, std::string_view bytes);

// Closes the temporary file and moves it over `path`. On any failure the
// temporary file is removed, `path` is left as it was, and false returned.
bool finish_replacement(FileReplacement& file);

// Closes and removes the temporary file of a replacement that will not be
// finished (an error came up on the way); `path` is left as it was.
void abandon_replacement(FileReplacement& file);

// Standard output and this process: SIGPIPE and SIGXFSZ are ignored, so a
// closed reader or a file-size limit is a failed write, not a killed run.
void ignore_write_signals();

}  // namespace sonderlark
