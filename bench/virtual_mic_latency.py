#!/usr/bin/env python3
"""FIFO-to-recorder latency of the virtual microphone, per sound server and
recorder setting: the commands of the README's virtual-microphone section.

Usage: bench/virtual_mic_latency.py [SECONDS] [BUILD]   (default: 10, build)

Each case starts a private server with the pipe source (PulseAudio with
module-pipe-source; PipeWire at 16 kHz through scripts/sound-server with
the packaged pipe-tunnel drop-in, with module-pipe-source loaded by pactl, or
with BUILD/sonderlark-mic as the source), starts the recorder writing raw samples to
a pipe, then writes 64 ms chunks (1024 samples, as live mode does) into the
FIFO on a real-time schedule, each chunk one constant value of its own. The
latency of a chunk is from its write to the read that completes it at the
recorder (CLOCK_MONOTONIC). Median and maximum over the chunks after the
first second.

Every wait has a deadline: a recorder that ends at once, or never opens the
source, fails its case instead of hanging the script; a recorder blocked
writing to its pipe is ended by closing the pipe, then SIGKILL.
"""
import os
import select
import signal
import statistics
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
STACK = os.path.join(HERE, "..", "scripts", "sound-server")
CHUNK = 1024
DEADLINE = 20.0  # seconds for any one wait: a server to come up, a reader to appear, a process to end


def end_process(process, first_signal):
    """Ends a child we started: the signal, then SIGKILL if it is still there."""
    if process.poll() is None:
        process.send_signal(first_signal)
        try:
            process.wait(timeout=DEADLINE)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


def open_fifo_for_writing(fifo, recorder):
    """Waits, with a deadline, until the source reads the FIFO; fails if the recorder ends first."""
    limit = time.monotonic() + DEADLINE
    while True:
        try:
            fd = os.open(fifo, os.O_WRONLY | os.O_NONBLOCK)
            os.set_blocking(fd, True)
            return fd
        except OSError as e:
            if e.errno not in (6, 2):  # ENXIO: no reader yet; ENOENT: not made yet
                raise
        if recorder.poll() is not None:
            raise RuntimeError(f"the recorder ended with status {recorder.returncode} before the source read")
        if time.monotonic() > limit:
            raise RuntimeError(f"nothing read {fifo} within {DEADLINE:.0f} s")
        time.sleep(0.05)

PW_RECORD = ["pw-record", "--target", "sonderlark_mic", "--rate", "16000", "--channels", "1", "--format", "s16"]
PARECORD = ["parecord", "--raw", "-d", "sonderlark_mic", "--rate=16000", "--channels=1", "--format=s16le"]
PROBE = ["PROBE", "sonderlark_mic"]  # BUILD/bench/mic_probe: a recorder with no buffering of its own
CASES = [
    ("PipeWire-mic", "probe (unbuffered)", PROBE),
    ("PipeWire-mic", "pw-record --latency 16ms", PW_RECORD + ["--latency", "16ms", "-"]),
    ("PipeWire-mic", "parecord --latency-msec=16", PARECORD + ["--latency-msec=16"]),
    ("PipeWire", "probe (unbuffered)", PROBE),
    ("PipeWire-pactl", "probe (unbuffered)", PROBE),
    ("PipeWire", "pw-record (default)", PW_RECORD + ["-"]),
    ("PipeWire", "pw-record --latency 16ms", PW_RECORD + ["--latency", "16ms", "-"]),
    ("PipeWire", "parecord (default)", PARECORD),
    ("PipeWire", "parecord --latency-msec=20", PARECORD + ["--latency-msec=20"]),
    ("PipeWire-pactl", "pw-record --latency 16ms", PW_RECORD + ["--latency", "16ms", "-"]),
    ("PipeWire-pactl", "parecord --latency-msec=20", PARECORD + ["--latency-msec=20"]),
    ("PulseAudio", "parecord (default)", PARECORD),
    ("PulseAudio", "parecord --latency-msec=20", PARECORD + ["--latency-msec=20"]),
]


BUILD = "build"


