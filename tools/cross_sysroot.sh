#!/bin/bash
# cross_sysroot.sh: builds the libraries for 32-bit PowerPC, which Debian has only as source
# packages, into build/cache/powerpc-sysroot. Does nothing if they exist and neither this file nor
# the compiler has changed.
set -u
cd "$(dirname "$(readlink -f "$0")")/.." || exit 1
. tools/setup.sh

host=powerpc-linux-gnu
root=$PWD/build/cache/powerpc-sysroot
work=$PWD/build/cache/powerpc-sources
tree=$PWD
jobs=$(nproc)
# shellcheck disable=SC2086
need_packages $build_packages $powerpc_packages
wanted="$(dpkg-query -W -f='${Version}' g++-$host) $(sha256sum <"$0")"
[ "$(cat "$root/built-from" 2>/dev/null)" = "$wanted" ] && exit 0

# Copies the machine's package sources to a separate directory, for source packages instead of
# binary ones. There are two formats of such files.
own_sources() {
    mkdir -p "$work/apt/sources.list.d" "$work/apt/lists/partial" "$work/apt/cache/archives/partial"
    local file
    for file in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
        [ -f "$file" ] && sed -En 's/^[[:space:]]*deb([[:space:]])/deb-src\1/p' "$file" \
            >"$work/apt/sources.list.d/${file##*/}"
    done
    for file in /etc/apt/sources.list.d/*.sources; do
        [ -f "$file" ] && sed -E 's/^Types:.*/Types: deb-src/I' "$file" \
            >"$work/apt/sources.list.d/${file##*/}"
    done
    return 0
}

# Runs apt-get with those sources. Needs no root, and does not change the machine's own lists.
own_apt() {
    apt-get -q -o Dir::Etc::sourcelist=/dev/null -o Dir::Etc::sourceparts="$work/apt/sources.list.d" \
        -o Dir::State::lists="$work/apt/lists" -o Dir::Cache="$work/apt/cache" \
        -o Debug::NoLocking=true -o APT::Sandbox::User=root "$@"
}

fetch() {
    own_sources
    own_apt update || true # a source that fails may not be needed
    cd "$work" && own_apt source --download-only libnl3 sqlite3 || return
    dpkg-source -x libnl3_*.dsc libnl && dpkg-source -x sqlite3_*.dsc sqlite
}

# The core library, and libnl-route for the tests.
build_libnl() {
    cd "$work/libnl" || return
    ./configure --host=$host --prefix=/usr --sysconfdir=/etc --disable-cli --disable-static || return
    local no_autotools=(ACLOCAL=: AUTOCONF=: AUTOMAKE=: AUTOHEADER=:)
    local libraries=(lib/libnl-3.la lib/libnl-route-3.la)
    make "${no_autotools[@]}" -j"$jobs" "${libraries[@]}" &&
        make "${no_autotools[@]}" DESTDIR="$root" lib_LTLIBRARIES="${libraries[*]}" \
            install-libLTLIBRARIES install-libnlinclude_netlinkHEADERS \
            install-libnlinclude_netlink_routeHEADERS \
            install-libnlinclude_netlink_route_linkHEADERS install-pkgconfigDATA
}

# One C file, generated on this machine. It calls the same functions of the system as the packaged one.
build_sqlite() {
    cd "$work/sqlite" || return
    ./configure --disable-tcl --disable-readline && make sqlite3.c sqlite3.h sqlite3.pc || return
    local lib=$root/usr/lib
    $host-gcc -O2 -fPIC -shared -DSQLITE_THREADSAFE=1 -DUSE_PREAD64 -DHAVE_FDATASYNC -Wl,-soname,libsqlite3.so.0 \
        -o "$lib/libsqlite3.so.0" sqlite3.c -latomic && ln -sf libsqlite3.so.0 "$lib/libsqlite3.so" &&
        cp sqlite3.h sqlite3ext.h "$root/usr/include/" &&
        sed 's|^prefix=.*|prefix=/usr|; s|^exec_prefix=.*|exec_prefix=/usr|; s|^libdir=.*|libdir=/usr/lib|' \
            sqlite3.pc >"$lib/pkgconfig/sqlite3.pc"
}

build_googletest() {
    cmake -S /usr/src/googletest -B "$work/googletest" -G Ninja -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_TOOLCHAIN_FILE="$tree/cmake/toolchains/$host.cmake" -DTANDREL_SYSROOT="$root" \
        -DCMAKE_INSTALL_PREFIX=/usr &&
        cmake --build "$work/googletest" && DESTDIR=$root cmake --install "$work/googletest"
}

# make_one WHAT FUNCTION: runs it in a separate shell, because it changes the directory.
make_one() {
    step log "$1 for PowerPC (once)" bash -c "$variables; $(declare -f own_sources own_apt "$2"); $2" ||
        { tail -n 30 "$step_log" >&2; die "failed: $1"; }
}
variables=$(declare -p host root work tree jobs)

rm -rf "$root" "$work"
mkdir -p "$root/usr/include" "$root/usr/lib" "$work"
make_one "Fetching sources" fetch
make_one "Building libnl" build_libnl
make_one "Building SQLite" build_sqlite
make_one "Building GoogleTest" build_googletest
# These consist of headers, which are the same for every machine. CMake finds them through the files
# in share/cmake.
for name in include/boost include/CLI include/nlohmann share/cmake/CLI11 share/cmake/nlohmann_json; do
    mkdir -p "$root/usr/${name%/*}"
    cp -rL "/usr/$name" "$root/usr/$name" || die "no /usr/$name"
done
rm -rf "$work"
printf '%s\n' "$wanted" >"$root/built-from"
