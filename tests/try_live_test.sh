#!/usr/bin/env bash
# The README's recipe for live mode without the array: scripts/try-live
# starts a paced device; a live run through it, the monitor following that
# run, and a second capture (the doctor) on the same device; stop removes it.
# Usage: tests/try_live_test.sh BUILD_DIR
set -euo pipefail
build=$(cd "$1" && pwd)
top=$(cd "$(dirname "$0")/.." && pwd)
tmp=$(mktemp -d)
live=""
cleanup() {
  [ -n "$live" ] && kill "$live" 2>/dev/null
  "$top/scripts/try-live" stop "$tmp/try" 2>/dev/null || true
  rm -rf "$tmp"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }
mkdir -m 700 "$tmp/run"
export XDG_RUNTIME_DIR="$tmp/run"  # ALSA's PulseAudio plugin: no /tmp/pulse-* folder

"$top/scripts/try-live" start "$tmp/try" --angle 30 --bin "$build" > "$tmp/said"
grep -qx "device: sonderlark_array" "$tmp/said" || fail "no device line: $(cat "$tmp/said")"
config=$(sed -n 's/^XDG_CONFIG_HOME=//p' "$tmp/said")
[ "$config" = "$tmp/try/config" ] || fail "XDG_CONFIG_HOME line: $config"

status="$tmp/try/status.json"
XDG_CONFIG_HOME=$config "$build/sonderlark" --live --device sonderlark_array --live-duration 4 \
  --event-output "$status" --pcm-output "$tmp/try/mic.pcm" --log "$tmp/live.log" > /dev/null &
live=$!
# The monitor follows the run: wait (60 s at most) for a frame of a running record.
for _ in $(seq 600); do
  "$build/sonderlark-monitor" --once "$status" > "$tmp/frame" 2>/dev/null && grep -q "^status: running" "$tmp/frame" && break
  sleep 0.1
done
grep -q "^status: running" "$tmp/frame" || fail "the monitor never showed a running record: $(cat "$tmp/frame")"
wait "$live" || fail "live run: status $?"
live=""
grep -q '"status": "stopped"' "$status" || fail "final record: $(cat "$status")"
grep -q '"direction_angle_degrees": 30.00,' "$status" || fail "direction: $(grep direction_angle "$status")"
"$build/sonderlark-monitor" --once "$status" | grep -q "^direction: 30.00 degrees" || fail "monitor after the run"

# The device serves the next capture too.
XDG_CONFIG_HOME=$config "$build/sonderlark-doctor" --device sonderlark_array --seconds 1 --event-output "$status" \
  > "$tmp/doctor" || true
grep -q "^\[ok\]      channels: all 4 channels hear the sound alike" "$tmp/doctor" || fail "doctor: $(cat "$tmp/doctor")"

"$top/scripts/try-live" stop "$tmp/try"
[ ! -e "$tmp/try" ] || fail "stop left $tmp/try"
echo "try-live: a paced live run at 30 degrees, the monitor following it, the doctor after it"
