#!/bin/sh
# Makes the test keys anew. Arguments: their directory, then the velmora-pack
# command.
set -eu
keys=$1
shift
rm -rf "$keys"
exec "$@" test-keys "$keys"
