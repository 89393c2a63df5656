#!/bin/bash
# A test that is killed leaves no FIFO in the run directory.
. "$(dirname "$0")/lib.sh"
if [ -z "${private_run_directory-}" ]; then
  echo 'skipped: a mount namespace is not allowed here'
  exit 77
fi
cat >"$scratch/killed_test.sh" <<LINES
. "$(dirname "$0")/lib.sh"
mkfifo "\$(fifo killed)" && touch "$scratch/made"
kill -KILL \$\$
LINES
unset private_run_directory
TMPDIR=$scratch bash "$scratch/killed_test.sh" 2>/dev/null
is 'killed' 137 $?
is 'it had made a FIFO' yes "$([ -e "$scratch/made" ] && echo yes)"
is 'it left nothing' '' "$(ls "$run_directory")"
finish
