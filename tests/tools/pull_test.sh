#!/bin/bash
# How a pull ends, and what it leaves.
. "$(dirname "$0")/lib.sh"
e=$(endpoint e)
mkfifo "$(fifo e)"
exec 9<>"$(fifo e)"

# It takes the messages that it shows, and not a byte more.
printf '\x01a\x01b\x43\x01c\x02dd\x01e' >&9
is 'the first two' $'a\nb' "$("$JPIPE" pull "$e" --count 2)"
is 'the third' $'c\tdd' "$("$JPIPE" pull "$e" --count 1)"
is 'the last' e "$("$JPIPE" pull "$e" --timeout 0; echo "$?" >"$scratch/code")"
is 'nothing is left' 124 "$(cat "$scratch/code")"

"$JPIPE" pull "$e" --timeout 0.05
is 'a time limit' 124 $?
"$JPIPE" pull "$e" --timeout 0.05 --count 1
is 'a time limit and a count' 124 $?

# A sender that stops inside a message does not block it for ever.
printf '\x03a' >&9
"$JPIPE" pull "$e" --timeout 0.05 2>"$scratch/err"
is 'a time limit inside a message' 124 $?
has 'it says what is lost' 'jpipe: lost 2 bytes of a message*jpipe drain*' "$(cat "$scratch/err")"

printf '\x45\x81\x01z' >&9
"$JPIPE" pull "$e" 2>"$scratch/err"
is 'bytes that are not a message' 1 $?
has 'it says what to do' 'jpipe: *not a message*jpipe drain*' "$(cat "$scratch/err")"
"$JPIPE" drain "$e" >/dev/null

# A signal ends it; without a count that is the normal end.
for signal in INT TERM HUP; do
  set -m # job control, so that the background job does not ignore SIGINT
  "$JPIPE" pull "$e" 9>&- & # without the test's descriptor: see holds
  pull=$!
  set +m
  until_true holds e $pull
  kill -$signal $pull
  wait $pull
  is "exit code after SIG$signal" 0 $?
done
"$JPIPE" pull "$e" --count 1 9>&- &
pull=$!
until_true holds e $pull
kill -TERM $pull
wait $pull
is 'a signal before the count is reached' 1 $?

# It notices a closed standard output without waiting for another message, and takes no more.
printf '\x01a' >&9
"$JPIPE" pull "$e" 2>"$scratch/err" | head -n 1 >"$scratch/out"
is 'exit codes of pull and head' '0 0' "${PIPESTATUS[*]}"
is 'what head saw' a "$(cat "$scratch/out")"
is 'no complaint' '' "$(cat "$scratch/err")"

# A message that cannot be written is not taken; if one was taken and is lost, pull says so.
printf '\x01a' >&9
"$JPIPE" pull "$e" --count 1 2>"$scratch/err" >/dev/full
is 'a full device' 1 $?
has 'it says so' 'jpipe: cannot write to standard output: No space*' "$(cat "$scratch/err")"
(ulimit -f 0 && "$JPIPE" pull "$e" --count 1 >"$scratch/out") 2>&1 | cat >"$scratch/err"
is 'a full disk' 1 "${PIPESTATUS[0]}"
has 'what is lost' 'jpipe: cannot write*: 1 message that was taken is lost' "$(cat "$scratch/err")"

# A pull that leaves bytes behind says so if they are lost.
printf '\x01a\x01b' >&9
"$JPIPE" pull "$e" --count 1 >"$scratch/out" 2>"$scratch/err"
is 'no warning while another process has it open' '' "$(cat "$scratch/err")"
"$JPIPE" pull "$e" --count 2 9>&- >"$scratch/out" 2>"$scratch/err" &
pull=$!
until_true holds e $pull
kill -STOP $pull
printf '\x01c\x01d' >&9
exec 9>&-
kill -CONT $pull
wait $pull
is 'the messages that were taken' $'b\nc' "$(cat "$scratch/out")"
has 'what is lost' "jpipe: lost 2 bytes waiting in $e,*" "$(cat "$scratch/err")"
exec 9<>"$(fifo e)"
finish
