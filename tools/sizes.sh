#!/bin/bash
# sizes.sh: builds the release for small devices for amd64 and for 32-bit PowerPC and prints the
# size of each program and library, in bytes: code and constants, data, zeroed data, and the file.
set -u
cd "$(dirname "$(readlink -f "$0")")/.." || exit 1
. tools/setup.sh
# shellcheck disable=SC2086
need_packages $build_packages $powerpc_packages binutils
tools/cross_sysroot.sh || exit 1

printf '%-10s%-14s%10s%10s%10s%10s\n' machine file text data bss file
for preset in small powerpc; do
    configure "$preset"
    build "$preset" tandrel tandrelctl tavd tav_tool tav tavxx
    machine=amd64
    tool=size
    [ "$preset" = small ] || { machine=powerpc tool=powerpc-linux-gnu-size; }
    for file in tandrel ctl/tandrelctl platform/tav/{libtav.so.0,libtav++.so.0,tavd,tav}; do
        "$tool" "build/$preset/$file" | awk -v machine="$machine" -v name="${file##*/}" \
            -v bytes="$(stat -Lc %s "build/$preset/$file")" \
            'NR == 2 { printf "%-10s%-14s%10d%10d%10d%10d\n", machine, name, $1, $2, $3, bytes }'
    done
done
