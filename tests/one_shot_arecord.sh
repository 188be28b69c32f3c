#!/bin/sh
# A stand-in arecord for one-shot captures (failure injection and argument
# checks): writes its arguments NUL-separated to $ARGS_FILE when that is set;
# copies each file of $PARTS to STEM-01.wav, STEM-02.wav, ... of its output
# file (with $SPLIT empty, the first to the output itself), then plants the
# next part as someone racing the capture would: $PLANT is "fifo", "link" or
# "foreign" (a copy given to the user nobody).
for last; do :; done
[ -z "$ARGS_FILE" ] || printf '%s\0' "$@" > "$ARGS_FILE"
stem=${last%.wav}
n=0
for part in $PARTS; do
  n=$((n + 1))
  if [ -n "$SPLIT" ]; then cp "$part" "$stem-0$n.wav"; else cp "$part" "$last"; fi
done
next="$stem-0$((n + 1)).wav"
case "$PLANT" in
  fifo) mkfifo "$next" ;;
  link) ln -s "$part" "$next" ;;
  foreign) cp "$part" "$next" && chown nobody "$next" ;;
esac
