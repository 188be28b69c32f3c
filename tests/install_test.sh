#!/usr/bin/env bash
# Installs a build into a temporary prefix, runs the installed program,
# renders its man page and removes everything again through the manifest.
# Usage: tests/install_test.sh BUILD_DIR
set -euo pipefail
build=$1
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT

cmake --install "$build" --prefix "$prefix" >/dev/null
bin="$prefix/bin/sonderlark"
"$bin" --help > "$prefix/help.txt"
head -n 1 "$prefix/help.txt" | grep -qx "Usage: $bin \[options\]"
"$prefix/bin/sonderlark-sim" --help >/dev/null
"$prefix/bin/sonderlark-monitor" --help | head -n 1 | grep -q "^Usage: $prefix/bin/sonderlark-monitor \[STATUS_PATH\]"
"$prefix/bin/sonderlark-doctor" --help | head -n 1 | grep -q "^Usage: $prefix/bin/sonderlark-doctor \[--device NAME\]"

page="$prefix/share/man/man1/sonderlark.1"
pages=("$page" "$prefix"/share/man/man1/sonderlark-{sim,monitor,doctor}.1)
# sonderlark-mic where libpipewire was there to build it.
if [ -x "$prefix/bin/sonderlark-mic" ]; then
  "$prefix/bin/sonderlark-mic" --help | head -n 1 | grep -q "^Usage: $prefix/bin/sonderlark-mic \[--fifo PATH\]"
  pages+=("$prefix/share/man/man1/sonderlark-mic.1")
  grep -qx "ExecStart=$prefix/bin/sonderlark-mic --fifo %t/sonderlark-beamformed-mic.pcm" \
    "$prefix/lib/systemd/user/sonderlark-mic.service"
fi
for p in "${pages[@]}"; do
  warnings=$(groff -man -ww -z "$p" 2>&1)
  [ -z "$warnings" ] || { echo "groff warnings in $p: $warnings" >&2; exit 1; }
done
MANWIDTH=80 man -l "$page" > "$prefix/page.txt" 2> "$prefix/man.err"
[ ! -s "$prefix/man.err" ] || { cat "$prefix/man.err" >&2; exit 1; }
grep -q "EXIT STATUS" "$prefix/page.txt"
grep -q "trusted input" "$prefix/page.txt"
grep -q "SECURITY NOTES" "$prefix/page.txt"

unit="$prefix/lib/systemd/user/sonderlark-live.service"
grep -q "^ExecStart=$prefix/bin/sonderlark --live .*--pcm-output %t/sonderlark-beamformed-mic.pcm --event-output %S/sonderscope/sonderlark-live-event.json" "$unit"
# systemd's own check of the unit must find nothing to say (it needs a
# runtime folder, and finds the man page of Documentation= through MANPATH).
if command -v systemd-analyze >/dev/null 2>&1; then
  mkdir -m 700 "$prefix/run"
  units=("$unit")
  [ -e "$prefix/lib/systemd/user/sonderlark-mic.service" ] && units+=("$prefix/lib/systemd/user/sonderlark-mic.service")
  said=$(XDG_RUNTIME_DIR="$prefix/run" MANPATH="$prefix/share/man" systemd-analyze --user verify "${units[@]}" 2>&1) || true
  [ -z "$said" ] || { echo "systemd-analyze verify: $said" >&2; exit 1; }
  rm -rf "$prefix/run"
else
  echo "systemd-analyze not installed: the unit is not verified"
fi

# Everything installed is listed, and removing the listed files leaves no file.
manifest="$build/install_manifest.txt"
xargs -d '\n' rm -f < "$manifest"
left=$(find "$prefix" -type f ! -name help.txt ! -name page.txt ! -name man.err)
[ -z "$left" ] || { echo "left after uninstall: $left" >&2; exit 1; }
echo "install ok"
