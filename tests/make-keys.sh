#!/bin/sh
# Makes the test keys anew. Arguments: their directory, then the velmora-pack
# command.
set -eu
keys=$1
shift
rm -rf "$keys"
if ! said=$("$@" test-keys "$keys" 2>&1); then
    echo "$said" >&2
    exit 1
fi
