#!/usr/bin/env python3
"""Checks a one-shot event manifest against the run's log with a strict JSON parser.

Usage: check_manifest.py MANIFEST LOG
Exits non-zero with a message on the first mismatch.
"""
import json
import sys

KEYS = ["timestamp", "device", "sample_rate", "channels", "duration_seconds", "raw_wav", "beamformed_wav",
        "input_gain_db", "channel_rms", "channel_peak", "channel_noise_floor", "processed_channel_rms",
        "processed_channel_peak", "processed_channel_noise_floor", "direction_angle", "direction_angle_degrees",
        "direction_confidence", "direction_method", "direction_samples_source", "direction_low_confidence",
        "detected_speech", "diagnostics", "warnings"]
DIAGNOSTIC_KEYS = ["format", "beamformed_rms", "beamformed_peak", "direction_peak_correlation",
                   "direction_second_correlation", "direction_lag_consistency", "beamforming_lags",
                   "beamforming_method"]


def reject_constant(name):
    raise ValueError("non-standard JSON constant " + name)


def main():
    with open(sys.argv[1]) as f:
        manifest = json.load(f, object_pairs_hook=lambda pairs: pairs, parse_constant=reject_constant)
    order = [k for k, _ in manifest]
    assert order == KEYS, order
    m = dict(manifest)
    diag = dict(m["diagnostics"])
    assert [k for k, _ in m["diagnostics"]] == DIAGNOSTIC_KEYS

    log = {}
    blocks = {}
    title = None
    with open(sys.argv[2]) as f:
        for line in f.read().splitlines():
            if line.endswith(" diagnostics:"):
                title = line[: -len(" diagnostics:")]
                blocks[title] = []
            elif line.startswith("  channel ") and title:
                fields = dict(p.split("=") for p in line.split(": ", 1)[1].split(", "))
                blocks[title].append({k: float(v) for k, v in fields.items()})
            elif ": " in line:
                key, value = line.split(": ", 1)
                log.setdefault(key, value)
    warnings = [line[len("warning: "):] for line in open(sys.argv[2]).read().splitlines() if line.startswith("warning: ")]

    def same(value, text, places):
        assert abs(value - round(float(text), places)) < 10 ** -(places + 3), (value, text)

    assert m["sample_rate"] == int(log["sample_rate"])
    assert m["channels"] == int(log["channels"])
    same(m["duration_seconds"], log["duration_seconds"], 3)
    same(m["input_gain_db"], log["input_gain_db"], 2)
    same(m["direction_angle"], log["direction_angle_degrees"], 2)
    assert m["direction_angle"] == m["direction_angle_degrees"]
    same(m["direction_confidence"], log["direction_confidence"], 3)
    assert m["direction_method"] == log["direction_method"]
    assert m["direction_samples_source"] == log["direction_samples_source"]
    assert m["direction_low_confidence"] == (log["direction_low_confidence"] == "true")
    same(diag["direction_peak_correlation"], log["direction_peak_correlation"], 5)
    same(diag["direction_lag_consistency"], log["direction_lag_consistency"], 5)
    assert diag["beamforming_lags"] == json.loads(log["beamforming_lags"])
    assert diag["beamforming_method"] == log["beamforming_method"]
    assert m["raw_wav"] == log["raw_wav"] and m["beamformed_wav"] == log["beamformed_wav"]
    assert m["warnings"] == warnings, (m["warnings"], warnings)

    raw = blocks["raw 4-channel levels (unmodified capture)"]
    processed = blocks["processed 4-channel levels (after input gain)"]
    beam = blocks["beamformed mono levels (from processed audio)"]
    for key, rows, field in [("channel_rms", raw, "rms"), ("channel_peak", raw, "peak"),
                             ("channel_noise_floor", raw, "noise_floor"), ("processed_channel_rms", processed, "rms"),
                             ("processed_channel_peak", processed, "peak"),
                             ("processed_channel_noise_floor", processed, "noise_floor")]:
        assert m[key] == [r[field] for r in rows], key
    assert diag["beamformed_rms"] == [r["rms"] for r in beam]
    assert diag["beamformed_peak"] == [r["peak"] for r in beam]
    assert m["detected_speech"] == any(r["rms"] > 0.003 for r in processed)
    print("manifest ok")


if __name__ == "__main__":
    main()
