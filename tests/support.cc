#include "support.h"

#include <gtest/gtest.h>


#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

extern char** environ;

namespace sonderlark::test {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "sonderlark-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  dir = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void write_file(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
}

namespace {

std::vector<std::string> child_environment(const std::map<std::string, std::optional<std::string>>& env) {
  std::map<std::string, std::string> merged;
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string entry = *e;
    const std::size_t eq = entry.find('=');
    if (eq != std::string::npos) merged[entry.substr(0, eq)] = entry.substr(eq + 1);
  }
  for (const auto& [key, value] : env) {
    if (value) {
      merged[key] = *value;
    } else {
      merged.erase(key);
    }
  }
  std::vector<std::string> out;
  for (const auto& [key, value] : merged) out.push_back(key + "=" + value);
  return out;
}

int decode(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

}  // namespace

int spawn(const std::vector<std::string>& argv, const std::map<std::string, std::optional<std::string>>& env,
          const std::string& out_path, const std::string& err_path, const std::string& cwd) {
  const std::vector<std::string> envs = child_environment(env);
  std::vector<char*> c_argv;
  for (const auto& a : argv) c_argv.push_back(const_cast<char*>(a.c_str()));
  c_argv.push_back(nullptr);
  std::vector<char*> c_env;
  for (const auto& e : envs) c_env.push_back(const_cast<char*>(e.c_str()));
  c_env.push_back(nullptr);

  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    // A test that dies (a timeout, a crash) takes its children with it.
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) _exit(126);
    const int in = open("/dev/null", O_RDONLY);
    const int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (in < 0 || out < 0 || err < 0) _exit(126);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    close_range(3, ~0u, 0);  // the child starts with the standard streams only
    if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(126);
    environ = c_env.data();
    execvp(c_argv[0], c_argv.data());
    _exit(127);
  }
  return pid;
}

int wait_child(int pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return decode(status);
}

RunResult run(const std::vector<std::string>& argv, const std::map<std::string, std::optional<std::string>>& env,
              const std::string& cwd) {
  TempDir io;
  const std::string out = io.path("stdout");
  const std::string err = io.path("stderr");
  RunResult result;
  result.exit_code = wait_child(spawn(argv, env, out, err, cwd));
  result.out = read_file(out);
  result.err = read_file(err);
  return result;
}

std::string tool_path() { return SONDERLARK_BIN; }
std::string source_path(const std::string& relative) { return std::string(SONDERLARK_SOURCE_DIR) + "/" + relative; }

void expect_golden(const std::string& name, const std::string& text) {
  const std::string path = source_path("tests/golden/" + name);
  if (std::getenv("SONDERLARK_UPDATE_GOLDEN") != nullptr) write_file(path, text);
  EXPECT_EQ(text, read_file(path)) << "tests/golden/" << name;
}

std::vector<double> white_noise(std::size_t n, double amplitude, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<double> x(n);
  // Straight from the generator's integers: identical with every library.
  for (double& v : x) v = amplitude * ((static_cast<double>(rng()) - 2147483648.0) / 2147483648.0);
  return x;
}

std::vector<double> shifted(const std::vector<double>& x, int delay) {
  std::vector<double> y(x.size(), 0.0);
  const int64_t n = static_cast<int64_t>(x.size());
  for (int64_t i = 0; i < n; ++i) {
    const int64_t j = i - delay;
    if (j >= 0 && j < n) y[static_cast<std::size_t>(i)] = x[static_cast<std::size_t>(j)];
  }
  return y;
}

std::vector<std::vector<double>> array_noise(int lag, std::size_t frames, double amplitude, uint32_t seed) {
  const std::vector<double> source = white_noise(frames, amplitude, seed);
  std::vector<std::vector<double>> channels;
  for (int c = 0; c < 4; ++c) channels.push_back(shifted(source, static_cast<int>(std::lround(c * lag / 3.0))));
  return channels;
}

WavData record(std::vector<std::vector<double>> channels, int32_t sample_rate, int32_t bits) {
  WavData w;
  w.sample_rate = sample_rate;
  w.channels = static_cast<int32_t>(channels.size());
  w.bits_per_sample = bits;
  w.samples = std::move(channels);
  return w;
}

namespace {

void append_samples(std::string& out, const std::vector<std::vector<double>>& channels, uint32_t bits) {
  const double top = bits == 16 ? 32767.0 : 2147483647.0;
  for (std::size_t f = 0; f < (channels.empty() ? 0 : channels[0].size()); ++f) {
    for (const auto& channel : channels) {
      const auto v = static_cast<int64_t>(std::lround(channel[f] * top));
      if (bits == 16) {
        write_le16(out, static_cast<uint16_t>(v));
      } else {
        write_le32(out, static_cast<uint32_t>(v));
      }
    }
  }
}

}  // namespace

std::string pcm_wav(const std::vector<std::vector<double>>& channels, uint32_t rate, uint32_t bits) {
  std::string data;
  append_samples(data, channels, bits);
  const auto block = static_cast<uint32_t>(channels.size() * bits / 8);
  std::string out = "RIFF";
  write_le32(out, static_cast<uint32_t>(36 + data.size()));
  out += "WAVEfmt ";
  write_le32(out, 16);
  write_le16(out, 1);
  write_le16(out, static_cast<uint16_t>(channels.size()));
  write_le32(out, rate);
  write_le32(out, rate * block);
  write_le16(out, static_cast<uint16_t>(block));
  write_le16(out, static_cast<uint16_t>(bits));
  out += "data";
  write_le32(out, static_cast<uint32_t>(data.size()));
  return out + data;
}

}  // namespace sonderlark::test
