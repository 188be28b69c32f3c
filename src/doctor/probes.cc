#include "doctor/probes.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <sstream>

#include "doctor/checks.h"
#include "live/capture.h"
#include "live/live_mode.h"
#include "util/process.h"
#include "util/text.h"

namespace sonderlark {

// Runs a shell command; its exit code and its standard output and error.
std::pair<int, std::string> run_command_output(const std::string& command) {
  const CommandResult r = run_command(command);
  return {r.exit_code, r.output};
}

bool on_path(const std::string& program) {
  const char* path = std::getenv("PATH");
  std::istringstream dirs(path != nullptr ? path : "");
  for (std::string dir; std::getline(dirs, dir, ':');) {
    if (!dir.empty() && access((dir + "/" + program).c_str(), X_OK) == 0) return true;
  }
  return false;
}

// The sound devices of the ALSA card that `device` names (hw:N, plughw:N),
// or every sound device.
std::string card_prefix(const std::string& device) {
  const std::size_t colon = device.find(':');
  if (colon != std::string::npos && (device.starts_with("hw:") || device.starts_with("plughw:"))) {
    const std::string card = device.substr(colon + 1, device.find(',') - colon - 1);
    if (!card.empty() && std::all_of(card.begin(), card.end(), ::isdigit)) return "/dev/snd/pcmC" + card + "D";
  }
  return "/dev/snd/";
}

// The PCM path to advise: in the private runtime folder when there is one.
PathFacts path_facts(const std::string& path) {
  PathFacts facts;
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0) return facts;
  const passwd* pw = getpwuid(info.st_uid);
  facts.exists = true;
  facts.fifo = S_ISFIFO(info.st_mode);
  facts.ours = info.st_uid == geteuid() || info.st_uid == 0;
  facts.owner = pw != nullptr ? pw->pw_name : std::to_string(info.st_uid);
  return facts;
}

std::string private_pcm_path() {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime != nullptr && *runtime != '\0') return std::string(runtime) + "/sonderlark-beamformed-mic.pcm";
  return default_pcm_output_path();
}

std::vector<std::string> processes_holding(const std::string& prefix) {
  std::vector<std::string> out;
  std::error_code ec;
  for (const auto& proc : std::filesystem::directory_iterator("/proc", ec)) {
    const std::string pid = proc.path().filename().string();
    if (!std::all_of(pid.begin(), pid.end(), ::isdigit) || pid == std::to_string(getpid())) continue;
    std::error_code fd_ec;
    for (const auto& fd : std::filesystem::directory_iterator(proc.path() / "fd", fd_ec)) {
      std::error_code link_ec;
      if (std::filesystem::read_symlink(fd.path(), link_ec).string().starts_with(prefix)) {
        std::string comm = last_line(read_text_file((proc.path() / "comm").string()));
        out.push_back(pid + " (" + comm + ")");
        break;
      }
    }
  }
  return out;
}

std::pair<int, std::string> record(const std::string& device, double seconds, const std::string& path,
                                   const std::function<void(double)>& during) {
  const std::string command =
      one_shot_capture_command(device, static_cast<int32_t>(std::ceil(seconds)), path) + " >" +
      shell_quote(path + ".out") + " 2>&1";
  const pid_t pid = spawn_shell(command);
  if (pid < 0) return {-1, ""};
  const auto start = std::chrono::steady_clock::now();
  std::optional<int> status;
  while (!(status = wait_child(pid, 100))) {
    during(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  return {decode_exit_code(*status), read_text_file(path + ".out")};
}

}  // namespace sonderlark
