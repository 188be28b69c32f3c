#include "report/live_status.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <type_traits>

#include <ctime>
#include <nlohmann/json.hpp>

#include "report/json.h"
#include "util/files.h"
#include "util/text.h"

namespace sonderlark {
namespace {

// Moves `temp_path` over `path` in one step. The two are exchanged and the
// old record, now at `temp_path`, is unlinked right away: on ext4 a plain
// rename over an existing file flushes the new file's data at once and frees
// the old file's blocks, which with online discard waits for the disk on
// every record; a record that lives a few milliseconds and is dropped before
// writeback costs neither. A directory in the file's place is exchanged back
// (unlink refuses it), so it stays where it was and the temporary file stays
// behind, as after a failed rename. Where there is nothing to exchange with,
// or the file system cannot exchange, a plain rename does the job.
void replace_file(const std::string& temp_path, const std::string& path) {
  if (renameat2(AT_FDCWD, temp_path.c_str(), AT_FDCWD, path.c_str(), RENAME_EXCHANGE) != 0) {
    std::rename(temp_path.c_str(), path.c_str());
    return;
  }
  if (unlink(temp_path.c_str()) != 0 && (errno == EISDIR || errno == EPERM)) {
    renameat2(AT_FDCWD, temp_path.c_str(), AT_FDCWD, path.c_str(), RENAME_EXCHANGE);
  }
}

// Only "YYYY-MM-DDTHH:MM:SSZ" exactly: a timestamp is shown as it stands.
bool parse_timestamp(const std::string& text, std::time_t& out) {
  static constexpr char kShape[] = "dddd-dd-ddTdd:dd:ddZ";
  if (text.size() != sizeof kShape - 1) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool digit = text[i] >= '0' && text[i] <= '9';
    if (kShape[i] == 'd' ? !digit : text[i] != kShape[i]) return false;
  }
  auto number = [&text](std::size_t at, std::size_t n) { return std::stoi(text.substr(at, n)); };
  std::tm tm{};
  tm.tm_year = number(0, 4) - 1900;
  tm.tm_mon = number(5, 2) - 1;
  tm.tm_mday = number(8, 2);
  tm.tm_hour = number(11, 2);
  tm.tm_min = number(14, 2);
  tm.tm_sec = number(17, 2);
  out = timegm(&tm);
  return true;
}

}  // namespace

void write_live_status(const std::string& path, const LiveStatus& record) {
  if (path.empty()) return;
  make_parent_folder(path);

  const std::string temp_path = path + ".tmp";
  LiveStatus stamped = record;
  stamped.timestamp = now_iso8601_utc();
  JsonWriter out;
  out.text.reserve(1024 + record.arecord_stderr.size() + record.arecord_command.size());
  json_begin(out);
  each_status_member(stamped, [&out](const char* key, const auto& value, int decimals) {
    using T = std::decay_t<decltype(value)>;
    if constexpr (std::is_same_v<T, std::string>) {
      json_string_member(out, key, value);
    } else if constexpr (std::is_same_v<T, bool>) {
      json_bool_member(out, key, value);
    } else if constexpr (std::is_same_v<T, double>) {
      json_member(out, key, fixed(value, decimals));
    } else if constexpr (std::is_same_v<T, int64_t>) {
      json_member(out, key, std::to_string(value));
    } else {
      json_member(out, key, vector_json(value));
    }
  });
  json_end(out);

  // Never through a link or into a FIFO planted at the temporary path.
  const int fd = open_regular_for_writing(temp_path);
  if (fd < 0) return;
  const bool written = write_all(fd, out.text);
  // A record that did not reach the file whole must not replace the last good one.
  if (close(fd) != 0 || !written) return;
  replace_file(temp_path, path);
}

double wall_clock_seconds() {
  timespec t{};
  clock_gettime(CLOCK_REALTIME, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

RecordState read_status_record(const std::string& path, double now, StatusRecord& record) {
  const FileText file = read_file_text(path);
  if (!file.found) return RecordState::kMissing;
  if (!file.refused.empty()) {
    record.refused = file.refused;
    return RecordState::kRefused;
  }
  const nlohmann::json j = nlohmann::json::parse(file.text, nullptr, false);
  if (j.is_discarded() || !j.is_object()) return RecordState::kTorn;
  StatusRecord r;
  std::size_t members = 0;
  bool complete = true;
  try {
    each_status_member(r, [&](const char* key, auto& value, int) {
      ++members;
      const auto it = j.find(key);
      if (it == j.end()) {
        complete = false;
      } else {
        value = it->template get<std::decay_t<decltype(value)>>();
      }
    });
  } catch (const nlohmann::json::exception&) {
    return RecordState::kTorn;
  }
  if (!complete || j.size() != members || !parse_timestamp(r.timestamp, r.time)) return RecordState::kTorn;
  record = std::move(r);
  if (record.status == "running" && now - static_cast<double>(record.time) > kStaleAfterSeconds) {
    return RecordState::kStale;
  }
  return RecordState::kFresh;
}

}  // namespace sonderlark
