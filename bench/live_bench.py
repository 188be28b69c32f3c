#!/usr/bin/env python3
"""Live-mode throughput and cost with the real arecord on a file-backed ALSA device.

Usage: bench/live_bench.py BUILD_DIR [SECONDS] [MEMORY_MINUTES]

- paced: a pacer writes one arecord period (2000 frames) every 125 ms into a
  FIFO that the device reads; reports the tool's own CPU time (the arecord
  child excluded) per second of audio, from /proc/PID/task/*/schedstat
  (nanoseconds on the CPU, summed over the tool's threads).
- unpaced: the device reads a file as fast as it is consumed; reports chunks
  per second with the status file on /tmp and on /dev/shm.
- memory (only with MEMORY_MINUTES): one unpaced run of that many minutes,
  status on /tmp; reports VmRSS and the chunk count at 1 minute, every 5
  minutes and at the end, and VmHWM.
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
    total = 0
    for task in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{task}/schedstat") as f:
            total += int(f.read().split()[0])  # time on the CPU, ns; children are not included
    return total / 1e9


def run_tool(build, env, status, seconds):
    """Runs the tool; returns its chunk count, its whole CPU time and its CPU
    share of one core from 5 s after the start to the last sample (the
    steady state, without start-up)."""
    args = [os.path.join(build, "sonderlark"), "--live", "--device", "sonderlark_array", "--live-duration",
            str(seconds), "--pcm-output", "/nonexistent/pcm", "--event-output", status, "--log", ""]
    start = time.monotonic()
    tool = subprocess.Popen(args, env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    samples = []
    while tool.poll() is None:
        try:
            samples.append((time.monotonic() - start, cpu_seconds(tool.pid)))
        except (FileNotFoundError, ProcessLookupError, IndexError, ValueError):
            pass
        time.sleep(0.05)
    steady = [s for s in samples if s[0] >= 5.0]
    share = (steady[-1][1] - steady[0][1]) / (steady[-1][0] - steady[0][0]) if len(steady) > 1 else float("nan")
    with open(status) as f:
        return json.load(f)["chunks_processed"], samples[-1][1], share


def memory_run(build, env, status, minutes):
    args = [os.path.join(build, "sonderlark"), "--live", "--device", "sonderlark_array", "--live-duration",
            str(minutes * 60), "--pcm-output", "/nonexistent/pcm", "--event-output", status, "--log", ""]
    start = time.monotonic()
    tool = subprocess.Popen(args, env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    marks = [60] + list(range(300, minutes * 60, 300)) + [minutes * 60 - 5]
    for mark in marks:
        time.sleep(max(0.0, start + mark - time.monotonic()))
        with open(f"/proc/{tool.pid}/status") as f:
            fields = dict(line.split(":", 1) for line in f if ":" in line)
        with open(status) as f:
            chunks = json.load(f)["chunks_processed"]
        print(f"memory at {mark} s: VmRSS {fields['VmRSS'].strip()}, VmHWM {fields['VmHWM'].strip()}, "
              f"{chunks} chunks", flush=True)
    tool.wait()


def main():
    build = os.path.abspath(sys.argv[1])
    seconds = int(sys.argv[2]) if len(sys.argv) > 2 else 5
    work = tempfile.mkdtemp(prefix="sonderlark-live-bench-", dir="/tmp")
    shm = tempfile.mkdtemp(prefix="sonderlark-live-bench-", dir="/dev/shm")
    try:
        raw = os.path.join(work, "frames.raw")
        frames(raw, 60)
        env = dict(os.environ, XDG_CONFIG_HOME=os.path.join(work, "config"))
        if "XDG_RUNTIME_DIR" not in env:  # else ALSA's PulseAudio plugin leaves /tmp/pulse-* behind
            env["XDG_RUNTIME_DIR"] = os.path.join(work, "config")

        fifo = os.path.join(work, "paced")
        os.mkfifo(fifo)
        asoundrc(env["XDG_CONFIG_HOME"], fifo)
        pacer = subprocess.Popen([os.path.join(HERE, "..", "scripts", "try-live"), "pace", raw, fifo, "--once"])
        paced = 30
        chunks, cpu, share = run_tool(build, env, os.path.join(work, "status.json"), paced)
        pacer.send_signal(signal.SIGTERM)
        pacer.wait()
        print(f"paced at real time for {paced} s: {chunks} chunks ({chunks / paced:.1f}/s), tool CPU {cpu:.3f} s "
              f"= {100 * cpu / paced:.3f}% of one core; "
              f"from 5 s on {100 * share:.3f}% (arecord child excluded)")

        # Unpaced after paced: for about 30 s after many deletions, ext4
        # without a journal skips the freed inodes when it allocates new
        # ones, which would weigh on a paced run that came next.
        asoundrc(env["XDG_CONFIG_HOME"], raw)
        for where, folder in [("/tmp (ext4)", work), ("/dev/shm (tmpfs)", shm)]:
            chunks, _, _ = run_tool(build, env, os.path.join(folder, "status.json"), seconds)
            print(f"unpaced, status on {where}: {chunks / seconds:.0f} chunks/s ({chunks} chunks in {seconds} s)")

        if len(sys.argv) > 3:
            memory_run(build, env, os.path.join(work, "memory.json"), int(sys.argv[3]))
    finally:
        subprocess.run(["rm", "-rf", work, shm])


if __name__ == "__main__":
    main()
