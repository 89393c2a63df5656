#!/bin/bash
# What completion offers, and that it never runs an endpoint's name as a command.
. "$(dirname "$0")/lib.sh"
jpipe() { "$JPIPE" "$@"; } # under emulation too
. "$(dirname "$0")/../../tools/jpipe.bash"
compopt() { :; } # works only while bash completes

# offers WANTED WORD... - checks what is offered for the last WORD
offers() {
  local wanted=$1
  shift
  COMP_WORDS=("$@")
  COMP_CWORD=$(($# - 1))
  _jpipe
  is "completion of $*" "$wanted" "${COMPREPLY[*]}"
}

mkfifo "$(fifo e)" "$run_directory/Jipc_${name}\$(touch $name)"
cd "$scratch" || exit 1
offers 'pull push' jpipe pu
offers '--format --frames' jpipe pull --f
offers 'json' jpipe pull --format j
offers 'json' jpipe pull --format = j
offers '--curve-cert --curve-server --curve-clients' jpipe import --cu
offers "ipc://${name}_e" jpipe drain "ipc://$name"
offers "//${name}_e" jpipe drain ipc : "//$name"
offers "ipc://${name}_e" jpipe import --linger 2 'tcp://*:1' "ipc://$name"
offers "ipc://${name}_e" jpipe pull --progress "ipc://$name"
touch folder-file && mkdir folder
offers 'folder' jpipe import --curve-clients fo
offers 'folder-file' jpipe decode folder-
# Nothing is offered for a value, or after the last operand.
offers '' jpipe pull --count ''
offers '' jpipe pull -t ''
offers '' jpipe push --frames "ipc://$name"
offers '' jpipe signal "ipc://$name/e" ''
offers '' jpipe push "ipc://$name/e" ''
offers '' jpipe push "ipc://$name/e" -- --f
offers '' jpipe pull "ipc://$name/e" ''
offers '' jpipe export "ipc://$name/e" ''
offers '' jpipe list ''
offers '' jpipe nonsense ''
rm -r folder folder-file
is 'nothing was run' '' "$(ls)"
finish
