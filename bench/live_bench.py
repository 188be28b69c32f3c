#!/usr/bin/env python3
"""Live-mode throughput and cost with the real arecord on a file-backed ALSA device.

Usage: bench/live_bench.py BUILD_DIR [SECONDS]

- unpaced: the device reads a file as fast as it is consumed; reports chunks
  per second with the status file on /tmp and on /dev/shm.
- paced: a pacer writes one arecord period (2000 frames) every 125 ms into a
  FIFO that the device reads; reports the tool's own CPU time (the arecord
  child excluded) per second of audio, from /proc/PID/stat.
"""
import json
import os
import random
import signal
import struct
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
TICKS = os.sysconf("SC_CLK_TCK")


def frames(path, seconds):
    rng = random.Random(9)
    src = [rng.uniform(-0.3, 0.3) for _ in range(65536)]
    with open(path, "wb") as f:
        for start in range(0, 16000 * seconds, 16000):
            block = []
            for i in range(start, start + 16000):
                for c in range(4):
                    block.append(int(src[(i - c) % 65536] * 2147483647))
            f.write(struct.pack("<%di" % len(block), *block))


def asoundrc(config, infile):
    os.makedirs(os.path.join(config, "alsa"), exist_ok=True)
    with open(os.path.join(config, "alsa", "asoundrc"), "w") as f:
        f.write('pcm.sonderlark_array {\n type file\n slave.pcm "null"\n file "/dev/null"\n'
                f' infile "{infile}"\n format "raw"\n}}\n')


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICKS  # utime + stime of the process alone


def run_tool(build, env, status, seconds, sample_cpu=False):
    args = [os.path.join(build, "sonderlark"), "--live", "--device", "sonderlark_array", "--live-duration",
            str(seconds), "--pcm-output", "/nonexistent/pcm", "--event-output", status, "--log", ""]
    tool = subprocess.Popen(args, env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    cpu = 0.0
    while tool.poll() is None:
        try:
            cpu = cpu_seconds(tool.pid)
        except (FileNotFoundError, ProcessLookupError, IndexError):
            pass
        time.sleep(0.05)
    with open(status) as f:
        return json.load(f)["chunks_processed"], cpu


def main():
    build = os.path.abspath(sys.argv[1])
    seconds = int(sys.argv[2]) if len(sys.argv) > 2 else 5
    work = tempfile.mkdtemp(prefix="sonderlark-live-bench-", dir="/tmp")
    shm = tempfile.mkdtemp(prefix="sonderlark-live-bench-", dir="/dev/shm")
    try:
        raw = os.path.join(work, "frames.raw")
        frames(raw, 60)
        env = dict(os.environ, XDG_CONFIG_HOME=os.path.join(work, "config"))
        asoundrc(env["XDG_CONFIG_HOME"], raw)
        for where, folder in [("/tmp (ext4)", work), ("/dev/shm (tmpfs)", shm)]:
            chunks, _ = run_tool(build, env, os.path.join(folder, "status.json"), seconds)
            print(f"unpaced, status on {where}: {chunks / seconds:.0f} chunks/s ({chunks} chunks in {seconds} s)")

        fifo = os.path.join(work, "paced")
        os.mkfifo(fifo)
        asoundrc(env["XDG_CONFIG_HOME"], fifo)
        pacer = subprocess.Popen([sys.executable, os.path.join(HERE, "..", "tests", "pace_frames.py"), raw, fifo])
        paced = 10
        chunks, cpu = run_tool(build, env, os.path.join(work, "status.json"), paced, sample_cpu=True)
        pacer.send_signal(signal.SIGTERM)
        pacer.wait()
        print(f"paced at real time for {paced} s: {chunks} chunks ({chunks / paced:.1f}/s), tool CPU {cpu:.2f} s "
              f"= {100 * cpu / paced:.2f}% of one core (arecord child excluded)")
    finally:
        subprocess.run(["rm", "-rf", work, shm])


if __name__ == "__main__":
    main()
