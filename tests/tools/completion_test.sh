#!/bin/bash
# What the completion offers, and that an endpoint's name is never run as a command.
. "$(dirname "$0")/lib.sh"
jpipe() { "$JPIPE" "$@"; } # under emulation too
. "$(dirname "$0")/../../tools/jpipe.bash"
compopt() { :; } # works only while bash completes

# offers WANTED WORD... - what is offered for the last word
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
offers '--curve-cert --curve-server --curve-clients' jpipe import --cu
offers '' jpipe pull --count ''
offers "ipc://${name}_e" jpipe drain "ipc://$name"
is 'nothing was run' '' "$(ls)"
for option in $(for command in pull push signal drain export import; do
  _jpipe_options $command
done | tr ' ' '\n' | sort -u); do
  has "the help knows $option" "*$option*" "$("$JPIPE" --help)"
done
finish
