#!/bin/bash
# A stop of export and then of import loses nothing: neither what lies in the near FIFO,
# nor what is on its way, nor what waits for a slow reader.
. "$(dirname "$0")/lib.sh"
near=$(endpoint near)
far=$(endpoint far)

start_import "tcp://$loopback:*" "$far"
start_export "$near" "$address"
seq 1 30000 | "$JPIPE" push "$near"
ends_cleanly export $export
kill -TERM $import
"$JPIPE" pull "$far" --count 30000 | cmp - <(seq 1 30000)
is 'every line arrives' '0 0' "${PIPESTATUS[*]}"
wait $import
is 'import ends cleanly' 0 $?

# A far end that is not there: a second signal gives up and tells what is lost.
start_export "$near" "tcp://$loopback:9"
"$JPIPE" push "$near" lost
kill -TERM $export
until_true grep -q 'waiting for the other side' "$scratch/export"
kill -TERM $export
wait $export
is 'export gave up' 1 $?
has 'it tells what is lost' '*exported 1 message, 4 bytes*at most 1, are lost*' "$(cat "$scratch/export")"

# What no export sends is refused, one by one, and what follows still arrives.
start_import "tcp://$loopback:*" "$far"
"$TRAFFIC" foreign ">$address"
is 'the message behind' good "$("$JPIPE" pull "$far" --count 1)"
kill -TERM $import
wait $import
is 'import refused something' 1 $?
is 'it tells each' 3 "$(grep -c 'refused a message' "$scratch/import")"
finish
