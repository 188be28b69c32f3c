#!/usr/bin/env bash
# Runs the demo with a build's programs in a temporary folder and checks
# that it reports the simulated direction as detected.
# Usage: tests/demo_test.sh BUILD_DIR
set -euo pipefail
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
SONDERLARK_BIN_DIR=$1 DEMO_DIR=$work "$(dirname "$0")/../scripts/demo" > "$work/out.txt"
grep -E '^(simulated|detected) direction' "$work/out.txt"
grep -q '^detected direction:  30.00 degrees$' "$work/out.txt"
test -s "$work/build/sonderlark_beamformed.wav" && test -s "$work/build/sonderlark_event.json"
