#include "doctor/checks.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <sstream>

#include "dsp/diagnostics.h"
#include "live/capture.h"
#include "report/live_status.h"
#include "util/text.h"

namespace sonderlark {
namespace {

std::string db(double v) { return fixed(v, 1); }

// The middle value of `v` without element `skip` (the lower middle for an even count).
double median_without(std::vector<double> v, std::size_t skip) {
  v.erase(v.begin() + static_cast<std::ptrdiff_t>(skip));
  if (v.empty()) return 0.0;
  std::sort(v.begin(), v.end());
  return v[(v.size() - 1) / 2];
}

std::string load_module_line(const std::string& pcm_path) {
  return "pactl load-module module-pipe-source source_name=sonderlark_mic file=" + shell_quote(pcm_path) +
         " format=s16le rate=16000 channels=1";
}

// The value of `key=` in a module's argument text, quotes removed.
std::string module_argument(const std::string& args, const std::string& key) {
  const std::size_t at = args.find(key + "=");
  if (at == std::string::npos || (at > 0 && args[at - 1] != ' ' && args[at - 1] != '\t')) return "";
  std::string value = args.substr(at + key.size() + 1);
  if (!value.empty() && (value[0] == '"' || value[0] == '\'')) {
    const char quote = value[0];
    return value.substr(1, value.find(quote, 1) - 1);
  }
  return value.substr(0, value.find_first_of(" \t"));
}

// A module-pipe-source line of `pactl list modules short`.
struct PipeSource {
  std::string index;
  std::string args;
  std::string file;  // its FIFO
};

std::vector<PipeSource> pipe_sources(const std::string& modules) {
  std::vector<PipeSource> out;
  std::istringstream lines(modules);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::string index, name, args;
    std::getline(fields, index, '\t');
    std::getline(fields, name, '\t');
    std::getline(fields, args, '\t');
    if (name == "module-pipe-source") out.push_back({index, args, module_argument(args, "file")});
  }
  return out;
}

}  // namespace

std::string last_line(const std::string& text) {
  std::string line;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) {
    if (!l.empty()) line = l;
  }
  return line;
}

HardwareOffer parse_hw_params(const std::string& dump) {
  HardwareOffer offer;
  std::istringstream in(dump);
  auto trimmed = [](const std::string& s) { return s.substr(std::min(s.find_first_not_of(' '), s.size())); };
  for (std::string line; std::getline(in, line);) {
    if (line.starts_with("FORMAT:")) offer.formats = trimmed(line.substr(7));
    if (line.starts_with("RATE:")) offer.rates = trimmed(line.substr(5));
    if (line.starts_with("CHANNELS:")) offer.channels = trimmed(line.substr(9));
  }
  return offer;
}

Check device_check(const std::string& device, int exit_code, const std::string& output,
                   const std::vector<std::string>& holders) {
  Check c{"device", "ok", device + " accepts 4 channels, S32_LE, 16000 Hz", {}, ""};
  if (exit_code == 0) return c;
  c.state = "problem";
  if (output.find("Device or resource busy") != std::string::npos) {
    c.message = device + " is busy: another program has it open";
    for (const std::string& h : holders) c.details.push_back("held by " + h);
    if (holders.empty()) c.details.push_back("no process of yours holds it: it may be another user's, or a sound server's");
    c.advice = "stop the program holding it (a running sonderlark --live, arecord, or a sound server that grabbed the card)";
  } else if (output.find("non available") != std::string::npos) {
    const HardwareOffer offer = parse_hw_params(output);
    c.message = device + " refuses 4 channels, S32_LE, 16000 Hz: " + last_line(output);
    c.details = {"formats offered: " + offer.formats, "rates offered: " + offer.rates,
                 "channel counts offered: " + offer.channels};
    c.advice = "pass --device the array's own device (arecord -l lists the cards); a plug or route device may hide its channels";
  } else if (output.find("No such file or directory") != std::string::npos ||
             output.find("Unknown PCM") != std::string::npos || output.find("No such device") != std::string::npos) {
    c.message = "no capture device " + device;
    c.details = {last_line(output)};
    c.advice = "plug the array in, and find its name with arecord -l (hw:CARD,DEVICE) or arecord -L";
  } else {
    c.message = device + " cannot record: " + last_line(output);
    c.advice = "run the arecord command of the log by hand to see what ALSA says";
  }
  return c;
}

