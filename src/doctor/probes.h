#pragma once

// What the doctor looks at outside itself: commands it runs, /proc, the
// recordings it makes.

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "doctor/checks.h"

namespace sonderlark {

// Whether `program` is an executable in a folder of $PATH.
bool on_path(const std::string& program);

// Runs a shell command; its exit code and its standard output and error.
std::pair<int, std::string> run_command_output(const std::string& command);

// "PID (NAME)" of every process with a file descriptor on a path that
// starts with `prefix`.
std::vector<std::string> processes_holding(const std::string& prefix);

// The sound devices of the ALSA card that `device` names (hw:N, plughw:N),
// or every sound device.
std::string card_prefix(const std::string& device);

// What lstat says of `path`.
PathFacts path_facts(const std::string& path);

// The PCM path to advise: in the private runtime folder when there is one.
std::string private_pcm_path();

// Records `seconds` through the one-shot run's capture command into `path`;
// on the way, `during(elapsed)` is called every 100 ms while arecord runs.
// arecord's exit code and what it printed.
std::pair<int, std::string> record(const std::string& device, double seconds, const std::string& path,
                                   const std::function<void(double)>& during);

}  // namespace sonderlark
