#!/usr/bin/env python3
"""Times one-shot analyses of long recordings: wall time and peak memory.

Usage: bench/one_shot_hour.py BUILD_DIR [MINUTES ...]   (default: 60)

Generates a 4-channel S32_LE recording of MINUTES minutes with sonderlark-sim
(a seeded noise source from a known direction, repeated), runs
`sonderlark --input-wav` on it and reports the wall time and the peak
resident memory of the analysis (from the kernel's accounting of the child).
"""
import os
import struct
import subprocess
import sys
import tempfile
import time
import random


def mono_noise(path, seconds):
    rng = random.Random(5)
    n = 16000 * seconds
    data = struct.pack("<%dh" % n, *[int(rng.uniform(-9000, 9000)) for _ in range(n)])
    with open(path, "wb") as f:
        f.write(b"RIFF" + struct.pack("<I", 36 + len(data)) + b"WAVEfmt " +
                struct.pack("<IHHIIHH", 16, 1, 1, 16000, 32000, 2, 16) + b"data" + struct.pack("<I", len(data)) + data)


def main():
    build = os.path.abspath(sys.argv[1])
    minutes = [int(m) for m in sys.argv[2:]] or [60]
    work = tempfile.mkdtemp(prefix="sonderlark-bench-", dir=os.environ.get("BENCH_TMP", "/tmp"))
    try:
        mono_noise(os.path.join(work, "source.wav"), 60)
        for m in minutes:
            wav = os.path.join(work, "array.wav")
            subprocess.run([os.path.join(build, "sonderlark-sim"), "--input", os.path.join(work, "source.wav"),
                            "--output", wav, "--lag", "3", "--noise-rms", "0.001", "--repeat", str(m)],
                           check=True, stderr=subprocess.DEVNULL)
            log = os.path.join(work, "run.log")
            start = time.monotonic()
            child = subprocess.Popen([os.path.join(build, "sonderlark"), "--input-wav", wav,
                                      "--beamformed", os.path.join(work, "beam.wav"),
                                      "--event", os.path.join(work, "event.json"), "--log", log],
                                     cwd=work, stdout=subprocess.DEVNULL)
            _, status, usage = os.wait4(child.pid, 0)  # this child's own peak, not the simulator's
            child.returncode = os.waitstatus_to_exitcode(status)
            wall = time.monotonic() - start
            angle = [l for l in open(log).read().splitlines() if l.startswith("direction_angle_degrees")]
            print(f"{m} min ({os.path.getsize(wav) / 1e6:.1f} MB): exit {child.returncode}, wall {wall:.2f} s, "
                  f"user {usage.ru_utime:.2f} s, sys {usage.ru_stime:.2f} s, "
                  f"peak RSS {usage.ru_maxrss / 1024 / 1024:.2f} GiB, {angle[0] if angle else ''}")
            os.remove(wav)
    finally:
        subprocess.run(["rm", "-rf", work])


if __name__ == "__main__":
    main()