std::vector<ChannelMeasure> measure_channels(const WavData& recording) {
  const ChannelDiagnostics d = diagnose_channels(recording, "channel");
  std::vector<ChannelMeasure> out;
  for (std::size_t c = 0; c < recording.samples.size(); ++c) {
    ChannelMeasure m{level_dbfs(d.rms[c]), level_dbfs(d.peak[c]), level_dbfs(d.noise_floor[c]), 0, 0.0};
    double sum = 0.0;
    for (double x : recording.samples[c]) {
      sum += x;
      if (std::fabs(x) >= kClippingPeakThreshold) ++m.clipped;
    }
    if (!recording.samples[c].empty()) m.dc_offset = sum / static_cast<double>(recording.samples[c].size());
    out.push_back(m);
  }
  return out;
}

namespace {

// The channel check's message, details and advice from its findings, then
// every channel's figures.
void summarise_channels(const std::vector<std::string>& findings, const std::vector<std::string>& advice, Check& c) {
  const std::vector<ChannelMeasure>& m = c.channels;
  if (findings.empty()) {
    c.message = "all " + std::to_string(m.size()) + " channels hear the sound alike";
  } else {
    c.state = "problem";
    c.message = findings[0].substr(0, findings[0].find_first_of("(:") - 1);
    if (findings.size() > 1) c.message += " (and " + std::to_string(findings.size() - 1) + " more)";
    c.details = findings;
    for (const std::string& sentence : advice) c.advice += (c.advice.empty() ? "" : " ") + sentence;
    c.advice += " Until every channel hears the sound alike, directions are not to be trusted.";
  }
  for (std::size_t ch = 0; ch < m.size(); ++ch) {
    c.details.push_back("channel " + std::to_string(ch) + ": level " + db(m[ch].level_dbfs) + " dBFS, peak " +
                        db(m[ch].peak_dbfs) + " dBFS, noise floor " + db(m[ch].floor_dbfs) + " dBFS, clipped " +
                        std::to_string(m[ch].clipped) + ", DC offset " + fixed(m[ch].dc_offset, 6));
  }
}

}  // namespace

Check channels_check(const WavData& recording) {
  const ChannelDiagnostics d = diagnose_channels(recording, "channel");
  const std::vector<ChannelMeasure> m = measure_channels(recording);
  std::vector<double> levels, floors;
  for (const ChannelMeasure& x : m) {
    levels.push_back(x.level_dbfs);
    floors.push_back(x.floor_dbfs);
  }
  Check c{"channels", "ok", "", {}, ""};
  c.channels = m;
  std::vector<std::string> findings;
  std::vector<std::string> advice;  // one sentence per kind of fault, in the order first found
  auto advise = [&advice](const std::string& sentence) {
    if (std::find(advice.begin(), advice.end(), sentence) == advice.end()) advice.push_back(sentence);
  };
  for (std::size_t ch = 0; ch < m.size(); ++ch) {
    const std::string name = "channel " + std::to_string(ch);
    const bool dead = d.rms[ch] < kSilenceRmsThreshold || d.peak[ch] < kSilencePeakThreshold;
    if (dead) {
      findings.push_back(name + " is dead (level " + db(m[ch].level_dbfs) + " dBFS): its microphone hears nothing; "
                         "check the array's cable and firmware, or the microphone itself");
      advise("Dead " + name + ": reseat the array's USB plug and any cable inside it to microphone " +
             std::to_string(ch) + ", try another port, then look at the microphone itself.");
      continue;
    }
    if (d.peak[ch] >= kClippingPeakThreshold) {
      findings.push_back(name + " is clipping (" + std::to_string(m[ch].clipped) +
                         " samples at full scale): the sound is too loud for it, so its shape is lost");
      advise("Clipping: lower the capture level on the card with its mixer (alsamixer, F6 for the card, F4 for "
             "capture; or amixer -c CARD sset Capture 70%) or move the sound away; no --input-gain-db undoes "
             "clipping at the converter.");
    }
    const double floor_over = m[ch].floor_dbfs - median_without(floors, ch);
    if (m.size() > 1 && floor_over >= 10.0) {
      findings.push_back(name + " is much noisier than the others (noise floor " + db(floor_over) +
                         " dB above theirs): a failing microphone or electrical interference");
      advise("Noisy: move the array away from power supplies, fans and chargers, try another USB port or a "
             "powered hub; a channel that stays noisy has a failing microphone.");
    }
    const double level_under = median_without(levels, ch) - m[ch].level_dbfs;
    if (m.size() > 1 && level_under >= 12.0) {
      findings.push_back(name + " is far quieter than the others (" + db(level_under) +
                         " dB below them with the same sound): a covered, blocked or failing microphone");
      advise("Quiet: uncover the microphone's opening (tape, dust, a case or a hand), then run again; a channel "
             "that stays quiet has a failing microphone.");
    }
  }
  summarise_channels(findings, advice, c);
  return c;
}

