#!/bin/bash
# Encryption: who holds a certificate that is let in gets through, others do not.
# Here export binds and import connects.
. "$(dirname "$0")/lib.sh"
near=$(endpoint near)
cd "$scratch" || exit 1
mkdir clients
"$JPIPE" keygen server && "$JPIPE" keygen good && "$JPIPE" keygen bad
is 'certificates are made' 0 $?
is 'the secret is private' '-rw-------' "$(ls -l good_secret | cut -c1-10)"
"$JPIPE" keygen good 2>err
is 'a certificate is not overwritten' 1 $?
cp good clients/

start_export "$near" "tcp://$loopback:*" --bind --curve-cert server --curve-clients clients
import() { # CERTIFICATE FAR
  "$JPIPE" import --connect "$address" "$(endpoint "$2")" --curve-cert "$1" --curve-server server 2>"$1.err" &
}
import bad far_bad
bad=$!
until_true holds far_bad $bad
until_true holds near $export
"$JPIPE" push "$near" secret
is 'nothing for who is not let in' 124 "$("$JPIPE" pull "$(endpoint far_bad)" --timeout 0.5 >out; echo $?)"
is 'not even a byte' '' "$(cat out)"
import good far_good
good=$!
is 'all for who is let in' secret "$("$JPIPE" pull "$(endpoint far_good)" --count 1)"
for process in $export $good $bad; do
  kill -TERM $process
  wait $process
  is 'a clean end' 0 $?
done
finish
