#!/bin/bash
# The import side is killed in the middle and started again. Lost is what it had
# taken from the network and not yet written to its endpoint, and what the network
# held for it; all else arrives unharmed and in order: what lies in the FIFOs, what
# export and ZeroMQ hold at the near side, and what is sent while import is gone.
. "$(dirname "$0")/lib.sh"
near=$(endpoint near)
far=$(endpoint far)
count=40000
pause=5000

start_import "tcp://$loopback:*" "$far" --hwm 50
start_export "$near" "$address" --hwm 50
mkfifo "$scratch/go"
"$TRAFFIC" check "$far" "$count" numbered "$pause" <>"$scratch/go" >"$scratch/check" &
check=$!
until_true holds far $check
"$TRAFFIC" send "$near" "$count" numbered >"$scratch/send" &
send=$!

# The reader pauses in the middle. It keeps the far FIFO open, so that what lies
# there outlives import.
until_true grep -q paused "$scratch/check"
kill -KILL $import
wait $import 2>/dev/null
is 'messages are still to be sent when import dies' 0 "$(kill -0 $send; echo $?)"
echo >"$scratch/go"
start_import "$address" "$far" --hwm 50
wait $check
is 'what arrives is unharmed and in order' 0 $?
wait $send

gaps=$(grep -c missing "$scratch/check")
lost=$(sed -n 's/.*lost //p' "$scratch/check")
cat "$scratch/check"
has 'one gap at most' '[01]' "$gaps"
# 50 messages in ZeroMQ, and some megabytes of 1,500 bytes each in the network.
is 'the loss stays within what was under way' yes "$([ "$lost" -lt $((count / 2)) ] && echo yes || echo "$lost")"
ends_cleanly export $export
ends_cleanly import $import
finish
