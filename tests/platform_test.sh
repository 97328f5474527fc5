#!/usr/bin/env bash
# The header beside a platform's. Arguments: include/, the folder of the
# platform's header, compiler with its options.
set -euo pipefail
include=$1 platform=$2
shift 2
compiler=("$@" -std=c++20 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -x c++ -)
ours='#include <velmora.hpp>'
theirs='#include <xyz/openbmc_project/Software/Version/common.hpp>'
use='auto purpose = ValidateQOR::VersionPurpose::LEAKMCU;'

# compiles TEXT OPTION...
compiles() {
    local text=$1
    shift
    "${compiler[@]}" -I "$include" "$@" <<<"$text"
}
compiles "$ours"$'\n'"$use"
for both in "$ours"$'\n'"$theirs" "$theirs"$'\n'"$ours"; do
    compiles "$both"$'\n'"$use" -I "$platform" -DWITH_ENTRIES
done
compiles "$ours"$'\n'"$use" -I "$platform" -DVELMORA_OWN_VERSION
for lacking in -DWITHOUT_ENTRIES -DWITHOUT_RELEASE_TYPE; do
    if errors=$(compiles "$ours" -I "$platform" $lacking 2>&1); then
        echo 'a header without the entries compiles'
        exit 1
    fi
    if [ "$(grep -c 'error: ' <<<"$errors")" -ne 1 ] ||
        ! grep -q 'error: .*define VELMORA_OWN_VERSION' <<<"$errors"; then
        echo "not one clear error: $errors"
        exit 1
    fi
done