Check gain_check(const WavData& recording) {
  double peak = 0.0;
  for (const auto& channel : recording.samples) {
    for (double x : channel) peak = std::max(peak, std::fabs(x));
  }
  Check c{"gain", "ok", "", {}, ""};
  if (peak < kSilencePeakThreshold) {
    c.state = "problem";
    c.message = "the recording is too quiet to judge (loudest peak " + db(level_dbfs(peak)) + " dBFS)";
    c.advice = "speak or play sound near the array while the doctor records, then run it again";
    return c;
  }
  if (peak >= kClippingPeakThreshold) {
    c.state = "problem";
    c.message = "the array clips at the converter (loudest peak " + db(level_dbfs(peak)) +
                " dBFS): no --input-gain-db undoes that";
    c.advice = "lower the capture level on the card with its mixer (alsamixer or amixer -c CARD sset Capture 70%), "
               "then run the doctor again for a gain";
    return c;
  }
  const double gain = std::clamp(std::floor(-6.0 - level_dbfs(peak)), -60.0, 36.0);
  c.message = "use --input-gain-db " + fixed(gain, 0) + ": the loudest peak, " + db(level_dbfs(peak)) +
              " dBFS, then sits at " + db(level_dbfs(peak) + gain) + " dBFS";
  return c;
}

std::string route_definition(const std::string& name, const std::string& device, const std::vector<int>& order) {
  std::string text = "pcm." + name + " { type route slave.pcm \"" + device + "\" slave.channels " +
                     std::to_string(order.size());
  // Client channel m takes the slave channel microphone m arrives on.
  for (std::size_t m = 0; m < order.size(); ++m) {
    text += " ttable." + std::to_string(m) + "." + std::to_string(order[m]) + " 1";
  }
  return text + " }";
}

namespace {

// The channel tap `tap` (in its window of `window` samples) reached first
// and loudest, or -1 when that is unclear; a line of detail says what was heard.
int tap_channel(const WavData& recording, std::size_t tap, std::size_t window, std::vector<std::string>& details) {
  double top = 0.0;
  std::size_t loudest = 0;
  for (std::size_t ch = 0; ch < recording.samples.size(); ++ch) {
    for (std::size_t i = tap * window; i < std::min((tap + 1) * window, recording.samples[ch].size()); ++i) {
      if (std::fabs(recording.samples[ch][i]) > top) {
        top = std::fabs(recording.samples[ch][i]);
        loudest = ch;
      }
    }
  }
  std::size_t earliest = 0, first_onset = SIZE_MAX;
  for (std::size_t ch = 0; ch < recording.samples.size() && top >= kSilencePeakThreshold; ++ch) {
    for (std::size_t i = tap * window; i < std::min((tap + 1) * window, recording.samples[ch].size()); ++i) {
      if (std::fabs(recording.samples[ch][i]) >= 0.25 * top) {
        if (i < first_onset) {
          first_onset = i;
          earliest = ch;
        }
        break;
      }
    }
  }
  const bool clear = top >= kSilencePeakThreshold && earliest == loudest;
  details.push_back("tap on microphone " + std::to_string(tap) + ": " +
                      (top < kSilencePeakThreshold ? std::string("nothing heard")
                       : clear ? "first and loudest on channel " + std::to_string(loudest)
                               : "first on channel " + std::to_string(earliest) + ", loudest on channel " +
                                     std::to_string(loudest)));
  return clear ? static_cast<int>(loudest) : -1;
}

}  // namespace

