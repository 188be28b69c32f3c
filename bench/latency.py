#!/usr/bin/env python3
"""Click-to-virtual-microphone latency of live mode.

Usage: bench/latency.py BUILD_DIR [CHUNK_FRAMES ...]   (default: 256 1024 4096)

A private PulseAudio server runs module-pipe-source on the tool's PCM FIFO and
parecord records from it to a reader that timestamps what arrives. The real
arecord reads a FIFO that a pacer fills at real time, one period per write;
the simulated array carries silence with one click on the first frame of
the chunk that holds 2.0 s, so the tool must wait for the whole chunk. The
latency is the time from the pacer's write of the period holding the click
(the moment a device hands it over) to the reader's read that brings it
(CLOCK_MONOTONIC in both processes).
"""
import os
import select
import signal
import struct
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
PERIOD_FRAMES = 2000  # arecord's period with its default buffer settings


def click_frames(path, click_frame):
    with open(path, "wb") as f:
        silence = b"\0" * 16
        f.write(silence * click_frame)
        for k in range(32):  # a short decaying burst on every channel
            v = int(0.8 * 2147483647 * (1 - k / 32)) * (1 if k % 2 == 0 else -1)
            f.write(struct.pack("<4i", v, v, v, v))
        f.write(silence * (16000 * 4))


def wait_for_source(env):
    for _ in range(100):
        out = subprocess.run(["pactl", "list", "short", "sources"], env=env, capture_output=True, text=True).stdout
        if "sonderlark_mic" in out:
            return
        time.sleep(0.1)
    raise RuntimeError("pulseaudio did not come up")


def measure(build, work, chunk):
    run = os.path.join(work, f"run{chunk}")
    os.makedirs(run, mode=0o700)
    fifo_out = os.path.join(run, "mic.pcm")
    env = dict(os.environ, XDG_RUNTIME_DIR=run, HOME=run, XDG_CONFIG_HOME=os.path.join(run, "config"))
    env.pop("PULSE_SERVER", None)
    with open(os.path.join(run, "pa.pa"), "w") as f:
        f.write("load-module module-native-protocol-unix\nload-module module-null-sink sink_name=nullsink\n"
                f"load-module module-pipe-source source_name=sonderlark_mic file={fifo_out} "
                "format=s16le rate=16000 channels=1\n")
    os.makedirs(os.path.join(run, "config", "alsa"))
    infile = os.path.join(run, "infile")
    os.mkfifo(infile)
    with open(os.path.join(run, "config", "alsa", "asoundrc"), "w") as f:
        f.write(f'pcm.sonderlark_array {{\n type file\n slave.pcm "null"\n file "/dev/null"\n infile "{infile}"\n'
                ' format "raw"\n}\n')
    procs = []
    try:
        pulse = subprocess.Popen(["pulseaudio", "-n", "-F", os.path.join(run, "pa.pa"), "--exit-idle-time=-1",
                                  "--daemonize=no"], env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        procs.append(pulse)
        wait_for_source(env)
        rec = subprocess.Popen(["parecord", "--raw", "-d", "sonderlark_mic", "--rate=16000", "--channels=1",
                                "--format=s16le", "--latency-msec=10"], env=env, stdout=subprocess.PIPE,
                               stderr=subprocess.DEVNULL)
        procs.append(rec)
        time.sleep(0.5)
        tool = subprocess.Popen([os.path.join(build, "sonderlark"), "--live", "--device", "sonderlark_array",
                                 "--live-duration", "5", "--live-chunk-frames", str(chunk), "--pcm-output", fifo_out,
                                 "--event-output", os.path.join(run, "status.json"), "--log", ""],
                                env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        procs.append(tool)
        # The pacer: one 2000-frame period per write, on a monotonic schedule.
        fd = os.open(infile, os.O_WRONLY)
        click_frame = 32000 // chunk * chunk
        click_frames(os.path.join(run, "click.raw"), click_frame)
        data = open(os.path.join(run, "click.raw"), "rb").read()
        period = PERIOD_FRAMES * 16
        start = time.monotonic()
        click_written = start + (click_frame // PERIOD_FRAMES) * PERIOD_FRAMES / 16000
        arrived = None
        n = 0
        pending = b""
        while time.monotonic() < start + 4.5:
            block = data[n * period:(n + 1) * period]
            os.write(fd, block + b"\0" * (period - len(block)))
            n += 1
            deadline = start + n * 0.125
            while True:
                left = deadline - time.monotonic()
                if left <= 0:
                    break
                ready, _, _ = select.select([rec.stdout], [], [], left)
                if ready:
                    chunk_bytes = os.read(rec.stdout.fileno(), 512)
                    now = time.monotonic()
                    pending += chunk_bytes
                    usable = len(pending) // 2 * 2
                    samples = struct.unpack("<%dh" % (usable // 2), pending[:usable])
                    pending = pending[usable:]
                    if arrived is None:
                        for k, s in enumerate(samples):
                            if abs(s) > 3000:
                                arrived = now  # the read that brought the click; bursts are not paced
                                break
        os.close(fd)
        tool.wait()
        return None if arrived is None else arrived - click_written
    finally:
        for p in reversed(procs):
            if p.poll() is None:
                p.send_signal(signal.SIGTERM)
                p.wait()


def main():
    build = os.path.abspath(sys.argv[1])
    chunks = [int(c) for c in sys.argv[2:]] or [256, 1024, 4096]
    work = tempfile.mkdtemp(prefix="sonderlark-latency-")
    try:
        for chunk in chunks:
            latency = measure(build, work, chunk)
            text = "click not heard" if latency is None else f"{latency * 1000:.0f} ms"
            print(f"chunk {chunk} frames ({chunk / 16:.0f} ms): click to parecord {text}")
    finally:
        subprocess.run(["rm", "-rf", work])


if __name__ == "__main__":
    main()
