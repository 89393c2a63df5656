#!/bin/bash
# One message in each format. The message is given as its bytes in the FIFO.
. "$(dirname "$0")/lib.sh"
e=$(endpoint e)
exec 9<>"$(mkfifo "$(fifo e)"; fifo e)"

# shown FORMAT BYTES WANTED - BYTES and WANTED are in printf's notation, newline included.
shown() {
  printf -- "$2" >&9
  "$JPIPE" pull "$e" --format "$1" --count 1 >"$scratch/got"
  printf -- "$3" >"$scratch/wanted"
  is "$1 of $2" "$(od -An -c "$scratch/wanted")" "$(od -An -c "$scratch/got")"
}

shown text '\x03abc' 'abc\n'
shown text '\x45\x02ab\x03cde' 'ab\tcde\n'
shown text '\x03\x00\n\xff' '\x00\n\xff\n'
shown text '\x87' '<signal 7>\n'
shown text '\x40' '\n'
shown quoted '\x45\x02ab\x03cde' '"ab" "cde"\n'
shown quoted '\x08\\"\n\r\t\x00\x7f\xff' '"\\\\\\"\\n\\r\\t\\x00\\x7f\\xff"\n'
shown quoted '\x00' '""\n'
shown quoted '\x40' 'no frames\n'
shown quoted '\xc0\xc8' 'signal 200\n'
shown hex '\x42\x00\x02a\xff' '- 61ff\n'
shown hex '\x40' 'no frames\n'
shown hex '\x81' 'signal 1\n'
shown json '\x45\x02ab\x03cde' '{"frames":["ab","cde"]}\n'
shown json '\x05\x00\n"\\\x7f' '{"frames":["\\u0000\\n\\"\\\\\x7f"]}\n'
shown json '\x09\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80' '{"frames":["\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80"]}\n'
shown json '\x40' '{"frames":[]}\n'
shown json '\x00' '{"frames":[""]}\n'
shown json '\xc0\xff' '{"signal":255}\n'
shown raw '\x45\x02a\x00\x03cde' 'a\x00cde'
shown raw '\x85' ''
# Invalid UTF-8: overlong, a surrogate, above U+10FFFF, cut off, a stray byte.
for bytes in c080 e08080 eda080 f4908080 f09f98 80 c3; do
  escaped=$(sed 's/../\\x&/g' <<<"$bytes")
  shown json "\\x$(printf %02x $((${#bytes} / 2)))$escaped" "{\"frames\":[{\"hex\":\"$bytes\"}]}\n"
done

printf '\x45\x02ab\x03cde' >&9
is 'text with a separator' 'ab, cde' "$("$JPIPE" pull "$e" --count 1 --frames ', ')"
finish
