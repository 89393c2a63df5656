#!/bin/bash
# One export shares its messages out among two imports, one of which is killed; then two
# exports feed one import.
. "$(dirname "$0")/lib.sh"
near=$(endpoint near)
cd "$scratch" || exit 1

start_export "$near" "tcp://$loopback:*" --bind --window 16
for far in one two; do
  "$JPIPE" pull "$(endpoint "$far")" >>"$scratch/$far" &
  until_true holds "$far" $!
done
start_import --connect "$address" "$(endpoint two)"
killed=$import
start_import --connect "$address" "$(endpoint one)"
seq 1 100000 | "$JPIPE" push "$near" &
push=$!
got() { [ -s one ] && [ -s two ]; }
until_true got
kill -KILL "$killed"
wait $push
ends_cleanly export "$export"
ends_cleanly import "$import"
all_read() { [ "$("$JPIPE" list | awk '/one|two/ { n += $4 } END { print n + 0 }')" = 0 ]; }
until_true all_read
all_shown() { [ "$(sort -nu one two | wc -l)" = 100000 ]; }
until_true all_shown
twice=$(($(cat one two | wc -l) - 100000))
is 'at most the window arrives twice' yes "$([ $twice -le 16 ] && echo yes || echo $twice)"
is 'an import delivers its share in order' "$(sort -n two)" "$(cat two)"

start_import "tcp://$loopback:*" "$(endpoint one)"
: >one
for part in a b; do
  start_export "$(endpoint $part)" "$address"
  "$JPIPE" push "$(endpoint $part)" "$part"
done
both() { [ "$(sort one | tr -d '\n')" = ab ]; }
until_true both
ends_cleanly import "$import"
finish