Check tap_check(const WavData& recording, double tap_seconds, const std::string& device) {
  Check c{"channel order", "ok", "", {}, ""};
  const auto window = static_cast<std::size_t>(tap_seconds * recording.sample_rate);
  std::vector<int> found;  // per tap, the channel it reached first and loudest; -1 unclear
  for (std::size_t tap = 0; tap < 4; ++tap) found.push_back(tap_channel(recording, tap, window, c.details));
  std::string order;
  for (int f : found) {
    if (!order.empty()) order += '-';
    order += f < 0 ? std::string("?") : std::to_string(f);
  }
  const auto zero_end = std::find(found.begin(), found.end(), 0);
  if (zero_end != found.end()) {
    c.details.push_back("+90 degrees points toward microphone " + std::to_string(zero_end - found.begin()) +
                        " (the one on channel 0); -90 toward the one on channel 3");
  }
  if (found == std::vector<int>{0, 1, 2, 3}) {
    c.message = "taps on microphones 0, 1, 2, 3 reached channels 0-1-2-3: the order is right";
    return c;
  }
  c.state = "problem";
  c.message = "taps on microphones 0, 1, 2, 3 reached channels " + order + " instead of 0-1-2-3";
  std::vector<std::string> swaps;
  for (int a = 0; a < 4; ++a) {
    const int b = found[static_cast<std::size_t>(a)];
    if (b > a && found[static_cast<std::size_t>(b)] == a) {
      swaps.push_back("channels " + std::to_string(a) + " and " + std::to_string(b) + " look swapped");
    } else if (b >= 0 && b != a && found[static_cast<std::size_t>(b)] != a) {
      swaps.push_back("microphone " + std::to_string(a) + " arrives on channel " + std::to_string(b));
    }
  }
  c.details.insert(c.details.begin(), swaps.begin(), swaps.end());
  std::vector<int> sorted = found;
  std::sort(sorted.begin(), sorted.end());
  if (sorted != std::vector<int>{0, 1, 2, 3}) {
    c.advice = "tap each microphone once, firmly, in its window, in a quiet room, and run again";
    return c;
  }
  c.details.push_back("an ALSA device that puts the channels back in order (add the line to ~/.asoundrc): " +
                      route_definition("sonderlark_ordered", device, found));
  c.advice = "until the wiring or firmware is fixed, record through that device: --device sonderlark_ordered "
             "(sonderlark and this doctor alike); without it directions are mirrored or wrong";
  return c;
}

MicSetup find_mic_setup(const DoctorOptions& options, const std::string& status_pcm, const std::string& modules,
                        const std::string& runtime_default, bool runtime_fifo) {
  if (!options.pcm_path.empty()) return {options.pcm_path, "given with --pcm-output"};
  if (!status_pcm.empty()) return {status_pcm, "named by the live status file"};
  std::vector<std::string> loaded;
  for (const PipeSource& source : pipe_sources(modules)) {
    if (!source.file.empty()) loaded.push_back(source.file);
  }
  if (std::find(loaded.begin(), loaded.end(), runtime_default) != loaded.end()) {
    return {runtime_default, "of the loaded pipe source"};
  }
  if (!loaded.empty()) return {loaded.front(), "of the loaded pipe source"};
  if (runtime_fifo) return {runtime_default, "in the private runtime folder"};  // sonderlark-mic's, for one
  if (options.virtual_mic) return {runtime_default, "asked for with --virtual-mic"};
  return {};
}

