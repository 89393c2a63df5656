#!/bin/bash
# What drain reports for the bytes in the FIFO.
. "$(dirname "$0")/lib.sh"
e=$(endpoint e)
mkfifo "$(fifo e)"
exec 9<>"$(fifo e)"

# drained BYTES WANTED
drained() {
  printf "$1" >&9
  local said
  said=$("$JPIPE" drain "$e")
  is "exit code after $1" 0 $?
  is "what $1 was" "$e: $2" "$said"
  is "what is left of $1" "$e: 0 bytes thrown away" "$("$JPIPE" drain "$e")"
}
drained '' '0 bytes thrown away'
drained '\x03abc\x81' '5 bytes thrown away: 1 message, 1 signal'
drained '\x45\x02ab\x03cde\x40\xc0\xc8' '11 bytes thrown away: 2 messages, 1 signal'
drained '\x03abc\x45\x02ab' \
  '8 bytes thrown away: 1 message, 0 signals, and 4 bytes outside a whole message'
drained '\x05a' '2 bytes thrown away: 0 messages, 0 signals, and 2 bytes outside a whole message'
drained '\x01a\x30\xff\xff\xff\xff\x01b\x01c' \
  '11 bytes thrown away: 1 message, 0 signals, and 9 bytes outside a whole message'

# A full FIFO, which is read in more than one piece.
head -c 65536 /dev/zero | tr '\0' '\377' >&9
has 'a full FIFO' '*: 65536 bytes thrown away: 0 messages, 32768 signals' "$("$JPIPE" drain "$e")"

printf '\x03abc\x81\x05' >&9
is 'the messages themselves' $'{"frames":["abc"]}\n{"signal":1}' \
  "$("$JPIPE" drain "$e" --format json 2>"$scratch/err")"
has 'the tally on standard error' "jpipe: $e: 6 bytes thrown away*" "$(cat "$scratch/err")"

"$JPIPE" drain "$(endpoint none)" 2>"$scratch/err"
is 'no such endpoint' 1 $?
is 'it is not made' no "$([ -e "$(fifo none)" ] && echo yes || echo no)"
touch "$(fifo file)"
"$JPIPE" drain "$(endpoint file)" 2>"$scratch/err"
is 'not a FIFO' 1 $?
finish
