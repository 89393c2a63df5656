#!/bin/bash
# How a bridge treats peers that are incompatible or hostile.
. "$(dirname "$0")/lib.sh"
near=$(endpoint near)
far=$(endpoint far)
said() { until_true grep -q -- "$2" "$scratch/$1"; }

start_import "tcp://$loopback:*" "$far"

# Both sides report a different version, or a peer that is not an export.
greeting='E0123456789abcdef'
for far_end in "JPB\\x02H$greeting|*version 1*version 2*" "hello|*does not speak jpipe's protocol*" \
  "JPB\\x01HI0123456789abcdef|*both sides are an import*" "JPB\\x01Hshort|*greeting is damaged*" \
  "JPB\\x01D12345678x|*without a greeting*" ; do
  has "the answer to ${far_end%|*}" "${far_end#*|}" \
    "$("$traffic" dealer "$address" "${far_end%|*}")"
done
said import 'refused .*version'
# Data that is not a message; a window grant from an export.
for data in 'D\x00\x00\x00\x00\x00\x00\x00\x01\x05ab|*not a message of an endpoint*' \
  'W0000000000000000|*something no export sends*'; do
  has "the answer to ${data%|*}" "${data#*|}" \
    "$("$traffic" dealer "$address" "JPB\\x01H$greeting" "JPB\\x01${data%|*}")"
done

# An older jpipe uses incompatible sockets: ZeroMQ itself closes the connection.
"$traffic" push "$address" old &
said import 'an older jpipe'
kill $!
wait $!

# An endless message is cut off before it takes much memory, and other peers are still
# served. An emulator does not report how many bytes a connection has received.
if [ -z "${JACTOR_EMULATOR-}" ]; then
  before=$(awk '/VmHWM/ { print $2 }' "/proc/$import/status")
  is 'endless parts' ended "$("$traffic" endless "$address")"
  said import 'does not end'
  after=$(awk '/VmHWM/ { print $2 }' "/proc/$import/status")
  echo "endless parts took $((after - before)) KiB"
  is 'memory is bounded' yes "$([ $((after - before)) -lt 500000 ] && echo yes || echo "$after")"
fi
start_export "$near" "$address"
"$JPIPE" push "$near" good
is 'other peers are still served' good "$("$JPIPE" pull "$far" --count 1)"

# A refused export gives up when its time is up, and leaves its messages in the endpoint.
ends_cleanly export "$export"
ends_cleanly import "$import"
start_export "$near" "tcp://$loopback:*" --bind
"$JPIPE" push "$near" kept
"$JPIPE" export "$(endpoint other)" "$address" 2>"$scratch/refused"
is 'the refused export fails' 1 $?
has 'the refused export says why' '*both sides are an export*no connection for 10 seconds*exported 0 messages*' \
  "$(tr '\n' ' ' <"$scratch/refused")"
start_import --connect "$address" "$far"
is 'the message it left arrives' kept "$("$JPIPE" pull "$far" --count 1)"
ends_cleanly export "$export"
ends_cleanly import "$import"

# More connections than descriptors: existing connections still work, and import does not
# spin.
(
  ulimit -n 40
  exec "$JPIPE" import "tcp://$loopback:*" "$far" 2>"$scratch/few"
) &
few=$!
await_link "$scratch/few"
start_export "$near" "$address"
said few 'has connected'
idle=()
for ((k = 0; k < 200; k++)); do
  { exec {fd}<>"/dev/tcp/$loopback/${address##*:}"; } 2>/dev/null && idle+=("$fd")
done
said few 'too many connections'
ticks() { awk '{ print $14 + $15 }' "/proc/$1/stat"; }
before=$(ticks $few)
"$JPIPE" push "$near" one two
is 'a message gets through' $'one\ttwo' "$("$JPIPE" pull "$far" --count 1)"
"$JPIPE" pull "$(endpoint other)" --timeout 1
spent=$(($(ticks $few) - before))
is 'it does not spin' yes "$([ $spent -lt 50 ] && echo yes || echo "$spent ticks")"
for fd in "${idle[@]}"; do exec {fd}>&-; done
ends_cleanly export $export
start_export "$near" "$address"
"$JPIPE" push "$near" again
is 'connections are accepted again' again "$("$JPIPE" pull "$far" --count 1)"
ends_cleanly export $export
ends_cleanly import $few
finish
