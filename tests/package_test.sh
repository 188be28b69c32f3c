#!/usr/bin/env bash
# Installs the package with apt, runs the program and reads its man page as a
# user would, then purges it and checks that nothing it installed is left.
# Usage: tests/package_test.sh PACKAGE.deb
# Needs root and a machine where sonderlark is not installed as a package
# already (it would be purged); skipped with the reason otherwise.
set -euo pipefail
deb=$(realpath "$1")
skip() { echo "package_test: SKIPPED the install/purge cycle: $1"; exit 0; }
[ "$(id -u)" -eq 0 ] || skip "installing a package needs root"
if dpkg-query -W -f='${Status}' sonderlark 2>/dev/null | grep -q installed; then
  skip "sonderlark is already installed as a package on this machine"
fi
export DEBIAN_FRONTEND=noninteractive
work=$(mktemp -d)
installed=""
cleanup() {
  [ -z "$installed" ] || apt-get purge -y -qq sonderlark >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT

apt-get install -y -qq --no-install-recommends "$deb" > "$work/apt.log" 2>&1 || { cat "$work/apt.log" >&2; exit 1; }
installed=yes
dpkg-query -L sonderlark > "$work/files"
programs=(sonderlark sonderlark-sim sonderlark-monitor sonderlark-doctor)
grep -qx /usr/bin/sonderlark-mic "$work/files" && programs+=(sonderlark-mic)
for program in "${programs[@]}"; do
  [ "$(command -v "$program")" = "/usr/bin/$program" ] || { echo "$program is not on PATH" >&2; exit 1; }
  "$program" --help > "$work/help.txt"
  head -n 1 "$work/help.txt" | grep -q "^Usage: $program " || { cat "$work/help.txt" >&2; exit 1; }
  MANWIDTH=80 man "$program" > "$work/page.txt" 2> "$work/man.err"
  [ ! -s "$work/man.err" ] || { cat "$work/man.err" >&2; exit 1; }
  grep -q "EXIT STATUS" "$work/page.txt"
done
grep -qx /usr/lib/systemd/user/sonderlark-live.service "$work/files"
grep -q '^ExecStart=/usr/bin/sonderlark --live ' /usr/lib/systemd/user/sonderlark-live.service
if grep -qx /usr/bin/sonderlark-mic "$work/files"; then
  grep -q '^ExecStart=/usr/bin/sonderlark-mic ' /usr/lib/systemd/user/sonderlark-mic.service
fi
grep -qx /usr/share/doc/sonderlark/examples/sonderlark-mic.conf "$work/files"

apt-get purge -y -qq sonderlark > "$work/apt.log" 2>&1 || { cat "$work/apt.log" >&2; exit 1; }
installed=""
left=""
while read -r path; do
  # Folders shared with other packages (/usr/bin, /usr/share/man/man1) stay.
  if [ -e "$path" ] && ! [ -d "$path" ] || { [ -d "$path" ] && [[ "$path" == *sonderlark* ]]; }; then
    left+="$path "
  fi
done < "$work/files"
[ -z "$left" ] || { echo "left after purge: $left" >&2; exit 1; }
echo "package_test: installed $(wc -l < "$work/files") paths, ran every program and its man page, purged: nothing left"
