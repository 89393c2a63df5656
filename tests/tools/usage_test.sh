#!/bin/bash
# Help and version go to standard output and succeed; any mistake in a command line gives
# exit code 2 and a line on standard error that begins with "jpipe:".
. "$(dirname "$0")/lib.sh"
set -f

for words in --help -h 'pull --help' 'export -h' --version; do
  output=$("$JPIPE" $words 2>"$scratch/err")
  is "exit code of $words" 0 $?
  is "standard error of $words" '' "$(cat "$scratch/err")"
  has "standard output of $words" '*jpipe*' "$output"
done
for command in pull push signal list drain remove decode export import keygen; do
  has "the help of $command" "jpipe $command: *Usage: jpipe $command \[OPTION...\]*-h,--help *Example: jpipe $command*" \
    "$("$JPIPE" $command --help)"
done
has 'the version' 'jpipe [0-9]*.[0-9]*.[0-9]*' "$("$JPIPE" --version)"

# Exit code and command line. E stands for an endpoint that was never opened.
while read -r code words; do
  output=$("$JPIPE" ${words//E/ipc://$name/none} 2>"$scratch/err" </dev/null)
  is "exit code of: $words" "$code" $?
  is "standard output of: $words" '' "$output"
  has "standard error of: $words" 'jpipe: *' "$(cat "$scratch/err")"
done <<'LINES'
2
2 nonsense
2 pull
2 pull E E
2 pull --nonsense E
2 pull -x E
2 pull --file x E
2 pull --count E
2 pull E --count
2 pull --count= E
2 push --frames= E E
2 pull --count 0 E
2 pull --count -1 E
2 pull --count 1x E
2 pull --count 18446744073709551616 E
2 pull --timeout soon E
2 pull --timeout -1 E
2 pull --timeout inf E
2 pull --timeout 1e3 E
2 pull --timeout 10000000000 E
2 pull --progress=1 E
2 pull --format xml E
2 pull tcp://x
2 pull ipc://
2 pull ://x
2 pull IPC://x
2 pull ipc://a,ipc://b
2 push E word --file x
2 push E word --count 1
2 push E --file x --frames ,
2 push E --frames=
1 push E --file /nonexistent/file
2 signal E
2 signal E 256
2 signal E -- -1
2 signal E 0x1
2 list E
1 drain E
1 remove E
2 remove
2 drain E --force
2 decode a b
1 decode /nonexistent/file
2 export E
2 export E http://host:1
2 export E tcp://host
2 export E tcp://host:
2 export E tcp://host:70000
2 export E tcp://*:5000
2 export tcp://host:5000 E
2 export E tcp://host:1 --window 0
2 export E tcp://host:1 --bind --connect
2 export E tcp://host:1 --curve-cert x
2 export E tcp://host:1 --curve-server x
2 import tcp://*:1 E --curve-cert x
2 import tcp://*:1 E --curve-cert x --curve-server y
1 import tcp://*:1 E --curve-cert /nonexistent/file --curve-clients *
1 export E tcp://host:1 --curve-cert /nonexistent/file --curve-server x
1 keygen /nonexistent/file
LINES
finish
