#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace sonderlark {

// How a simulated source reaches an evenly spaced linear array.
struct ArraySimulation {
  int32_t channels = 4;
  double end_to_end_lag = 0.0;  // samples by which the last channel hears the sound after channel 0
  double noise_rms = 0.0;       // independent white noise per channel, full scale 1.0
  uint32_t seed = 1;            // noise generator seed
  // Faults and taps, for checking sonderlark-doctor, applied in this order:
  int32_t tap = -1;  // >= 0: a tap on this microphone instead of a far source; channel c
                     // hears it 2 x |c - tap| samples later and 1 + |c - tap| times quieter
  std::vector<std::pair<int32_t, double>> channel_noise_rms;  // more noise on a channel
  std::vector<std::pair<int32_t, double>> channel_gains_db;   // level change; -1000 or less: silence
  std::vector<std::pair<int32_t, int32_t>> swaps;             // channels changing places
};

// End-to-end lag, in samples at 16000 Hz, of a source at `angle_degrees`
// for an array whose 90-degree lag is 8 samples: 8 x sin(angle).
double lag_for_angle(double angle_degrees);

// Channel c carries `mono` delayed by c / (channels - 1) x end_to_end_lag
// samples (fractional delays by windowed-sinc interpolation, whole ones as
// exact shifts), plus its own noise; then the faults. Samples outside
// `mono` are silence. Throws std::out_of_range for a fault on a channel
// the array does not have.
std::vector<std::vector<double>> simulate_array(const std::vector<double>& mono,
                                                const ArraySimulation& sim);

// Interleaved S32_LE bytes of `channels` (full scale 1.0 -> 2^31, clamped).
std::vector<uint8_t> interleave_s32le(const std::vector<std::vector<double>>& channels);

// A RIFF/WAVE header for `data_bytes` of interleaved PCM.
std::vector<uint8_t> wav_header(int32_t sample_rate, int32_t channels, int32_t bits_per_sample,
                                uint32_t data_bytes);

}  // namespace sonderlark
