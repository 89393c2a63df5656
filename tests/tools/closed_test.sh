#!/bin/bash
# Standard input, output or error may be closed: no message is lost, and nothing that
# jpipe opens takes their place.
. "$(dirname "$0")/lib.sh"
e=$(endpoint e)
mkfifo "$(fifo e)"
exec 9<>"$(fifo e)"

# Exit code, what the endpoint holds afterwards, and the command line. E stands for the
# endpoint, which holds a message "m" beforehand.
while IFS='|' read -r code left command; do
  "$JPIPE" drain "$e" >/dev/null
  printf '\x01m' >&9
  eval "\"\$JPIPE\" ${command//E/$e}" 2>"$scratch/err"
  is "exit code of: $command" "$code" $?
  is "what is left by: $command" "$left" "$("$JPIPE" drain -f quoted "$e" 2>/dev/null | tr '\n' ' ')"
  [[ $code = 0 || $command = *'2>&-'* ]] ||
    has "standard error of: $command" 'jpipe: cannot *: it is closed*' "$(cat "$scratch/err")"
done <<'LINES'
1|"m" |--version >&-
1|"m" |list >&-
1|"m" |pull E -n 1 >&-
1|"m" |pull E -n 1 <&- >&- 2>&-
0||pull E -n 1 2>&- >/dev/null
0||pull E -n 1 <&- >/dev/null
1|"m" |drain E >&-
1|"m" |drain E -f hex <&- >&-
1|"m" |push E <&-
0|"m" "a" "" |push E a "" <&- >&- 2>&-
0|"m" "a" "" |push E a "" 2>&-
0|"m" signal 1 |signal E 1 <&- >&-
1|"m" |decode <&-
LINES

# pull still ends when asked to.
"$JPIPE" pull "$e" 9>&- <&- 2>&- >/dev/null &
pull=$!
until_true holds e $pull
ends_cleanly 'pull without standard input and error' $pull
finish