namespace {

// The pipe source loaded for `pcm_path`, judged.
void judge_pipe_source(const std::string& pcm_path, const std::string& modules, const PathFacts& path,
                       const std::string& load_private, Check& c) {
  // The pipe source for this path, if one is loaded.
  std::string index, args;
  for (const PipeSource& source : pipe_sources(modules)) {
    if (source.file == pcm_path) {
      index = source.index;
      args = source.args;
    }
  }
  if (index.empty()) {
    c.state = "problem";
    c.message = "no module-pipe-source is loaded for " + pcm_path;
    c.advice = "load one in your private runtime folder (it makes the FIFO itself): " + load_private;
    return;
  }
  const std::string format = module_argument(args, "format"), rate = module_argument(args, "rate");
  const std::string channels = module_argument(args, "channels");
  c.details.push_back("module " + index + ": format=" + format + " rate=" + rate + " channels=" + channels);
  if (format != "s16le" || rate != "16000" || channels != "1") {
    c.state = "problem";
    c.message = "the pipe source for " + pcm_path + " expects " + format + ", " + rate + " Hz, " + channels +
                " channels; the tool writes s16le, 16000 Hz, 1 channel";
    c.advice = "reload it: pactl unload-module " + index + "; " + load_module_line(pcm_path);
  } else if (!path.fifo || !path.ours) {
    c.state = "problem";
    c.message = pcm_path + " is not a FIFO of yours";
    c.advice = "unload the module, remove the path, and load it again in your private runtime folder: " + load_private;
  } else {
    c.message = pcm_path + " feeds module-pipe-source " + index + " (s16le, 16000 Hz, mono)";
    if (pcm_path.starts_with("/tmp/")) {
      c.details.push_back("/tmp is open to every local user: a private runtime folder keeps the audio yours");
    }
  }
}

}  // namespace

Check virtual_mic_check(const MicSetup& setup, bool server_answered, const std::string& modules,
                        const std::vector<std::string>& readers, const std::string& runtime_default,
                        const PathFacts& path) {
  Check c{"virtual microphone", "ok", "", {}, ""};
  const std::string load_private = load_module_line(runtime_default) + ", then run live mode with --pcm-output " +
                                   shell_quote(runtime_default);
  if (setup.pcm_path.empty()) {
    c.state = "skipped";
    c.message = server_answered ? "none is set up (no pipe source loaded, no live run names one): one-shot use "
                                  "needs none"
                                : "none is set up and no sound server answers pactl: one-shot use needs none";
    c.details.push_back("for one, in your private runtime folder: " + load_private);
    return c;
  }
  const std::string& pcm_path = setup.pcm_path;
  if (path.exists) {
    c.details.push_back(pcm_path + " (" + setup.found + "): " + (path.fifo ? "a FIFO" : "not a FIFO") +
                        ", owned by " + path.owner);
  } else {
    c.details.push_back(pcm_path + " (" + setup.found + ") does not exist");
  }
  for (const std::string& r : readers) c.details.push_back("held open by " + r);
  const auto mic = std::find_if(readers.begin(), readers.end(),
                                [](const std::string& r) { return r.ends_with(" (sonderlark-mic)"); });
  if (mic != readers.end()) {
    c.message = pcm_path + " feeds sonderlark-mic (process " + mic->substr(0, mic->find(' ')) +
                "), the low-latency PipeWire source";
    return c;
  }
  if (!server_answered) {
    c.state = "problem";
    c.message = "no sound server answers pactl, so nothing reads " + pcm_path;
    c.advice = "start a sound server (systemctl --user start pipewire pipewire-pulse wireplumber, or pulseaudio "
               "--start), then load the pipe source: " + load_private;
    return c;
  }
  judge_pipe_source(pcm_path, modules, path, load_private, c);
  return c;
}

