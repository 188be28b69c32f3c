#!/bin/sh
# A stand-in for arecord, first on PATH in the tests, for failure injection only (exit codes, signals, standard
# error text, early stops, split parts). Everything it does is steered by environment variables:
#   STAND_IN_DIR   where it keeps its records (starts, args, times, fds, zombies, snapshot.N)
#   FIRST_FRAMES   file streamed to standard output by the first start
#   FRAMES         file streamed by later starts (or by every start without FIRST_FRAMES)
#   STDERR_TEXT    text written to standard error
#   KILL_SIGNAL    signal the stand-in sends itself at the end
#   EXIT_CODE      exit code otherwise (default 0)
#   STATUS_FILE    live status file, copied to snapshot.N at start N
#   HANG           after the frames, stay alive sending nothing ("ignore-term": also ignore SIGTERM)
#   PARTS          one-shot: files copied to the output file (the last argument), or with SPLIT to its
#                  STEM-01.wav, STEM-02.wav, ...; then PLANT puts the next part there as someone racing the
#                  capture would: a "fifo", a "link", or a copy given to the user nobody ("foreign")
d=$STAND_IN_DIR
n=$(( $(cat "$d/starts" 2>/dev/null || echo 0) + 1 ))
echo "$n" > "$d/starts"
printf '%s\0' "$@" > "$d/args"
date +%s.%N >> "$d/times"

# The tool is our parent, or our grandparent when the shell did not exec us.
tool=$PPID
if [ "$(cat /proc/$tool/comm)" = sh ]; then tool=$(awk '{print $4}' /proc/$tool/stat); fi
ls /proc/$tool/fd | wc -l >> "$d/fds"
awk -v p="$tool" '$4 == p && $3 == "Z"' /proc/[0-9]*/stat 2>/dev/null | wc -l >> "$d/zombies"
if [ -n "$STATUS_FILE" ] && [ -f "$STATUS_FILE" ]; then cp "$STATUS_FILE" "$d/snapshot.$n"; fi
for fd in /proc/$$/fd/*; do readlink "$fd"; done > "$d/own_fds"

for last; do :; done
stem=${last%.wav}
parts=0
for part in $PARTS; do
  parts=$((parts + 1))
  if [ -n "$SPLIT" ]; then cp "$part" "$stem-0$parts.wav"; else cp "$part" "$last"; fi
done
next="$stem-0$((parts + 1)).wav"
case "$PLANT" in
  fifo) mkfifo "$next" ;;
  link) ln -s "$part" "$next" ;;
  foreign) cp "$part" "$next" && chown nobody "$next" ;;
esac

if [ "$n" -eq 1 ] && [ -n "$FIRST_FRAMES" ]; then
  cat "$FIRST_FRAMES"
elif [ -n "$FRAMES" ]; then
  cat "$FRAMES"
fi
printf '%s' "$STDERR_TEXT" >&2
if [ "$HANG" = ignore-term ]; then trap '' TERM; fi
if [ -n "$HANG" ]; then exec sleep 600; fi
if [ -n "$KILL_SIGNAL" ]; then kill -"$KILL_SIGNAL" $$; fi
exit "${EXIT_CODE:-0}"
