#!/bin/bash
# How decode explains captured bytes, and every kind of fault.
. "$(dirname "$0")/lib.sh"

printf '\x45\x02ab\x03cde\x10\x04aaaaaaaaaaaaaaaaaaa\x00\xc0\x07\x40' >"$scratch/bytes"
is 'an explanation' '00000000  45                          message of 5 payload bytes
00000001    02                        frame of 2 bytes
00000002    61 62                     "ab"
00000004    03                        frame of 3 bytes
00000005    63 64 65                  "cde"
00000008  10 04                       frame of 20 bytes
0000000a  61 61 61 61 61 61 61 61     "aaaaaaaa"
00000012  61 61 61 61 61 61 61 61     "aaaaaaaa"
0000001a  61 61 61 00                 "aaa\x00"
0000001e  c0 07                       signal 7 (a longer header than needed)
00000020  40                          message without frames
00000021                              end: 4 messages' "$("$JPIPE" decode "$scratch/bytes")"
is 'exit code' 0 $?

# Exit code, the bytes in printf's notation, and the last line of output.
while read -r code bytes wanted; do
  output=$(printf "${bytes/EMPTY/}" | "$JPIPE" decode 2>"$scratch/err")
  is "exit code of $bytes" "$code" $?
  is "end of $bytes" "$wanted" "$(tail -n 1 <<<"$output" | sed 's/\( \) */\1/g')"
  [ "$code" = 0 ] || has "standard error of $bytes" 'jpipe: fault at offset*' "$(cat "$scratch/err")"
done <<'LINES'
0 EMPTY 00000000 end: 0 messages
0 \x22\x00\x01a 00000004 end: 1 message
0 \xff\x07 00000002 end: 1 message
0 \x40\x00\x00 00000003 end: 3 messages
1 \x10 00000001 fault: the bytes end inside a header: 1 byte missing
1 \x30\x00 00000002 fault: the bytes end inside a header: 3 bytes missing
1 \xc0 00000001 fault: the bytes end inside a header: 1 byte missing
1 \x03ab 00000003 fault: the bytes end inside a frame: 1 byte missing
1 \x01a\x45\x02ab 00000006 fault: the bytes end inside a message: 3 payload bytes missing
1 \x30\x00\x10\x00\x01 00000000 fault: the header says 1048577 bytes, but the limit is 1048576
1 \x01a\x70\x80\x00\x00\x00 00000002 fault: the header says 2147483648 bytes, but the limit is 1048576
1 \x45\x06abcdef 00000001 fault: a frame of 6 bytes in a message that only lacks 5
1 \x45\x02ab\x81 00000004 fault: a signal inside a message that still lacks 3 bytes
1 \x41\x41 00000001 fault: a message header inside a message that still lacks 1 byte
LINES

# The largest frame is read, and shown in part.
{ printf '\x30\x00\x10\x00\x00'; head -c 1048576 /dev/zero; } >"$scratch/bytes"
has 'a long frame' '*1048544 more bytes of the frame*end: 1 message' "$("$JPIPE" decode "$scratch/bytes")"
finish
