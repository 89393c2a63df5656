# lib.sh - what the tests of jpipe share. $JPIPE is the program.
#
# Each test has its own endpoints, files and background processes, and leaves none of
# them behind.
set -u
run_directory=/var/run/jactor
mkdir -p "$run_directory" 2>/dev/null

# If that is allowed, the test restarts in a mount namespace with its own run directory,
# so that nothing is left there however the test ends.
if [ -z "${private_run_directory-}" ]; then
  own_namespace=(unshare --mount)
  [ "$(id -u)" -eq 0 ] || own_namespace+=(--map-root-user)
  own_mount=(mount -t tmpfs -o mode=2777 jactor "$run_directory")
  if "${own_namespace[@]}" "${own_mount[@]}" 2>/dev/null; then
    # shellcheck disable=SC2016 # for the shell in the namespace
    private_run_directory=yes exec "${own_namespace[@]}" bash -c '"$@" && exec bash "$0"' "$0" "${own_mount[@]}"
  fi
fi

name=jpipe_test_$$
traffic=$(dirname "$0")/traffic.py
scratch=$(mktemp -d)
failures=0
# A loopback address that no other test uses, so that ZeroMQ cannot give the port of a
# program that was killed to another test.
loopback=127.$((1 + ($$ >> 16))).$(($$ >> 8 & 255)).$(($$ & 255))

if ! [ -w "$run_directory" ]; then
  echo "skipped: $run_directory cannot be written"
  exit 77
fi

clean_up() {
  local jobs
  set +f
  jobs=$(jobs -p)
  if [ -n "$jobs" ]; then
    kill -KILL $jobs 2>/dev/null
    wait 2>/dev/null
  fi
  rm -rf "$scratch" "$run_directory/Jipc_$name"* "$run_directory/Jinproc_$name"*
}
trap clean_up EXIT

# endpoint NAME - an endpoint of this test; fifo NAME - its FIFO.
endpoint() { echo "ipc://$name/$1"; }
fifo() { echo "$run_directory/Jipc_${name}_$1"; }

# is WHAT WANTED GOT
is() {
  if [ "$2" != "$3" ]; then
    failures=$((failures + 1))
    printf 'FAILED: %s\n  wanted: %s\n  got:    %s\n' "$1" "$2" "$3"
  fi
}

# has WHAT PATTERN TEXT - TEXT must match the shell PATTERN.
has() {
  case $3 in
    $2) ;;
    *) is "$1" "$2" "$3" ;;
  esac
}

# until_true COMMAND... - waits until the command succeeds, or the test's time limit ends it.
until_true() {
  until "$@" 2>/dev/null; do
    sleep 0.02
  done
}

# holds NAME PID - whether PID is no longer the shell and has the endpoint's FIFO open.
holds() {
  local fd
  [ "/proc/$2/exe" -ef /proc/self/exe ] && return 1
  for fd in "/proc/$2/fd/"*; do
    [ "$fd" -ef "$(fifo "$1")" ] && return 0
  done
  return 1
}

# start_import ADDRESS ENDPOINT OPTION..., start_export ENDPOINT ADDRESS OPTION... - start
# one. $import or $export is its process, $scratch/import or $scratch/export its standard
# error, $address the address that it binds or connects to.
start_import() {
  rm -f "$scratch/import"
  "$JPIPE" import "$@" 2>"$scratch/import" &
  import=$!
  await_link "$scratch/import"
}
start_export() {
  rm -f "$scratch/export"
  "$JPIPE" export "$@" 2>"$scratch/export" &
  export=$!
  await_link "$scratch/export"
}
await_link() { # FILE
  until_true grep -qE 'bound to|connecting to' "$1"
  address=$(sed -nE 's/.*(bound to|connecting to) //p' "$1")
}

# ends_cleanly WHAT PID - asks it to stop, and checks its exit code.
ends_cleanly() {
  kill -TERM "$2"
  wait "$2"
  is "$1 ends cleanly" 0 $?
}

finish() {
  if [ "$failures" -ne 0 ]; then
    echo "$failures failed"
    exit 1
  fi
}
