#!/bin/bash
# list shows each endpoint's name, owner, mode, bytes and processes.
. "$(dirname "$0")/lib.sh"
mkfifo -m 0600 "$(fifo e)"
mkfifo -m 0666 "$run_directory/Jinproc_${name}"
touch "$run_directory/Jipc_${name}_file"
exec 9<>"$(fifo e)"
printf 'abc' >&9
sleep 100 & # inherits the FIFO
sleeper=$!
until_true grep -qx sleep "/proc/$sleeper/comm" # no longer a copy of the shell

"$JPIPE" list >"$scratch/list"
is 'exit code' 0 $?
has 'the heading' 'ENDPOINT *OWNER *MODE *BYTES *OPEN IN' "$(head -n 1 "$scratch/list")"
row=$(grep "^ipc://${name}_e " "$scratch/list" | tr -s ' ')
has 'an endpoint' "ipc://${name}_e $(id -un) 0600 3 *" "$row"
has 'who has it open' "* $sleeper(sleep)*" "$row"
is 'an endpoint that no process has open' "inproc://$name $(id -un) 0666 0 -" \
  "$(grep "^inproc://$name " "$scratch/list" | tr -s ' ' | sed 's/ ?$/ -/')"
is 'a file that is not a FIFO' 0 "$(grep -c "${name}_file" "$scratch/list")"

"$JPIPE" list --json >"$scratch/json"
is 'exit code of --json' 0 $?
python3 - "$scratch/json" "ipc://${name}_e" "$sleeper" "$(id -un)" <<'CHECK'
import json, sys
file, endpoint, sleeper, owner = sys.argv[1:]
entry, = [e for e in map(json.loads, open(file)) if e["endpoint"] == endpoint]
assert {"pid": int(sleeper), "program": "sleep"} in entry.pop("open_in"), entry
assert isinstance(entry.pop("open_in_complete"), bool), entry
assert entry == {"endpoint": endpoint, "owner": owner, "mode": "0600", "bytes": 3}, entry
CHECK
is 'the JSON' 0 $?

# A watch keeps the list up to date until it is stopped.
"$JPIPE" list --watch >"$scratch/out" 2>"$scratch/err"
is 'a watch without a terminal' 2 $?
python3 "$(dirname "$0")/terminal.py" 200 "$JPIPE" list --watch >"$scratch/watched" &
watch=$!
for bytes in 3 6; do
  until_true grep -qE "^ipc://${name}_e .* 0600 +$bytes +" "$scratch/watched"
  printf 'def' >&9
done
ends_cleanly 'a watch' $watch
finish
