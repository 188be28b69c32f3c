#include "doctor/doctor.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <optional>
#include <stdexcept>

#include "doctor/probes.h"
#include "util/args.h"
#include "live/capture.h"
#include "live/live_mode.h"
#include "report/live_status.h"
#include "util/text.h"

namespace sonderlark {
namespace {

constexpr double kTapSeconds = 3.0;

}  // namespace

void print_doctor_usage(const char* program) {
  std::cout << "Usage: " << program
            << " [--device NAME] [--seconds N] [--tap] [--pcm-output PATH] [--virtual-mic] [--event-output PATH]"
               " [--json]\n"
            << "  --device NAME      ALSA capture device. Default: hw:1,0.\n"
            << "  --seconds N        Length of the channel recording, 1 to 60 s. Default: 5.\n"
            << "  --tap              Also check the channel order: tap microphone 0, 1, 2 and 3 in turn.\n"
            << "  --pcm-output PATH  Virtual microphone FIFO. Default: the one the live status file names,\n"
            << "                     else the loaded pipe source's; none: the check is skipped.\n"
            << "  --virtual-mic      A virtual microphone is wanted: check one even if none is set up.\n"
            << "  --event-output PATH  Live status file. Default: the live mode's own default.\n"
            << "  --json             Print one JSON object instead of text.\n"
            << "Exit status: 0 every check passed, 1 problems found, 2 refused command line.\n";
}

std::optional<int> parse_doctor_args(int argc, char** argv, DoctorOptions& options) {
  ArgReader args{argc, argv};
  const std::string program = program_name(args, "sonderlark-doctor");
  const auto refuse = [&program](const std::string& error) {
    std::cerr << error << '\n';
    print_doctor_usage(program.c_str());
    return 2;
  };
  while (const std::optional<std::string> arg = next_arg(args)) {
    std::string* text_option = *arg == "--device"         ? &options.device
                               : *arg == "--pcm-output"   ? &options.pcm_path
                               : *arg == "--event-output" ? &options.status_path
                                                          : nullptr;
    bool* flag = *arg == "--tap" ? &options.tap : *arg == "--virtual-mic" ? &options.virtual_mic
                                              : *arg == "--json"          ? &options.json
                                                                          : nullptr;
    if (*arg == "--help" || *arg == "-h") {
      print_doctor_usage(program.c_str());
      return 0;
    } else if (flag != nullptr) {
      *flag = true;
    } else if (text_option == nullptr && *arg != "--seconds") {
      return refuse("Unknown argument: " + *arg);
    } else if (const std::optional<std::string> value = next_arg(args); !value) {
      return refuse(*arg + " requires a value");
    } else if (text_option != nullptr) {
      *text_option = *value;
    } else if (const std::optional<int64_t> n = whole_number(*value, 1, 60)) {
      options.seconds = static_cast<int32_t>(*n);
    } else {
      return refuse("invalid value for --seconds: " + *value);
    }
  }
  return std::nullopt;
}

namespace {

// The device, then a recording of every channel and its level checks. The
// recording's reason to be skipped, empty when it was made.
std::string device_and_channels(const DoctorOptions& options, const std::string& folder, std::vector<Check>& checks) {
  std::string skip_reason;
  if (!on_path("arecord")) {
    checks.push_back({"device", "problem", "arecord is not installed", {}, "install alsa-utils (apt install alsa-utils)"});
    skip_reason = "arecord is not installed";
  } else {
    const auto [code, output] = run_command_output("timeout 15 arecord -D " + shell_quote(options.device) +
                                                   " --dump-hw-params -f S32_LE -r 16000 -c 4 -s 1 -t raw /dev/null");
    checks.push_back(device_check(options.device, code, output, processes_holding(card_prefix(options.device))));
    if (code != 0) skip_reason = "the device check failed";
  }
  if (skip_reason.empty()) {
    const std::string wav = folder + "/channels.wav";
    const auto [code, output] = record(options.device, options.seconds, wav, [](double) {});
    try {
      if (code != 0) throw std::runtime_error("arecord exited with status " + std::to_string(code) + ": " + last_line(output));
      const WavData recording = read_wav(wav);
      checks.push_back(channels_check(recording));
      checks.push_back(gain_check(recording));
    } catch (const std::exception& e) {
      checks.push_back({"channels", "problem", std::string("no recording: ") + e.what(), {}, ""});
      skip_reason = "there is no recording";
    }
  }
  if (!skip_reason.empty()) {
    if (checks.size() == 1) checks.push_back({"channels", "skipped", "not recorded: " + skip_reason, {}, ""});
    checks.push_back({"gain", "skipped", "not judged: " + skip_reason, {}, ""});
  }
  return skip_reason;
}

// The channel order from four taps the user makes when asked.
Check order_check(const DoctorOptions& options, const std::string& folder, const std::string& skip_reason) {
  if (!options.tap) {
    return {"channel order", "skipped", "run sonderlark-doctor --tap to check which channel is which microphone", {}, ""};
  }
  if (!skip_reason.empty()) return {"channel order", "skipped", "not checked: " + skip_reason, {}, ""};
  std::cerr << "Channel order: tap microphone 0, 1, 2 and 3 in turn, once each, " << kTapSeconds
            << " s apart, starting when the recording starts. Press Enter to start.\n";
  std::string answer;
  if (!std::getline(std::cin, answer)) return {"channel order", "skipped", "no answer on standard input", {}, ""};
  int prompted = -1;
  const std::string wav = folder + "/taps.wav";
  const auto [code, output] = record(options.device, 4 * kTapSeconds, wav, [&](double elapsed) {
    const int tap = static_cast<int>(elapsed / kTapSeconds);
    if (tap < 4 && tap > prompted) {
      prompted = tap;
      std::cerr << "now tap microphone " << tap << "\n";
    }
  });
  try {
    if (code != 0) throw std::runtime_error("arecord exited with status " + std::to_string(code));
    return tap_check(read_wav(wav), kTapSeconds, options.device);
  } catch (const std::exception& e) {
    return {"channel order", "problem", std::string("no recording: ") + e.what(), {}, ""};
  }
}

// The virtual microphone this user set up, and the live run's status.
void setup_checks(const DoctorOptions& options, std::vector<Check>& checks) {
  const auto [pactl_code, modules] = on_path("pactl") ? run_command_output("timeout 10 pactl list modules short")
                                                       : std::pair<int, std::string>{-1, ""};
  StatusRecord live_record;
  const double now = wall_clock_seconds();
  const RecordState live_state = read_status_record(options.status_path, now, live_record);
  const bool have_record = live_state == RecordState::kFresh || live_state == RecordState::kStale;
  const std::string runtime_default = private_pcm_path();
  const MicSetup setup = find_mic_setup(options, have_record ? live_record.pcm_output : "",
                                        pactl_code == 0 ? modules : "", runtime_default,
                                        path_facts(runtime_default).fifo);
  checks.push_back(virtual_mic_check(setup, pactl_code == 0, pactl_code == 0 ? modules : "",
                                     setup.pcm_path.empty() ? std::vector<std::string>{}
                                                            : processes_holding(setup.pcm_path),
                                     runtime_default, path_facts(setup.pcm_path)));
  checks.push_back(status_check(options.status_path, live_state, live_record, now));
}

}  // namespace

int run_doctor(int argc, char** argv) {
  DoctorOptions options;
  if (const std::optional<int> status = parse_doctor_args(argc, argv, options)) return *status;
  if (options.status_path.empty()) options.status_path = default_status_path();

  std::vector<Check> checks;
  char folder[] = "/tmp/sonderlark-doctor-XXXXXX";
  const bool have_folder = mkdtemp(folder) != nullptr;
  const std::string skip_reason = device_and_channels(options, folder, checks);
  checks.push_back(order_check(options, folder, skip_reason));
  if (have_folder) std::filesystem::remove_all(folder);
  setup_checks(options, checks);

  std::cout << (options.json ? doctor_json(options.device, checks) : doctor_text(checks));
  return std::any_of(checks.begin(), checks.end(), [](const Check& c) { return c.state == "problem"; }) ? 1 : 0;
}

}  // namespace sonderlark
