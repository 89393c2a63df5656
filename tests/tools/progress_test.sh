#!/bin/bash
# The progress line on a terminal.
. "$(dirname "$0")/lib.sh"
e=$(endpoint e)
mkfifo "$(fifo e)"
exec 9<>"$(fifo e)"
terminal="$(dirname "$0")/terminal.py"

# drawn FILE - what the line shows each time it is drawn
drawn() { tr '\r' '\n' <"$1" | sed -n 's/^\x1b\[K\([0-9]\)/\1/p'; }
# on_screen FILE - the lines that stay on the screen
on_screen() { sed -E 's/\r$//; s/.*\r\x1b\[K//' "$1"; }

# Without a reader the line is still redrawn, and is never wider than the terminal.
head -c 65536 /dev/zero >&9
python3 "$terminal" 40 20 "$JPIPE" push "$e" x --progress >"$scratch/out" &
push=$!
ticks() { [ "$(drawn "$scratch/out" | grep -c '^0 messages, 0 bytes')" -ge "$1" ]; }
until_true ticks 4
kill -TERM $push
wait $push
is 'the exit code on a full endpoint' 1 $?
is 'the line fits before a resize' '' "$(drawn "$scratch/out" | grep -E '.{40}')"
is 'the line fits after a resize' '' "$(drawn "$scratch/out" | tail -n +2 | grep -E '.{20}')"
"$JPIPE" drain "$e" >/dev/null

# Messages and notes on the same terminal get lines of their own.
shown() { drawn "$scratch/out" | grep -q "^$1 message"; }
python3 "$terminal" 80 "$JPIPE" pull "$e" --progress --count 3 9>&- >"$scratch/out" &
pull=$!
until_true shown 0
printf '\x01a' >&9
until_true shown 1
printf '\x01b' >&9
until_true shown 2
printf '\x01c' >&9
wait $pull
is 'the messages' $'a\nb\nc' "$(on_screen "$scratch/out" | head -n 3)"
has 'the last line' '3 messages, 3 bytes, *messages/s*' "$(on_screen "$scratch/out" | tail -n +4)"
exec 9>&-
python3 "$terminal" 80 "$JPIPE" push "$e" x --progress >"$scratch/out" &
push=$!
until_true grep -q staying "$scratch/out"
kill -TERM $push
wait $push
has 'a note' $'jpipe: staying *2 bytes waiting in*\njpipe: lost 2 bytes *\n1 message, *' "$(on_screen "$scratch/out")"

# An unfinished line of output is left alone.
exec 9<>"$(fifo e)"
printf '\x01a\x01b' >&9
python3 "$terminal" 80 "$JPIPE" pull "$e" --progress --format raw --count 2 >"$scratch/out"
has 'raw bytes' $'ab\n2 messages, *' "$(on_screen "$scratch/out")"

printf '\x01c' >&9
"$JPIPE" pull "$e" --count 1 --progress 2>"$scratch/err" >/dev/null
is 'no progress without a terminal' '' "$(cat "$scratch/err")"
finish
