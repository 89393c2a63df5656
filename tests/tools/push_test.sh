#!/bin/bash
# What push sends, and when it ends.
. "$(dirname "$0")/lib.sh"
e=$(endpoint e)
mkfifo "$(fifo e)"

# sends WHAT WANTED COMMAND... - checks the messages that the command sends, shown quoted.
sends() {
  local what=$1 wanted=$2
  shift 2
  "$@" &
  is "$what" "$wanted" "$("$JPIPE" pull "$e" --format quoted --count "$(wc -l <<<"$wanted")")"
  wait $!
  is "exit code: $what" 0 $?
}
from() { # TEXT COMMAND... - runs it with TEXT, in printf's notation, on standard input
  printf "$1" | "${@:2}"
}

exec 9<>"$(fifo e)" # keeps the FIFO open, so that push ends at once
sends 'words' '"ab" "" "c d"' "$JPIPE" push "$e" ab '' 'c d'
sends 'a word like an option' '"--x"' "$JPIPE" push "$e" -- --x
sends 'words like lists' '"[1,2]" "{}" "[]"' "$JPIPE" push "$e" '[1,2]' '{}' '[]'
sends 'a negative number' '"-1"' "$JPIPE" push "$e" -1
sends 'one empty word' '""' "$JPIPE" push "$e" ''
sends 'lines' $'"a"\n""\n"b\\x00c"\n"last"' from 'a\n\nb\0c\nlast' "$JPIPE" push "$e"
sends 'lines with frames' $'"a" "b"\n"" "c"\n"d"' from 'a::b\n::c\nd\n' "$JPIPE" push "$e" --frames ::
sends 'a separator like a list' '"a" "b"' from 'a{}b\n' "$JPIPE" push "$e" --frames '{}'
sends 'an option given twice: the last counts' '"a" "b:c"' from 'a-b:c\n' "$JPIPE" push "$e" --frames : --frames -
sends 'a number of lines' $'"1"\n"2"' from '1\n2\n3\n' "$JPIPE" push "$e" --count 2
sends 'a file' '"x\ny\x00"' from 'x\ny\0' "$JPIPE" push "$e" --file -
sends 'signals' 'signal 64' "$JPIPE" signal "$e" 64

# A round trip of every byte value, and of the longest message, which is larger than a FIFO.
for k in {0..255}; do printf "\\x$(printf %02x "$k")"; done >"$scratch/bytes"
head -c 1048576 /dev/urandom >"$scratch/longest"
for file in bytes longest; do
  "$JPIPE" push "$e" --file "$scratch/$file" &
  "$JPIPE" pull "$e" --format raw --count 1 >"$scratch/got"
  wait $!
  is "$file round trip" 0 "$(cmp "$scratch/$file" "$scratch/got" >&2; echo $?)"
done

# A file or line that is too long is refused, and the lines before it are not lost.
echo >>"$scratch/longest"
"$JPIPE" push "$e" --file "$scratch/longest" 2>"$scratch/err"
is 'a file that is too long' 1 $?
has 'it names the limit' 'jpipe: *1048576*split it*' "$(cat "$scratch/err")"
{ echo before; tr '\n' x <"$scratch/longest"; } | "$JPIPE" push "$e" 2>"$scratch/err"
is 'a line that is too long' 1 $?
has 'it names the line' 'jpipe: line 2 of standard input*' "$(cat "$scratch/err")"
is 'the line before arrives' before "$("$JPIPE" pull "$e" --count 1)"
"$JPIPE" push "$e" a '' 2>"$scratch/err"
has 'an empty frame at the end' 'jpipe: an empty frame at the end*' "$(cat "$scratch/err")"
is 'it arrives as a separate message' $'"a"\n""' "$("$JPIPE" pull "$e" --count 2 -f quoted)"

# A full FIFO: the time limit, and what is left.
head -c 100000 /dev/zero | "$JPIPE" push "$e" --file - --timeout 1 2>"$scratch/err"
is 'a full FIFO' 124 $?
has 'half a message' 'jpipe: only 65536 of the 100005 bytes*jpipe drain*' "$(cat "$scratch/err")"
"$JPIPE" drain "$e" >/dev/null

# --no-wait does not wait for room either, and leaves no partial message. Each line: the
# bytes already in the FIFO, the exit code, how many messages are sent before the endpoint is
# full, and the command.
head -c 10000 /dev/zero >"$scratch/large"
printf '%4000d\n' 1 2 >"$scratch/lines"
while read -r waiting code sent words; do
  head -c "$waiting" /dev/zero >&9
  timeout 10 "$JPIPE" ${words/E/$e} --no-wait 2>"$scratch/err" <"$scratch/lines"
  is "exit code of $words with $waiting bytes in the FIFO" "$code" $?
  [ "$code" = 0 ] ||
    has "what $words says" "jpipe: $e is full: a message of *not sent; sent so far: $sent message*" "$(cat "$scratch/err")"
  has "what $words leaves" "*: $((waiting + sent * 4002)) bytes thrown*" "$("$JPIPE" drain "$e")"
done <<LINES
65536 1 0 push E x
65536 1 0 signal E 1
65536 1 0 push E
61440 1 1 push E
57344 0 2 push E
60000 1 0 push E --file $scratch/large
LINES
"$JPIPE" push "$e" --no-wait --file "$scratch/large"
is 'a large message that fits' 0 $?
"$JPIPE" pull "$e" --count 1 --format raw | cmp - "$scratch/large"
is 'it arrives whole' '0 0' "${PIPESTATUS[*]}"
exec 9>&-

# No other process has the FIFO open: push stays, and says so, until its bytes are taken.
said() { grep -q '^jpipe: staying .* waiting in ' "$scratch/$1"; }
printf '1\n2\n3\n' | "$JPIPE" push "$e" 2>"$scratch/err" &
push=$!
until_true said err
for k in 1 2 3; do
  is "message $k, taken by its own pull" $k "$("$JPIPE" pull "$e" --count 1)"
done
wait $push
is 'push ends when all is taken' 0 $?

# Two that wait do not rely on each other to keep their bytes.
for k in 1 2; do
  "$JPIPE" push "$e" x 2>"$scratch/err$k" &
  until_true said err$k
done
is 'what both sent' $'x\nx' "$("$JPIPE" pull "$e" --count 2)"
wait

# push can leave its bytes to a pull that runs until it is stopped, even one that has just
# started or does not read; it stays if the pull will end by itself.
for options in '' '--count 9'; do
  rm -f "$scratch/err"
  # shellcheck disable=SC2086 # none or two words
  "$JPIPE" pull "$e" $options >"$scratch/out" &
  pull=$!
  until_true holds e $pull
  kill -STOP $pull
  "$JPIPE" push "$e" x 2>"$scratch/err" &
  push=$!
  if [ -z "$options" ]; then
    wait $push
    is 'the bytes are left to it' 0 $?
  else
    until_true said err
  fi
  kill -CONT $pull
  until_true grep -q x "$scratch/out"
  wait $push
  kill -TERM $pull
  wait $pull
done

"$JPIPE" push "$e" x --timeout 1 2>"$scratch/err"
is 'the time limit bounds the wait' 124 $?
has 'it says what is lost' '*staying*jpipe: lost 2 bytes*' "$(cat "$scratch/err")"
"$JPIPE" push "$e" x --no-wait 2>"$scratch/err"
is '--no-wait' 0 $?
is '--no-wait is silent' '' "$(cat "$scratch/err")"
"$JPIPE" push "$e" x 2>"$scratch/err" &
push=$!
until_true said err
kill -TERM $push
wait $push
is 'a signal ends the wait' 1 $?
finish
