#include "cli/options.h"

#include <cmath>
#include <iostream>
#include <iterator>

#include "util/args.h"
#include "util/exit_status.h"

namespace sonderlark {
namespace {

// The options that take a value.
bool takes_value(const std::string& arg) {
  for (const char* name : {"--duration", "--device", "--output", "--beamformed", "--event", "--log", "--input-gain-db",
                           "--pcm-output", "--live-duration", "--live-chunk-frames", "--event-output", "--input-wav"}) {
    if (arg == name) return true;
  }
  return false;
}

// The integer value of `arg`, or nothing after saying why.
std::optional<int32_t> int_value(const std::string& arg, const std::string& value) {
  const std::optional<int32_t> n = leading_int(value);
  if (!n) std::cerr << "invalid value for " << arg << ": " << value << '\n';
  return n;
}

// Sets option `arg` from its value; false when the value is refused.
bool set_value(Options& options, const std::string& arg, const std::string& value) {
  if (arg == "--duration") {
    const auto n = int_value(arg, value);
    return n && (options.duration_seconds = *n) >= 1;
  } else if (arg == "--live-duration") {
    const auto n = int_value(arg, value);
    return n && (options.live_duration_seconds = *n) >= 0;
  } else if (arg == "--live-chunk-frames") {
    const auto n = int_value(arg, value);
    return n && (options.live_chunk_frames = *n) >= 128 && *n <= 16000;
  } else if (arg == "--input-gain-db") {
    const std::optional<double> db = leading_number(value);
    if (!db) {
      std::cerr << "invalid value for " << arg << ": " << value << '\n';
      return false;
    }
    options.input_gain_db = *db;
    if (!std::isfinite(*db) || *db < -60.0 || *db > 36.0) {
      std::cerr << "--input-gain-db must be finite and between -60 and +36 dB" << '\n';
      return false;
    }
  } else if (arg == "--event-output") {
    options.event_output_path = value;
    options.event_path = value;
  } else if (arg == "--input-wav") {
    options.input_wav_path = value;
    options.skip_capture = true;
  } else {
    std::string* paths[] = {&options.device, &options.output_path, &options.beamformed_path,
                            &options.event_path, &options.log_path, &options.pcm_output_path};
    const char* names[] = {"--device", "--output", "--beamformed", "--event", "--log", "--pcm-output"};
    for (std::size_t k = 0; k < std::size(names); ++k) {
      if (arg == names[k]) *paths[k] = value;
    }
  }
  return true;
}

}  // namespace

std::optional<int> parse_args(int argc, char** argv, Options& options) {
  ArgReader args{argc, argv};
  const std::string program = program_name(args, "sonderlark");
  while (const std::optional<std::string> arg = next_arg(args)) {
    if (*arg == "--help" || *arg == "-h") {
      print_usage(program.c_str());
      return kExitOk;
    }
    if (*arg == "--live" || *arg == "--skip-capture") {
      (*arg == "--live" ? options.live : options.skip_capture) = true;
      continue;
    }
    std::optional<std::string> value;
    if (!takes_value(*arg)) {
      std::cerr << "Unknown argument: " << *arg << '\n';
    } else if (!(value = next_arg(args))) {
      std::cerr << *arg << " requires a value" << '\n';
    }
    if (!value || !set_value(options, *arg, *value)) {
      print_usage(program.c_str());
      return kExitUsage;
    }
  }
  return std::nullopt;
}

void print_usage(const char* program) {
  std::cout << "Usage: " << program << " [options]\n"
            << "  --duration N       Capture duration in seconds. Default: 5.\n"
            << "  --device NAME      ALSA capture device. Default: hw:1,0.\n"
            << "  --output PATH      Raw 4-channel WAV output. Default: build/sonderlark_raw.wav.\n"
            << "  --beamformed PATH  Beamformed mono WAV output. Default: build/sonderlark_beamformed.wav.\n"
            << "  --event PATH       JSON event manifest output. Default: build/sonderlark_event.json.\n"
            << "  --log PATH         Text log output. Default: build/sonderlark.log.\n"
            << "  --input-gain-db DB Apply processing gain after raw capture. Default: 0.0 dB.\n"
            << "  --live             Stream processed mono s16le PCM for a virtual microphone.\n"
            << "  --pcm-output PATH  Live PCM output path or FIFO. Default: /tmp/sonderlark-beamformed-mic.pcm.\n"
            << "  --live-duration N  Live duration in seconds; 0 means continuous. Default: 0.\n"
            << "  --live-chunk-frames N Frames per live processing chunk. Default: 1024.\n"
            << "  --event-output PATH Write latest live direction/status JSON. Default in live mode: ~/.local/state/sonderscope/sonderlark-live-event.json.\n"
            << "  --input-wav PATH   Analyze an existing raw 4-channel WAV instead of capturing.\n"
            << "  --skip-capture     Analyze --output PATH without running arecord.\n";
}

}  // namespace sonderlark