Check status_check(const std::string& status_path, RecordState state, const StatusRecord& record, double now) {
  Check c{"live status", "ok", "", {}, ""};
  if (state == RecordState::kMissing) {
    c.state = "skipped";
    c.message = "no status file at " + status_path + ": no live run has written one there";
    return c;
  }
  if (state == RecordState::kRefused) {
    c.state = "problem";
    c.message = status_path + " is not a status record: " + record.refused;
    c.advice = "point --event-output at the file a live run writes";
    return c;
  }
  if (state == RecordState::kTorn) {
    c.state = "problem";
    c.message = status_path + " is not a complete status record";
    c.advice = "a live run replaces the file whole after every chunk; something else wrote this one, or a disk filled up";
    return c;
  }
  const double age = now - static_cast<double>(record.time);
  c.details = {"status " + record.status + ", written " + fixed(age, 0) + " s ago, " +
               std::to_string(record.chunks_processed) + " chunks, device " + record.device};
  if (state == RecordState::kStale) {
    c.state = "problem";
    c.message = "the last record says running but is " + fixed(age, 0) + " s old: the live run died or stalled";
    c.advice = "look at its log (journalctl --user -u sonderlark-live -e) and start it again";
  } else if (record.status == "degraded") {
    c.state = "problem";
    c.message = "the live run gave up: " + record.error + " (arecord exit code " +
                std::to_string(record.arecord_exit_code) + ")";
    if (!record.arecord_stderr.empty()) c.details.push_back("arecord said: " + record.arecord_stderr);
    c.advice = "run the device check of this program, fix what it finds, then start live mode again";
  } else {
    c.message = "status " + record.status + ", " + fixed(age, 0) + " s old";
  }
  return c;
}

std::string doctor_text(const std::vector<Check>& checks) {
  std::string out;
  int counts[3] = {0, 0, 0};
  for (const Check& c : checks) {
    const std::string tag = "[" + c.state + "]";
    // Messages carry device names, status fields, process names and the
    // children's output: none of it reaches the terminal unfiltered.
    out += tag + std::string(10 - tag.size(), ' ') + terminal_text(c.name + ": " + c.message) + "\n";
    for (const std::string& d : c.details) out += "          " + terminal_text(d) + "\n";
    if (!c.advice.empty()) out += "          what to do: " + terminal_text(c.advice) + "\n";
    ++counts[c.state == "ok" ? 0 : c.state == "problem" ? 1 : 2];
  }
  return out + "summary: " + std::to_string(counts[0]) + " ok, " + std::to_string(counts[1]) + " problem" +
         (counts[1] == 1 ? "" : "s") + ", " + std::to_string(counts[2]) + " skipped\n";
}

std::string doctor_json(const std::string& device, const std::vector<Check>& checks) {
  nlohmann::ordered_json j;
  j["device"] = device;
  j["checks"] = nlohmann::ordered_json::array();
  int counts[3] = {0, 0, 0};
  for (const Check& c : checks) {
    nlohmann::ordered_json check = {
        {"name", c.name}, {"state", c.state}, {"message", c.message}, {"details", c.details}, {"advice", c.advice}};
    if (!c.channels.empty()) {
      check["channels"] = nlohmann::ordered_json::array();
      for (const ChannelMeasure& m : c.channels) {
        check["channels"].push_back({{"level_dbfs", m.level_dbfs},
                                     {"peak_dbfs", m.peak_dbfs},
                                     {"noise_floor_dbfs", m.floor_dbfs},
                                     {"clipped_samples", m.clipped},
                                     {"dc_offset", m.dc_offset}});
      }
    }
    j["checks"].push_back(check);
    ++counts[c.state == "ok" ? 0 : c.state == "problem" ? 1 : 2];
  }
  j["ok"] = counts[0];
  j["problems"] = counts[1];
  j["skipped"] = counts[2];
  return j.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace sonderlark
