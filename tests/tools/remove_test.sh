#!/bin/bash
# What remove refuses, and what it throws away.
. "$(dirname "$0")/lib.sh"
e=$(endpoint e)

# removed CODE WANTED ENDPOINT OPTION... - checks what remove says, and its exit code.
removed() {
  local code=$1 wanted=$2
  shift 2
  is "exit code of remove $*" "$code" "$("$JPIPE" remove "$@" >"$scratch/out" 2>&1; echo $?)"
  has "what remove $* says" "$wanted" "$(cat "$scratch/out")"
}
there() { [ -e "$(fifo e)" ] && echo yes || echo no; }

mkfifo "$(fifo e)"
removed 0 "$e: removed, 0 bytes thrown away" "$e"
is 'it is gone' no "$(there)"
removed 1 "jpipe: cannot remove $e: nobody has ever opened it*" "$e"
touch "$(fifo e)"
removed 1 "jpipe: cannot remove $e: * is not a FIFO*" "$e" --force
is 'what is not a FIFO stays' yes "$(there)"
rm "$(fifo e)"

mkfifo "$(fifo e)"
exec 9<>"$(fifo e)"
sleep 100 9>&9 & # inherits the FIFO
printf '\x03abc\x81\x05' >&9
removed 1 "jpipe: cannot remove $e: it is open in *$!(sleep)*--force*" "$e"
is 'it stays, with the bytes in it' '6 yes' \
  "$("$JPIPE" list | awk -v e="ipc://${name}_e" '$1 == e { print $4 }') $(there)"
removed 0 "jpipe: $e was open in *
$e: removed, 6 bytes thrown away: 1 message, 1 signal, and 1 byte outside a whole message" "$e" --force
is 'it is gone with --force' no "$(there)"

# A reader alone, without a writer.
mkfifo "$(fifo e)"
exec 8<>"$(fifo e)" 7<"$(fifo e)" 8>&-
removed 1 "jpipe: cannot remove $e: it is open in *" "$e"
exec 7<&-

# Another user, who sees neither the processes nor the bytes.
as_nobody=(setpriv --reuid 65534 --regid 65534 --clear-groups)
if [ "$(id -u)" = 0 ] && "${as_nobody[@]}" "$JPIPE" --version >/dev/null 2>&1; then
  chmod 0600 "$(fifo e)"
  "${as_nobody[@]}" "$JPIPE" remove "$e" 2>"$scratch/err"
  is 'refused to another user' 1 $?
  has 'it says why' "jpipe: cannot remove $e: it is another user's*--force*" "$(cat "$scratch/err")"
fi
finish
