#!/bin/bash
# build_against.sh SOURCE-DIR COMPILER: builds the daemon against the second provider of the store's
# client library, and runs it with that library in its own network namespace.
set -u
source_dir=$1
compiler=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { printf 'FAILED: %s\n' "$*" >&2; exit 1; }

prefix=$work/kit
mkdir -p "$prefix/include" "$prefix/lib"
cp -r "$source_dir/tests/provider/kit/tav" "$prefix/include/"
"$compiler" -std=c++17 -shared -fPIC -I"$prefix/include" -Wl,-soname,libtav.so \
    -o "$prefix/lib/libtav.so" "$source_dir/tests/provider/lib/mlr.cpp" || fail "libtav.so"
"$compiler" -std=c++17 -shared -fPIC -I"$prefix/include" -Wl,-soname,libtav++.so \
    -o "$prefix/lib/libtav++.so" "$source_dir/tests/provider/lib/toolkit.cpp" || fail "libtav++.so"

# A prefix that lacks something is refused with a sentence that names it. refused PREFIX TEXT
refused() {
    rm -rf "$work/refused"
    cmake -S "$source_dir" -B "$work/refused" -G Ninja -DCMAKE_CXX_COMPILER="$compiler" \
        -DTAV_ROOT="$1" >"$work/log" 2>&1 && fail "accepted: $1"
    tr -s ' \n' ' ' <"$work/log" | grep -qF "$2" || { cat "$work/log"; fail "not said of $1: $2"; }
}
mkdir "$work/empty"
refused "$work/empty" 'not complete: include/tav/mlr.h, include/tav/toolkit.h, lib/libtav.so, lib/libtav++.so not found there.'
cp -r "$prefix" "$work/other-header"
sed -i 's/int events_get(/int events_fetch(/' "$work/other-header/include/tav/toolkit.h"
refused "$work/other-header" 'do not declare what the daemon uses: error: '
cp -r "$prefix" "$work/fewer-functions"
cp "$prefix/lib/libtav.so" "$work/fewer-functions/lib/libtav++.so"
refused "$work/fewer-functions" 'lack functions that the daemon calls:'
grep -qF 'toolkit::CTav::watchdog_ping(api_status_t&)' "$work/log" || fail "the function is not named"
cp -r "$prefix" "$work/other-machine"
as --32 -o "$work/empty.o" /dev/null || fail "an i386 object"
ld -m elf_i386 -shared -o "$work/other-machine/lib/libtav.so" "$work/empty.o" || fail "an i386 library"
refused "$work/other-machine" 'are for another machine than'

cmake -S "$source_dir" -B "$work/build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DTAV_ROOT="$prefix" \
    -DCMAKE_CXX_FLAGS_DEBUG=-O0 \
    -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_INSTALL_PREFIX="$work/installed" >"$work/log" 2>&1 || { cat "$work/log"; fail configure; }
cmake --build "$work/build" --parallel 2 >"$work/log" 2>&1 || { cat "$work/log"; fail build; }
cmake --install "$work/build" >"$work/log" 2>&1 || { cat "$work/log"; fail install; }

installed=$(cd "$work/installed" && find . -type f -path '*bin/*' | sort | tr '\n' ' ')
[ "$installed" = "./bin/tandrelctl ./sbin/tandrel " ] || fail "installed: $installed"
ldd "$work/build/tandrel" | grep -qF "$prefix/lib/libtav.so" || fail "not linked with this libtav.so"
ldd "$work/build/tandrel" | grep -qF "$prefix/lib/libtav++.so" || fail "not linked with this libtav++.so"

spaces=(--net)
[ "$(id -u)" -eq 0 ] || spaces+=(--user --map-root-user)
unshare "${spaces[@]}" bash -s "$work" <<'INSIDE' || fail "the daemon did not work with it"
work=$1
ip link add eth0 type veth peer name peer0
ip link set peer0 up
ip link set eth0 up
"$work/build/tandrel" -d >"$work/written" 2>"$work/tandrel.log" &
daemon=$!
done=no
for ((i = 0; i < 200; i++)); do
    if ip -6 address show dev eth0 | grep -q '2001:db8:77::1/64' &&
        grep -q '^set .*/Interface/1/IPv6/Addresses/1/Type/Value Link-Local$' "$work/written"; then
        done=yes
        break
    fi
    sleep 0.1
done
# The tool reads the same through the same library.
shown=$("$work/build/ctl/tandrelctl" show eth0)
grep -q '^= 2001:db8:77::1/64  *2001:db8:77::1/64  *Static  *kit\b' <<<"$shown" || { echo "$shown"; done=no; }
shown=$("$work/build/ctl/tandrelctl" status)
grep -q "^keeper:   this needs tavd, and tandrelctl was built for another provider's store\$" <<<"$shown" || { echo "$shown"; done=no; }
kill -TERM "$daemon"
wait "$daemon" || { echo "exit status $?"; done=no; }
if [ "$done" = no ]; then
    ip -6 address show dev eth0
    cat "$work/written" "$work/tandrel.log"
    exit 1
fi
INSIDE
echo "built and run against $prefix"
