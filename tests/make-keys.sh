#!/bin/sh
# Makes the test keys in a directory that does not exist yet.
set -eu
rm -rf "$2"
exec "$1" test-keys "$2"
