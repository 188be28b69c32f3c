#include "cli/options.h"

#include <cmath>
#include <cstdlib>
#include <iostream>
#include <stdexcept>

namespace sonderlark {
namespace {

// A value that does not convert is refused like any other bad command line.
struct InvalidValue {
  std::string option;
  std::string text;
};

int32_t to_int(const std::string& option, const std::string& text) {
  try {
    return std::stoi(text);
  } catch (const std::logic_error&) {  // invalid_argument or out_of_range
    throw InvalidValue{option, text};
  }
}

double to_double(const std::string& option, const std::string& text) {
  try {
    return std::stod(text);
  } catch (const std::logic_error&) {
    throw InvalidValue{option, text};
  }
}

bool parse_walk(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      print_usage(argv[0]);
      std::cout.flush();
      std::exit(0);
    }
    if (arg == "--live") {
      options.live = true;
      continue;
    }
    if (arg == "--skip-capture") {
      options.skip_capture = true;
      continue;
    }
    const bool takes_value =
        arg == "--duration" || arg == "--device" || arg == "--output" || arg == "--beamformed" ||
        arg == "--event" || arg == "--log" || arg == "--input-gain-db" || arg == "--pcm-output" ||
        arg == "--live-duration" || arg == "--live-chunk-frames" || arg == "--event-output" ||
        arg == "--input-wav";
    if (!takes_value) {
      std::cerr << "Unknown argument: " << arg << '\n';
      return false;
    }
    if (i + 1 >= argc) {
      std::cerr << arg << " requires a value" << '\n';
      return false;
    }
    const std::string value = argv[++i];
    if (arg == "--duration") {
      options.duration_seconds = to_int(arg, value);
      if (options.duration_seconds < 1) return false;
    } else if (arg == "--device") {
      options.device = value;
    } else if (arg == "--output") {
      options.output_path = value;
    } else if (arg == "--beamformed") {
      options.beamformed_path = value;
    } else if (arg == "--event") {
      options.event_path = value;
    } else if (arg == "--log") {
      options.log_path = value;
    } else if (arg == "--input-gain-db") {
      options.input_gain_db = to_double(arg, value);
      if (!std::isfinite(options.input_gain_db) || options.input_gain_db < -60.0 ||
          options.input_gain_db > 36.0) {
        std::cerr << "--input-gain-db must be finite and between -60 and +36 dB" << '\n';
        return false;
      }
    } else if (arg == "--pcm-output") {
      options.pcm_output_path = value;
    } else if (arg == "--live-duration") {
      options.live_duration_seconds = to_int(arg, value);
      if (options.live_duration_seconds < 0) return false;
    } else if (arg == "--live-chunk-frames") {
      options.live_chunk_frames = to_int(arg, value);
      if (options.live_chunk_frames < 128 || options.live_chunk_frames > 16000) return false;
    } else if (arg == "--event-output") {
      options.event_output_path = value;
      options.event_path = value;
    } else if (arg == "--input-wav") {
      options.input_wav_path = value;
      options.skip_capture = true;
    }
  }
  return true;
}

}  // namespace

bool parse_args(int argc, char** argv, Options& options) {
  if (argc < 2) return true;
  try {
    return parse_walk(argc, argv, options);
  } catch (const InvalidValue& bad) {
    std::cerr << "invalid value for " << bad.option << ": " << bad.text << '\n';
    return false;
  }
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
