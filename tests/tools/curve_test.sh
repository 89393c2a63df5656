#!/bin/bash
# Encryption: only a peer with an accepted certificate gets through.
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

# Keys that do not match: each side says why, nothing leaves the endpoint, and the refused
# side fails when its time is up.
said() { until_true grep -q -- "$2" "$scratch/$1"; }
mkfifo "$(fifo near)" && exec {keep}<>"$(fifo near)"
"$JPIPE" push "$near" secret
refused() { # WHAT BIND-OPTIONS CONNECT-OPTIONS SAID-HERE SAID-THERE
  # shellcheck disable=SC2086 # several words
  start_import "tcp://$loopback:*" "$(endpoint far)" $2
  # shellcheck disable=SC2086
  start_export "$near" "$address" $3
  said export "$4"
  said import "$5"
  kill -TERM "$export"
  wait "$export"
  has "$1: nothing is exported" '*exported 0 messages*' "$(cat "$scratch/export")"
  # shellcheck disable=SC2086
  "$JPIPE" export "$near" "$address" $3 --connect-timeout 0.1 2>err
  is "$1: the export fails" 1 $?
  has "$1: and says that it gives up" '*no connection for 0.1 seconds*' "$(cat err)"
  ends_cleanly "$1: import" "$import"
}
server='--curve-cert server --curve-clients clients'
refused 'a certificate that is not accepted' "$server" '--curve-cert bad --curve-server server' \
  'does not accept this certificate' 'not among those in --curve-clients'
refused 'another server' "$server" '--curve-cert good --curve-server bad' \
  'certificate is not the one in --curve-server' 'the keys do not match'
# The side that notices first breaks off, and the other can only guess why.
unequal_here='one side encrypts\|only it encrypts'
unequal_there='one side encrypts\|left without a greeting'
refused 'no encryption in the export' "$server" '' "$unequal_here" "$unequal_there"
refused 'no encryption in the import' '' '--curve-cert good --curve-server server' \
  "$unequal_here" "$unequal_there"
exec {keep}>&-

start_export "$near" "tcp://$loopback:*" --bind $server
"$JPIPE" push "$near" secret
start_import --connect "$address" "$(endpoint far)" --curve-cert good --curve-server server
is 'an accepted certificate gets the message' secret "$("$JPIPE" pull "$(endpoint far)" --count 1)"
ends_cleanly export "$export"
ends_cleanly import "$import"
finish
