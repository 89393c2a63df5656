#!/bin/bash
# 100,000 messages of mixed shape through endpoint, export, TCP, import, endpoint:
# every byte and the order are compared. A far end without a reader first stops the
# near one.
. "$(dirname "$0")/lib.sh"
near=$(endpoint near)
far=$(endpoint far)
count=100000

start_import "tcp://$loopback:*" "$far" --hwm 100
start_export "$near" "$address" --hwm 100
"$TRAFFIC" send "$near" "$count" mixed >"$scratch/send" &
send=$!

# Nobody reads at the far end: its FIFO fills, what lies between fills, and in the end
# the near FIFO does. Then nothing moves any more.
waiting() { "$JPIPE" list | awk -v n="ipc://${name}_near" -v f="ipc://${name}_far" \
  '$4 > 0 && ($1 == n || $1 == f)'; }
at_rest() {
  local before
  before=$(waiting)
  sleep 0.3
  [ "$(waiting)" = "$before" ] && [ "$(wc -l <<<"$before")" = 2 ]
}
until_true at_rest
is 'the sender waits for the far end' 0 "$(kill -0 $send; echo $?)"

is 'every message arrives' "received $count lost 0" "$("$TRAFFIC" check "$far" "$count" mixed)"
wait $send
is 'the sender ends' 0 $?

ends_cleanly export $export
ends_cleanly import $import
exported=$(sed -n 's/.*exported //p' "$scratch/export")
has 'the count' "$count messages (*" "$exported"
is 'both count alike' "$exported" "$(sed -n 's/.*imported //p' "$scratch/import")"
finish
