#!/usr/bin/env bash
# scripts/sound-server against a folder it did not make and a PID list
# that names other processes: it refuses the folder and ends only what it
# started. Needs no sound server (nothing here gets as far as starting one).
# Usage: tests/sound_server_test.sh
set -euo pipefail
script="$(cd "$(dirname "$0")/.." && pwd)/scripts/sound-server"
tmp=$(mktemp -d)
stranger=""
cleanup() {
  [ -n "$stranger" ] && kill "$stranger" 2>/dev/null
  rm -rf "$tmp"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

# A folder someone else made, world-writable and sticky like /tmp, with the
# PID list planted as a link to where the victim's file would go.
mkdir -m 1777 "$tmp/shared"
ln -s "$tmp/victim" "$tmp/shared/pids"
if "$script" start "$tmp/shared" pipewire > "$tmp/out" 2> "$tmp/err"; then fail "start accepted a folder it did not make"; fi
grep -q "sound-server: $tmp/shared refused: not a folder this script made" "$tmp/err" || fail "message: $(cat "$tmp/err")"
[ ! -e "$tmp/victim" ] || fail "wrote through the planted link"
[ ! -e "$tmp/shared/run" ] || fail "made run/ in a foreign folder"

# A private folder of ours that the script did not make is refused too.
mkdir -m 700 "$tmp/mine"
if "$script" start "$tmp/mine" pipewire 2> "$tmp/err"; then fail "start accepted a folder without its marker"; fi

# stop with a PID list naming a process of someone else's: the right PID and
# program name but another start time (a PID used again), and the old
# two-field form. The process survives both.
sleep 300 &
stranger=$!
mkdir -m 700 "$tmp/stack"
printf '%s 1 sleep\n' "$stranger" > "$tmp/stack/pids"
"$script" stop "$tmp/stack"
kill -0 "$stranger" 2>/dev/null || fail "stop ended a process with another start time"
printf '%s sleep\n' "$stranger" > "$tmp/stack/pids"
"$script" stop "$tmp/stack"
kill -0 "$stranger" 2>/dev/null || fail "stop ended a process named by PID alone"

# The same process with its own start time is one the script started: it ends.
started=$(sed -E 's/^.*\) //' "/proc/$stranger/stat" | cut -d' ' -f20)
printf '%s %s sleep\n' "$stranger" "$started" > "$tmp/stack/pids"
"$script" stop "$tmp/stack"
wait "$stranger" 2>/dev/null || true
if kill -0 "$stranger" 2>/dev/null; then fail "stop left its own process running"; fi
stranger=""
echo "sound-server: foreign folders refused, only its own processes ended"
