#!/usr/bin/env python3
"""Times one-shot analyses of long recordings: wall time and peak memory.

Usage: bench/one_shot_long.py BUILD_DIR [LENGTH ...]   (default: 1m 60m max)

LENGTH is minutes ("60m") or "max": the largest WAV there is, 4 GiB of data
(268435455 frames, 4 h 39 min 37 s). Every recording is made from one
minute of `sonderlark-sim` output (a seeded noise source 3 samples apart
end to end, weak independent noise per channel), repeated; the files live in
$BENCH_TMP (default /tmp) and are removed afterwards.

For each length, three runs of `sonderlark --input-wav` under
/usr/bin/time -f "%e %M" (wall seconds, peak RSS in KiB) after one run
that warms the page cache, each writing a new beam WAV; three that replace
the previous run's; and three with --input-gain-db 6 (at the default 0 dB
the tool skips the gain, which changes no sample); then, on the same file,
three runs of `sox FILE -b 16 OUT gain 6 remix 1-4` (only the gain and the
mix, no analysis), each writing a new file. Prints every run and the
medians.
"""
import os
import shutil
import statistics
import struct
import subprocess
import sys
import tempfile

FRAME = 16  # 4 channels x 32 bits
MAX_FRAMES = 0xFFFFFFFF // FRAME


def timed(command, remove=()):
    """Runs command once; `remove` lists outputs deleted first (untimed)."""
    for path in remove:
        if os.path.exists(path):
            os.remove(path)
    out = subprocess.run(["/usr/bin/time", "-f", "%e %M"] + command, stdout=subprocess.DEVNULL,
                         stderr=subprocess.PIPE, text=True, check=True).stderr.strip().splitlines()[-1]
    wall, kib = out.split()
    return float(wall), int(kib)


def mono_noise(path, seconds):
    import random
    rng = random.Random(5)
    n = 16000 * seconds
    data = struct.pack("<%dh" % n, *[int(rng.uniform(-9000, 9000)) for _ in range(n)])
    with open(path, "wb") as f:
        f.write(b"RIFF" + struct.pack("<I", 36 + len(data)) + b"WAVEfmt " +
                struct.pack("<IHHIIHH", 16, 1, 1, 16000, 32000, 2, 16) + b"data" + struct.pack("<I", len(data)) + data)


def repeated(minute_wav, path, frames):
    """A 4-channel S32_LE WAV of `frames` frames: the minute's data, repeated."""
    with open(minute_wav, "rb") as f:
        body = f.read()[44:]
    size = frames * FRAME
    with open(path, "wb") as out:
        out.write(b"RIFF" + struct.pack("<I", min(0xFFFFFFFF, 36 + size)) + b"WAVEfmt " +
                  struct.pack("<IHHIIHH", 16, 1, 4, 16000, 16000 * FRAME, FRAME, 32) + b"data" +
                  struct.pack("<I", size))
        left = size
        while left > 0:
            out.write(body[:left])
            left -= min(left, len(body))


def main():
    build = os.path.abspath(sys.argv[1])
    lengths = sys.argv[2:] or ["1m", "60m", "max"]
    work = tempfile.mkdtemp(prefix="sonderlark-bench-", dir=os.environ.get("BENCH_TMP", "/tmp"))
    try:
        mono_noise(os.path.join(work, "source.wav"), 60)
        minute = os.path.join(work, "minute.wav")
        subprocess.run([os.path.join(build, "sonderlark-sim"), "--input", os.path.join(work, "source.wav"),
                        "--output", minute, "--lag", "3", "--noise-rms", "0.001"], check=True,
                       stderr=subprocess.DEVNULL)
        for length in lengths:
            frames = MAX_FRAMES if length == "max" else int(length.rstrip("m")) * 60 * 16000
            wav = os.path.join(work, "array.wav")
            repeated(minute, wav, frames)
            tool = [os.path.join(build, "sonderlark"), "--input-wav", wav,
                    "--beamformed", os.path.join(work, "beam.wav"),
                    "--event", os.path.join(work, "event.json"), "--log", os.path.join(work, "run.log")]
            sox = ["sox", wav, "-b", "16", os.path.join(work, "sox.wav"), "gain", "6", "remix", "1-4"]
            timed(tool)  # warms the page cache
            print(f"{length} ({frames} frames, {os.path.getsize(wav) / 1e6:.1f} MB):")
            # Each run writes a new beam WAV (the last one's removed, untimed), as a first run
            # does; "replacing" leaves the last run's in place, and its rename then also frees
            # the old file (about 0.09 s for an hour's 115 MB here). The default gain (0 dB)
            # leaves the samples as read; +6 dB is what sox is asked for.
            outputs = [os.path.join(work, name) for name in ("beam.wav", "event.json")]
            for label, extra, remove in (("sonderlark", [], outputs),
                                         ("sonderlark replacing", [], ()),
                                         ("sonderlark +6 dB", ["--input-gain-db", "6"], outputs)):
                runs = [timed(tool + extra, remove) for _ in range(3)]
                walls = [w for w, _ in runs]
                median = statistics.median(walls)
                spread = max(abs(w - median) for w in walls) / median * 100 if median > 0 else 0.0
                print(f"    {label} wall {', '.join(f'{w:.2f}' for w in walls)} s (median {median:.2f} s, "
                      f"spread {spread:.0f} %), peak RSS {', '.join(f'{k / 1024:.1f}' for _, k in runs)} MiB")
            sox_out = [os.path.join(work, "sox.wav")]
            sox_runs = [timed(sox, sox_out) for _ in range(3)] if shutil.which("sox") else []
            if sox_runs:
                print(f"    sox gain+mix wall {', '.join(f'{w:.2f}' for w, _ in sox_runs)} s "
                      f"(median {statistics.median(w for w, _ in sox_runs):.2f} s)")
            for name in ("angle", "confidence"):
                line = [l for l in open(os.path.join(work, "run.log")).read().splitlines()
                        if l.startswith("direction_" + name)]
                print("    " + (line[0] if line else "no " + name))
            os.remove(wav)
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
