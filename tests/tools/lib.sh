# lib.sh - what the tests of jpipe share. $JPIPE and $TRAFFIC are the programs.
#
# Each test has endpoints, files and background processes of its own, and leaves
# none of them behind.
set -u
run_directory=/var/run/jactor
name=jpipe_test_$$
scratch=$(mktemp -d)
failures=0

mkdir -p "$run_directory" 2>/dev/null
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

# has WHAT PATTERN TEXT - TEXT matches the shell PATTERN.
has() {
  case $3 in
    $2) ;;
    *) is "$1" "$2" "$3" ;;
  esac
}

# until_true COMMAND... - waits until the command succeeds; the test's time limit ends it.
until_true() {
  until "$@" 2>/dev/null; do
    sleep 0.02
  done
}

# holds NAME PID - PID has the endpoint's FIFO open.
holds() {
  local fd
  for fd in "/proc/$2/fd/"*; do
    [ "$fd" -ef "$(fifo "$1")" ] && return 0
  done
  return 1
}

finish() {
  if [ "$failures" -ne 0 ]; then
    echo "$failures failed"
    exit 1
  fi
}
