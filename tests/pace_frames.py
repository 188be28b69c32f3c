#!/usr/bin/env python3
"""Writes raw frames into a FIFO at real time, one arecord period per write.

Usage: pace_frames.py FRAMES_FILE FIFO [BYTES_PER_FRAME] [PERIOD_FRAMES] [RATE]
ALSA's file plugin pads a short read with silence, so every write is exactly
one period (2000 frames of 16 bytes at 16000 Hz by default). After the file
it goes on writing silence until the reader goes away.
"""
import os
import sys
import time


def main():
    frames_path, fifo = sys.argv[1], sys.argv[2]
    frame_bytes = int(sys.argv[3]) if len(sys.argv) > 3 else 16
    period = int(sys.argv[4]) if len(sys.argv) > 4 else 2000
    rate = int(sys.argv[5]) if len(sys.argv) > 5 else 16000
    block = period * frame_bytes
    data = open(frames_path, "rb").read()
    fd = os.open(fifo, os.O_WRONLY)
    start = time.monotonic()
    n = 0
    try:
        while True:
            chunk = data[n * block:(n + 1) * block]
            chunk += b"\0" * (block - len(chunk))
            os.write(fd, chunk)
            n += 1
            delay = start + n * period / rate - time.monotonic()
            if delay > 0:
                time.sleep(delay)
    except BrokenPipeError:
        pass


if __name__ == "__main__":
    main()
