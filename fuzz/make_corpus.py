#!/usr/bin/env python3
"""Writes the hand-made seed corpus of the WAV fuzz targets into fuzz/corpus. Each seed is described here field by
field; rerun after changing a description."""
import os
import struct

here = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")


def chunk(cid, body, declared=None):
    size = len(body) if declared is None else declared
    pad = b"\0" if len(body) % 2 else b""
    return cid + struct.pack("<I", size) + body + pad


def fmt(tag=1, channels=4, rate=16000, bits=32, extra=b""):
    block = channels * bits // 8
    body = struct.pack("<HHIIHH", tag, channels, rate & 0xFFFFFFFF, (rate * block) & 0xFFFFFFFF, block & 0xFFFF, bits)
    return chunk(b"fmt ", body + extra)


def riff(*chunks):
    body = b"WAVE" + b"".join(chunks)
    return b"RIFF" + struct.pack("<I", len(body)) + body


def pcm32(frames, channels):
    return b"".join(struct.pack("<i", ((f * 7919 + c * 104729) % 65536 - 32768) << 16)
                    for f in range(frames) for c in range(channels))


def pcm16(values):
    return b"".join(struct.pack("<h", v) for v in values)


seeds = {
    "four_channel_32bit": riff(fmt(), chunk(b"data", pcm32(200, 4))),
    "four_channel_16bit": riff(fmt(bits=16), chunk(b"data", pcm16([(i * 37) % 2000 - 1000 for i in range(400)]))),
    "full_scale_16bit": riff(fmt(channels=1, bits=16), chunk(b"data", pcm16([-32768, 32767] * 40))),
    "stereo_48k": riff(fmt(channels=2, rate=48000, bits=16), chunk(b"data", pcm16(list(range(-100, 100))))),
    "mono": riff(fmt(channels=1), chunk(b"data", pcm32(64, 1))),
    "five_channels": riff(fmt(channels=5), chunk(b"data", pcm32(40, 5))),
    "silent": riff(fmt(), chunk(b"data", b"\0" * 4 * 4 * 100)),
    "zero_frames": riff(fmt(), chunk(b"data", b"")),
    "partial_frame": riff(fmt(), chunk(b"data", pcm32(3, 4) + b"\1\2\3")),
    "rate_zero": riff(fmt(rate=0), chunk(b"data", pcm32(30, 4))),
    "rate_negative": riff(fmt(rate=0x80000000), chunk(b"data", pcm32(30, 4))),
    "rate_max": riff(fmt(rate=0xFFFFFFFF), chunk(b"data", pcm32(30, 4))),
    "rate_49": riff(fmt(rate=49), chunk(b"data", pcm32(30, 4))),
    "many_channels": riff(fmt(channels=65535, bits=16), chunk(b"data", pcm16([1, -1] * 50))),
    "odd_chunks": riff(chunk(b"odd1", b"abc"), fmt(), chunk(b"LIST", b"INFOxyz"), chunk(b"data", pcm32(20, 4))),
    "fmt_after_data": riff(chunk(b"data", pcm32(20, 4)), fmt()),
    "extended_fmt": riff(fmt(extra=b"\0\0"), chunk(b"data", pcm32(20, 4))),
    "float": riff(fmt(tag=3), chunk(b"data", pcm32(20, 4))),
    "extensible": riff(fmt(tag=0xFFFE, extra=b"\x16\0" + b"\0" * 22), chunk(b"data", pcm32(20, 4))),
    "24bit": riff(fmt(bits=24), chunk(b"data", b"\0" * 120)),
    "zero_channels": riff(fmt(channels=0), chunk(b"data", b"\0" * 16)),
    "small_fmt": riff(chunk(b"fmt ", b"\1\0\4\0" + b"\0" * 10), chunk(b"data", b"\0" * 32)),
    "truncated_data": riff(fmt(), chunk(b"data", pcm32(4, 4), declared=1000)),
    "huge_chunk_size": riff(fmt(), chunk(b"data", pcm32(4, 4), declared=0xFFFFFFFF)),
    "no_data": riff(fmt(), chunk(b"LIST", b"x" * 30)),
    "short_tail": riff(fmt(), chunk(b"data", pcm32(8, 4))) + b"1234567",
    "empty_chunks": riff(fmt(), *[chunk(b"zero", b"") for _ in range(50)], chunk(b"data", pcm32(8, 4))),
    "not_riff": b"RIFX" + b"\0" * 60,
    "not_wave": b"RIFF" + struct.pack("<I", 36) + b"AVI " + b"\0" * 32,
    "forty_three_bytes": b"RIFF" + struct.pack("<I", 35) + b"WAVE" + b"\0" * 31,
    "boundaries_32bit": riff(fmt(channels=2, rate=48000),
                             chunk(b"data", struct.pack("<IIII", 0x80000000, 0x40000000, 0x7FFFFFFF, 0xFFFFFFFF))),
    "smaller_than_a_frame": riff(fmt(channels=3, bits=16), chunk(b"data", pcm16([7, 8]))),
    "last_fmt_and_data_win": riff(fmt(channels=2, rate=44100, bits=16), chunk(b"data", pcm16([1])),
                                  fmt(channels=1, rate=22050, bits=16), chunk(b"data", pcm16([2, 4]))),
    "fmt_of_40_bytes": riff(fmt(channels=1, bits=16, extra=b"\0" * 24), chunk(b"data", pcm16([3]))),
    "8bit": riff(fmt(bits=8), chunk(b"data", b"\0" * 8)),
    "truncated_list_before_data": riff(fmt(), chunk(b"LIST", b"x" * 10, declared=50)),
    "tail_of_eight_bytes": riff(fmt(), chunk(b"data", pcm32(2, 4))) + b"tail" + struct.pack("<I", 1),
    "binary_chunk_id": riff(fmt(), struct.pack("<II", 0x20FF7F01, 9)),
    "no_fmt": riff(chunk(b"data", pcm32(2, 4)), chunk(b"LIST", b"x" * 40)),
    "float_24bit": riff(fmt(tag=3, bits=24), chunk(b"data", b"\0" * 12)),
    "tiny": b"RIFF\0\0\0\0WAVE",
}

for size in (0x7FFFFFFF, 0x80000000, 0xFFFFFFF7, 0xFFFFFFF8, 0xFFFFFFFA, 0xFFFFFFFC, 0xFFFFFFFE):
    seeds[f"data_size_{size:08x}"] = riff(fmt(), chunk(b"data", b"\0" * 64, declared=size))

os.makedirs(here, exist_ok=True)
for name, data in seeds.items():
    with open(os.path.join(here, name + ".wav"), "wb") as f:
        f.write(data)
print(f"wrote {len(seeds)} seeds to {here}")
