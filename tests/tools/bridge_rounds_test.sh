#!/bin/bash
# Repeatedly stops, kills or cuts off export and import under steady traffic, restarts
# them, and compares what arrives with what was sent. Runs $BRIDGE_ROUNDS rounds of each of
# $BRIDGE_KINDS.
. "$(dirname "$0")/lib.sh"
near=$(endpoint near)
far=$(endpoint far)
rounds=${BRIDGE_ROUNDS:-4}
kinds=${BRIDGE_KINDS:-import_binds export_binds reader_stands import_killed export_killed
  connection_cut link_cut}
window=64

# begin BINDING-SIDE - starts traffic, import and export; BINDING-SIDE binds.
begin() {
  address="tcp://$loopback:*"
  if [ "$1" = import ]; then
    import_link=--bind export_link=--connect
    new_import
    new_export
  else
    import_link=--connect export_link=--bind
    new_export
    new_import
  fi
  "$traffic" check "$far" numbered >"$scratch/check" &
  check=$!
  "$traffic" send "$near" 1000000000 numbered >"$scratch/send" &
  send=$!
}
# new_import LINGER, new_export LINGER
new_import() {
  start_import "$address" "$far" "$import_link" --window $window --linger "${1:-100}"
}
new_export() {
  start_export "$near" "$address" "$export_link" --window $window --linger "${1:-100}"
}

# flows - waits until messages have passed all the way through.
flows() {
  local before
  before=$(wc -l <"$scratch/check")
  until_true more_than $((before + 1))
}
more_than() { [ "$(wc -l <"$scratch/check")" -gt "$1" ] || ! kill -0 "$check"; }

# finally WHAT LOST REPEATED - stops everything, and checks that no more messages than these
# were lost or repeated. The sender stops first, and its last message passes all the way
# through.
finally() {
  kill -TERM "$send"
  wait "$check"
  wait "$send"
  ends_cleanly "$1: export" "$export"
  ends_cleanly "$1: import" "$import"
  figures=$(tail -n 1 "$scratch/check")
  lost=$(sed -n 's/.*lost \([0-9]*\).*/\1/p' <<<"$figures")
  repeated=$(sed -n 's/.*repeated //p' <<<"$figures")
  echo "$1, $rounds rounds: $(cat "$scratch/send"), $figures"
  is "$1: messages lost within the bound" yes "$([ "$lost" -le "$2" ] && echo yes || echo "$lost")"
  is "$1: messages repeated within the bound" yes "$([ "$repeated" -le "$3" ] && echo yes || echo "$repeated")"
}

# Each alone, and both in either order, while the reader runs.
stop_all_ways() { # BINDING-SIDE
  begin "$1"
  for ((round = 0; round < rounds; round++)); do
    flows
    case $((round % 4)) in
      0) ends_cleanly 'import alone' "$import" && new_import ;;
      1) ends_cleanly 'export alone' "$export" && new_export ;;
      2) ends_cleanly 'import before export' "$import"
         ends_cleanly 'export after import' "$export"
         new_export && new_import ;;
      3) ends_cleanly 'export before import' "$export"
         ends_cleanly 'import after export' "$import"
         new_import && new_export ;;
    esac
  done
  finally "stopped, $1 binds" 0 0
}
import_binds() { stop_all_ways import; }
export_binds() { stop_all_ways export; }

# The reader is suspended: the side that is asked to stop still ends, and may have to leave
# messages to the other side.
reader_stands() {
  begin import
  for ((round = 0; round < rounds; round++)); do
    flows
    if ((round % 2)); then
      ends_cleanly 'import' "$import" && new_import 0.1
      flows
      kill -STOP "$check"
      kill -TERM "$import"
      wait "$import"
      new_import
    else
      ends_cleanly 'export' "$export" && new_export 0.1
      flows
      kill -STOP "$check"
      kill -TERM "$export"
      wait "$export"
      new_export
    fi
    kill -CONT "$check"
  done
  finally 'stopped while the reader is suspended' 0 0
}

import_killed() {
  begin import
  for ((round = 0; round < rounds; round++)); do
    flows
    kill -KILL "$import"
    wait "$import" 2>/dev/null
    new_import
  done
  finally 'import killed' 0 $((rounds * window))
}

export_killed() {
  begin import
  for ((round = 0; round < rounds; round++)); do
    flows
    kill -KILL "$export"
    wait "$export" 2>/dev/null
    new_export
  done
  finally 'export killed' $((rounds * window)) 0
}

# The kernel closes the TCP connection, if it can and this user may ask for it.
connection_cut() {
  if [ "$(id -u)" -ne 0 ] || ! ss -K dst 127.255.255.254 >"$scratch/ss" 2>&1; then
    echo 'connections cannot be cut here'
    return
  fi
  begin import
  for ((round = 0; round < rounds; round++)); do
    flows
    ss -K dst "$loopback" >"$scratch/ss" 2>&1
  done
  finally 'connection cut' 0 0
  echo "reconnected $(grep -c again "$scratch/export") times"
}

# Two network namespaces stand for two hosts, if this user may make them. The link between
# them is down for $BRIDGE_CUT seconds, longer than TCP's first retransmissions take.
link_cut() {
  local here there program=$JPIPE rounds=1
  if ! unshare --net true 2>"$scratch/ip"; then
    echo 'the link cannot be cut here'
    return
  fi
  unshare --net sleep 1000 &
  here=$!
  unshare --net sleep 1000 &
  there=$!
  until_true apart $here
  until_true apart $there
  if ! ip link add cable_$$ netns $here type veth peer name cable_$$ netns $there; then
    echo 'the link cannot be cut here'
    return
  fi
  on $here ip address add 10.0.0.1/30 dev cable_$$
  on $there ip address add 10.0.0.2/30 dev cable_$$
  on $here ip link set cable_$$ up
  on $there ip link set cable_$$ up
  JPIPE='on_its_host' host=$there
  start_import tcp://10.0.0.2:5555 "$far" --bind --window $window --linger 100
  host=$here
  start_export "$near" tcp://10.0.0.2:5555 --connect --window $window --linger 100
  JPIPE=$program
  "$traffic" check "$far" numbered >"$scratch/check" &
  check=$!
  "$traffic" send "$near" 1000000000 numbered >"$scratch/send" &
  send=$!
  flows
  on $here ip link set cable_$$ down
  sleep "${BRIDGE_CUT:-1}" # the outage under test
  on $here ip link set cable_$$ up
  flows
  finally 'link cut' 0 0
  kill $here $there
}
on() { nsenter --net="/proc/$1/ns/net" -- "${@:2}"; }
on_its_host() { exec nsenter --net="/proc/$host/ns/net" -- "$program" "$@"; }
apart() { ! [ "/proc/$1/ns/net" -ef /proc/self/ns/net ]; }

for kind in $kinds; do
  $kind
done
finish
