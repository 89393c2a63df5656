#!/bin/bash
# A stop of export and then of import loses nothing: neither what lies in the near FIFO,
# nor what is on its way, nor what waits for a slow reader.
. "$(dirname "$0")/lib.sh"
near=$(endpoint near)
far=$(endpoint far)

"$JPIPE" import 'tcp://127.0.0.1:*' "$far" 2>"$scratch/import" &
import=$!
until_true grep -q 'bound to' "$scratch/import"
address=$(sed -n 's/.*bound to //p' "$scratch/import")
"$JPIPE" export "$near" "$address" 2>"$scratch/export" &
export=$!
until_true holds near $export
seq 1 30000 | "$JPIPE" push "$near"
kill -TERM $export
wait $export
is 'export ends cleanly' 0 $?
kill -TERM $import
"$JPIPE" pull "$far" --count 30000 | cmp - <(seq 1 30000)
is 'every line arrives' '0 0' "${PIPESTATUS[*]}"
wait $import
is 'import ends cleanly' 0 $?

# A far end that is not there: a second signal gives up and tells what is lost.
"$JPIPE" export "$near" tcp://127.0.0.1:9 2>"$scratch/export" &
export=$!
until_true holds near $export
"$JPIPE" push "$near" lost
kill -TERM $export
until_true grep -q 'waiting for the other side' "$scratch/export"
kill -TERM $export
wait $export
is 'export gave up' 1 $?
has 'it tells what is lost' '*exported 1 message, 4 bytes*at most 1, are lost*' "$(cat "$scratch/export")"

# What no export sends is refused, one by one, and what follows still arrives.
"$JPIPE" import 'tcp://127.0.0.1:*' "$far" 2>"$scratch/refusing" &
import=$!
until_true grep -q 'bound to' "$scratch/refusing"
"$TRAFFIC" foreign ">$(sed -n 's/.*bound to //p' "$scratch/refusing")"
is 'the message behind' good "$("$JPIPE" pull "$far" --count 1)"
kill -TERM $import
wait $import
is 'import refused something' 1 $?
is 'it tells each' 3 "$(grep -c 'refused a message' "$scratch/refusing")"
finish
