#!/usr/bin/env bash
# Installs sonderlark, uses its programs, man pages and systemd units, removes it and finds nothing left.
# Usage: tests/install_test.sh prefix BUILD_DIR (cmake --install into a temporary prefix, removed by its manifest)
#        tests/install_test.sh package DEB (apt-get install, purge: as root, where no sonderlark package is installed)
set -euo pipefail
mode=$1
work=$(mktemp -d)
installed=""
cleanup() {
  [ -z "$installed" ] || apt-get purge -y -qq sonderlark >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

if [ "$mode" = prefix ]; then
  prefix="$work/prefix"
  cmake --install "$2" --prefix "$prefix" >/dev/null
  cp "$2/install_manifest.txt" "$work/files"
else
  skip() { echo "install_test: SKIPPED the package's install/purge cycle: $1"; exit 0; }
  [ "$(id -u)" -eq 0 ] || skip "installing a package needs root"
  ! dpkg-query -W -f='${Status}' sonderlark 2>/dev/null | grep -q installed || skip "sonderlark is installed already"
  prefix=/usr
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "$(realpath "$2")" > "$work/apt.log" 2>&1 ||
    fail "$(cat "$work/apt.log")"
  installed=yes
  dpkg-query -L sonderlark > "$work/files"
  grep -qx /usr/share/doc/sonderlark/examples/sonderlark-mic.conf "$work/files" || fail "no example configuration"
fi

units=("$prefix/lib/systemd/user/sonderlark-live.service")
programs=(sonderlark sonderlark-sim sonderlark-monitor sonderlark-doctor)
if grep -qx "$prefix/bin/sonderlark-mic" "$work/files"; then
  programs+=(sonderlark-mic)
  units+=("$prefix/lib/systemd/user/sonderlark-mic.service")
  grep -qx "ExecStart=$prefix/bin/sonderlark-mic --fifo %t/sonderlark-beamformed-mic.pcm" "${units[1]}" || fail "mic unit"
fi
for program in "${programs[@]}"; do
  [ "$mode" = prefix ] || [ "$(command -v "$program")" = "/usr/bin/$program" ] || fail "$program is not on PATH"
  "$prefix/bin/$program" --help | head -n 1 | grep -q "^Usage: $prefix/bin/$program " || fail "$program --help"
  page=$(echo "$prefix/share/man/man1/$program.1"*)
  warnings=$(zcat -f "$page" | groff -man -ww -z 2>&1) && [ -z "$warnings" ] || fail "groff warnings in $page: $warnings"
  MANWIDTH=80 man -l "$page" > "$work/page.txt" 2> "$work/man.err"
  [ ! -s "$work/man.err" ] || fail "man $page: $(cat "$work/man.err")"
  grep -q "EXIT STATUS" "$work/page.txt" || fail "$page has no EXIT STATUS"
  [ "$program" != sonderlark ] || { grep -q "trusted input" "$work/page.txt" && grep -q "SECURITY NOTES" "$work/page.txt"; } ||
    fail "sonderlark.1 has no security notes"
done
grep -q "^ExecStart=$prefix/bin/sonderlark --live .*--pcm-output %t/sonderlark-beamformed-mic.pcm --event-output %S/sonderscope/sonderlark-live-event.json" "${units[0]}" ||
  fail "live unit"
# systemd's check of the units finds nothing to say (with a runtime folder, and Documentation= on MANPATH).
if command -v systemd-analyze >/dev/null 2>&1; then
  mkdir -m 700 "$work/run"
  said=$(XDG_RUNTIME_DIR="$work/run" MANPATH="$prefix/share/man" systemd-analyze --user verify "${units[@]}" 2>&1) || true
  [ -z "$said" ] || fail "systemd-analyze verify: $said"
else
  echo "systemd-analyze not installed: the units are not verified"
fi

# Removed, it leaves no file (a package no folder of its own; in a prefix, every file was in the manifest).
if [ "$mode" = prefix ]; then
  xargs -d '\n' rm -f < "$work/files"
  left=$(find "$prefix" -type f)
else
  apt-get purge -y -qq sonderlark > "$work/apt.log" 2>&1 || fail "$(cat "$work/apt.log")"
  installed=""
  left=""
fi
while read -r path; do
  if [ -e "$path" ] && ! [ -d "$path" ] || { [ "$mode" = package ] && [ -d "$path" ] && [[ "$path" == *sonderlark* ]]; }; then
    left+="$path "
  fi
done < "$work/files"
[ -z "$left" ] || fail "left after removal: $left"
echo "install_test: $mode: installed $(wc -l < "$work/files") paths, ran every program, read every man page; removed, nothing left"
