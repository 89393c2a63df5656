#!/bin/bash
# Sends 20,000 messages of mixed shapes through endpoint, export, TCP, import and endpoint,
# and compares every byte and the order. Back-pressure from a far end without a reader first
# stops the sender.
. "$(dirname "$0")/lib.sh"
near=$(endpoint near)
far=$(endpoint far)
count=20000

start_import "tcp://$loopback:*" "$far"
start_export "$near" "$address" --window 100
"$traffic" send "$near" "$count" mixed >"$scratch/send" &
send=$!

# Without a reader the far FIFO fills, import receives as much as it has granted, the near
# FIFO fills, and the sender waits.
both_wait() {
  "$JPIPE" list | awk -v n="ipc://${name}_near" -v f="ipc://${name}_far" \
    '$4 > 0 && ($1 == n || $1 == f) { found++ } END { exit found != 2 }'
}
until_true both_wait
is 'the sender waits for the far end' 0 "$(kill -0 $send; echo $?)"

is 'every message arrives' "received $count lost 0 repeated 0" \
  "$("$traffic" check "$far" mixed | tail -n 1)"
wait $send
is 'the sender succeeds' 0 $?

ends_cleanly export $export
ends_cleanly import $import
exported=$(sed -n 's/.*exported //p' "$scratch/export")
has 'the count' "$((count + 1)) messages (*" "$exported"
is 'both report the same count' "$exported" "$(sed -n 's/.*imported //p' "$scratch/import")"
finish
