// What live mode must stream for raw S32_LE four-channel frames, computed
// stage by stage with the library: each chunk of 1024 frames (zeros past the
// frames' end) through the chunk analysis at 0 dB, as s16le.
//
//   live_beams FRAMES_FILE CHUNKS > beams.pcm
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "audio/wav.h"
#include "live/live_mode.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: live_beams FRAMES_FILE CHUNKS\n");
    return 2;
  }
  std::ifstream in(argv[1], std::ios::binary);
  const std::string frames((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const std::size_t chunks = std::strtoull(argv[2], nullptr, 10);
  constexpr std::size_t kChunk = 1024;
  const std::size_t available = frames.size() / 16;
  std::string pcm;
  for (std::size_t k = 0; k < chunks; ++k) {
    std::vector<int32_t> chunk(kChunk * 4, 0);
    const std::size_t have = k * kChunk < available ? std::min(kChunk, available - k * kChunk) : 0;
    std::memcpy(chunk.data(), frames.data() + k * kChunk * 16, have * 16);  // little-endian host
    for (double x : sonderlark::analyse_chunk(chunk.data(), kChunk, 0.0).beam) {
      sonderlark::write_le16(pcm, static_cast<uint16_t>(sonderlark::pcm16_from_sample(x)));
    }
  }
  std::fwrite(pcm.data(), 1, pcm.size(), stdout);
  return std::ferror(stdout) ? 1 : 0;
}
