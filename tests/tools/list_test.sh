#!/bin/bash
# The list tells endpoint, owner, mode, bytes and processes.
. "$(dirname "$0")/lib.sh"
mkfifo -m 0600 "$(fifo e)"
mkfifo -m 0666 "$run_directory/Jinproc_${name}"
touch "$run_directory/Jipc_${name}_file"
exec 9<>"$(fifo e)"
printf 'abc' >&9
sleep 100 & # inherits the FIFO
sleeper=$!
until_true grep -qx sleep "/proc/$sleeper/comm" # no longer the shell's copy

"$JPIPE" list >"$scratch/list"
is 'exit code' 0 $?
has 'the head' 'ENDPOINT *OWNER *MODE *BYTES *OPEN IN' "$(head -n 1 "$scratch/list")"
row=$(grep "^ipc://${name}_e " "$scratch/list" | tr -s ' ')
has 'an endpoint' "ipc://${name}_e $(id -un) 0600 3 *" "$row"
has 'who has it open' "* $sleeper(sleep)*" "$row"
is 'an endpoint that nobody has open' "inproc://$name $(id -un) 0666 0 -" \
  "$(grep "^inproc://$name " "$scratch/list" | tr -s ' ' | sed 's/ ?$/ -/')"
is 'a file that is no FIFO' 0 "$(grep -c "${name}_file" "$scratch/list")"
finish
