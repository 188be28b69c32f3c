// A recorder without buffering of its own, for the latency benchmark: a
// capture stream on the server's own API, linked to the source named on the
// command line, that writes every buffer to standard output as it arrives
// (raw s16le, mono, 16 kHz). What pw-record and parecord add on top of the
// server's own delay is thereby kept out of the measurement.
//   mic_probe SOURCE_NAME
#include <signal.h>
#include <unistd.h>

#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>

namespace {

pw_main_loop* g_loop = nullptr;
pw_stream* g_stream = nullptr;

void on_process(void*) {
  pw_buffer* b = pw_stream_dequeue_buffer(g_stream);
  if (b == nullptr) return;
  const spa_data& d = b->buffer->datas[0];
  if (d.data != nullptr) {
    const char* p = static_cast<const char*>(d.data) + d.chunk->offset;
    std::size_t left = d.chunk->size;
    while (left > 0) {
      const ssize_t n = write(STDOUT_FILENO, p, left);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        pw_main_loop_quit(g_loop);  // the reader went away
        break;
      }
      p += n;
      left -= static_cast<std::size_t>(n);
    }
  }
  pw_stream_queue_buffer(g_stream, b);
}

void on_signal(void*, int) { pw_main_loop_quit(g_loop); }

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s SOURCE_NAME\n", argv[0]);
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);
  pw_init(&argc, &argv);
  g_loop = pw_main_loop_new(nullptr);
  pw_loop* loop = pw_main_loop_get_loop(g_loop);
  pw_loop_add_signal(loop, SIGINT, on_signal, nullptr);
  pw_loop_add_signal(loop, SIGTERM, on_signal, nullptr);
  pw_stream_events events{};
  events.version = PW_VERSION_STREAM_EVENTS;
  events.process = on_process;
  pw_properties* props = pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Capture",
                                           PW_KEY_MEDIA_ROLE, "Production", PW_KEY_TARGET_OBJECT, argv[1],
                                           PW_KEY_NODE_LATENCY, "256/16000", nullptr);
  g_stream = pw_stream_new_simple(loop, "sonderlark-mic-probe", props, &events, nullptr);
  uint8_t pod_buffer[1024];
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(pod_buffer, sizeof pod_buffer);
  spa_audio_info_raw info{};
  info.format = SPA_AUDIO_FORMAT_S16_LE;
  info.rate = 16000;
  info.channels = 1;
  info.position[0] = SPA_AUDIO_CHANNEL_MONO;
  const spa_pod* params[1] = {spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info)};
  pw_stream_connect(g_stream, PW_DIRECTION_INPUT, PW_ID_ANY,
                    static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS |
                                                 PW_STREAM_FLAG_RT_PROCESS),
                    params, 1);
  pw_main_loop_run(g_loop);
  pw_stream_destroy(g_stream);
  pw_main_loop_destroy(g_loop);
  pw_deinit();
  return 0;
}