def start_server(kind, run, fifo):
    """The server (through scripts/sound-server) and, for the mic route, sonderlark-mic: (environment, mic process or None)."""
    options = {"PipeWire": ["pipewire", "--pipe-tunnel", fifo], "PipeWire-pactl": ["pipewire"],
               "PipeWire-mic": ["pipewire"],
               "PulseAudio": ["pulseaudio", "--pipe-source", fifo, "format=s16le rate=16000 channels=1"]}[kind]
    out = subprocess.run([STACK, "start", os.path.join(run, "server")] + options,
                         capture_output=True, text=True, check=True, timeout=DEADLINE).stdout
    env = dict(os.environ)
    env.pop("PULSE_SERVER", None)
    env.update(word.split("=", 1) for word in out.split())
    if kind == "PipeWire-pactl":
        subprocess.run(["pactl", "load-module", "module-pipe-source", "source_name=sonderlark_mic",
                        f"file={fifo}", "format=s16le", "rate=16000", "channels=1"],
                       env=env, check=True, capture_output=True, timeout=DEADLINE)
    if kind == "PipeWire-mic":
        mic = subprocess.Popen([os.path.join(BUILD, "sonderlark-mic"), "--fifo", fifo], env=env,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        limit = time.monotonic() + DEADLINE
        while "sonderlark_mic" not in subprocess.run(["pactl", "list", "short", "sources"], env=env,
                                                     capture_output=True, text=True, timeout=DEADLINE).stdout:
            if time.monotonic() > limit or mic.poll() is not None:
                end_process(mic, signal.SIGTERM)
                raise RuntimeError("sonderlark-mic did not come up")
            time.sleep(0.05)
        return env, mic
    return env, None


def measure(kind, recorder, run, seconds):
    fifo = os.path.join(run, "mic.pcm")
    env, mic = start_server(kind, run, fifo)
    rec = None
    try:
        if recorder[0] == "PROBE":
            recorder = [os.path.join(BUILD, "bench", "mic_probe")] + recorder[1:]
        rec = subprocess.Popen(recorder, env=env, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        fd = open_fifo_for_writing(fifo, rec)
        chunks = int(seconds * 16000 / CHUNK)
        written = {}
        latencies = []
        counts = {}
        pending = b""
        start = time.monotonic()
        for k in range(chunks + 20):  # 20 chunks of silence push the last ones through
            value = k + 1 if k < chunks else 0
            written[value] = time.monotonic()
            os.write(fd, value.to_bytes(2, "little", signed=True) * CHUNK)
            deadline = start + (k + 1) * CHUNK / 16000
            while (left := deadline - time.monotonic()) > 0:
                if not select.select([rec.stdout], [], [], left)[0]:
                    continue
                data = os.read(rec.stdout.fileno(), 65536)
                now = time.monotonic()
                pending += data
                usable = len(pending) // 2 * 2
                for i in range(0, usable, 2):
                    v = int.from_bytes(pending[i:i + 2], "little", signed=True)
                    if v > 0:
                        counts[v] = counts.get(v, 0) + 1
                        if counts[v] == CHUNK:
                            latencies.append((v, now - written[v]))
                pending = pending[usable:]
        os.close(fd)
        settled = [l for v, l in latencies if v * CHUNK >= 16000]
        if not settled:
            raise RuntimeError(f"no chunk arrived whole (recorder status {rec.poll()})")
        missing = sorted(set(range(1, chunks + 1)) - {v for v, _ in latencies})
        return len(latencies), chunks, statistics.median(settled), max(settled), missing
    finally:
        if rec is not None:
            rec.stdout.close()  # a recorder blocked on a full pipe gets EPIPE, not a signal it ignores
            end_process(rec, signal.SIGINT)
        if mic is not None:
            end_process(mic, signal.SIGTERM)
        subprocess.run([STACK, "stop", os.path.join(run, "server")], check=False, timeout=DEADLINE * 4)


def main():
    global BUILD
    seconds = float(sys.argv[1]) if len(sys.argv) > 1 else 10.0
    BUILD = sys.argv[2] if len(sys.argv) > 2 else "build"
    work = tempfile.mkdtemp(prefix="sonderlark-mic-latency-")
    try:
        only = os.environ.get("ONLY")  # a route name, to measure one route
        for n, (kind, name, recorder) in enumerate(CASES):
            if only and kind != only:
                continue
            run = os.path.join(work, str(n))
            os.makedirs(run)
            try:
                got, sent, median, worst, missing = measure(kind, recorder, run, seconds)
            except (RuntimeError, subprocess.SubprocessError) as e:
                print(f"{kind:14} {name:28} failed: {e}")
                continue
            print(f"{kind:14} {name:28} median {median * 1000:6.1f} ms, max {worst * 1000:6.1f} ms "
                  f"({got} of {sent} chunks complete{', missing ' + str(missing) if missing else ''})")
    finally:
        subprocess.run(["rm", "-rf", work])


if __name__ == "__main__":
    main()
