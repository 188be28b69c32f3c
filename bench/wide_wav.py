#!/usr/bin/env python3
"""Times one-shot runs of a WAV with 65,535 channels of 16-bit audio beside
a 4-channel file of the same size: the cost should follow the bytes, not
the channel count.

    python3 bench/wide_wav.py BUILD [FRAMES]

BUILD holds the sonderlark binary; FRAMES (default 50) is the wide file's
length. Prints wall and CPU seconds and peak RSS of 3 runs of each."""
import os, resource, shutil, struct, subprocess, sys, tempfile, time


def wav(path, channels, frames, bits=16):
    # Silence: no direction can be estimated, so the beam falls back to one
    # alignment search per channel, the costly road.
    data = bytes(channels * frames * bits // 8)
    block = channels * bits // 8
    fmt = struct.pack('<HHIIHH', 1, channels, 16000, 16000 * block, block & 0xFFFF, bits)
    with open(path, 'wb') as f:
        f.write(b'RIFF' + struct.pack('<I', 36 + len(data)) + b'WAVE')
        f.write(b'fmt ' + struct.pack('<I', 16) + fmt)
        f.write(b'data' + struct.pack('<I', len(data)) + data)


def timed(tool, wav_path, folder):
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    start = time.monotonic()
    result = subprocess.run([tool, '--skip-capture', '--input-wav', wav_path, '--beamformed',
                             os.path.join(folder, 'beam.wav'), '--event', os.path.join(folder, 'event.json'),
                             '--log', os.path.join(folder, 'run.log')], stdout=subprocess.DEVNULL, timeout=3600)
    wall = time.monotonic() - start
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    cpu = (after.ru_utime - before.ru_utime) + (after.ru_stime - before.ru_stime)
    return result.returncode, wall, cpu, after.ru_maxrss


def main():
    build = sys.argv[1]
    frames = int(sys.argv[2]) if len(sys.argv) > 2 else 50
    tool = os.path.join(build, 'sonderlark')
    folder = tempfile.mkdtemp(prefix='wide-wav-')
    try:
        wide = os.path.join(folder, 'wide.wav')
        narrow = os.path.join(folder, 'narrow.wav')
        wav(wide, 65535, frames)
        wav(narrow, 4, 65535 * frames // 4)
        for name, path in (('65535 channels', wide), ('4 channels, same size', narrow)):
            for _ in range(3):
                code, wall, cpu, rss = timed(tool, path, folder)
                print(f'{name}: {os.path.getsize(path)} bytes, exit {code}, wall {wall:.2f} s, '
                      f'cpu {cpu:.2f} s, peak RSS of any run so far {rss // 1024} MiB')
    finally:
        shutil.rmtree(folder)


if __name__ == '__main__':
    main()
