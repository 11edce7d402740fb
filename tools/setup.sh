# shellcheck shell=bash disable=SC2034
# Sourced by ./demo, ./test, ./package and bench/run: installs what is missing and builds. Debian 12.

build_packages="g++ cmake ninja-build pkg-config libnl-3-dev libboost-dev libsqlite3-dev libcli11-dev
    nlohmann-json3-dev"
demo_packages="iproute2 procps radvd"
test_packages="libgtest-dev clang-format clang-tidy binutils iproute2 procps radvd
    mandoc groff-base bash-completion python3 shellcheck"
fuzz_packages="clang libclang-rt-dev"
mutate_packages="lld"
bench_packages="iproute2 binutils valgrind systemd keepalived redis-server libhiredis-dev"
# For ./test --powerpc and --board. The boards' kernels come from Debian's packages too.
powerpc_packages="g++-powerpc-linux-gnu qemu-user googletest tcl xz-utils dpkg-dev gcc make"
board_powerpc_packages="linux-source-6.1 bc flex bison make xz-utils cpio jq qemu-system-ppc"
board_amd64_packages="cpio jq xz-utils qemu-system-x86"
package_packages="build-essential debhelper dpkg-dev lintian"

say() { printf '%s\n' "$*"; }
die() { printf '%s: %s\n' "${0##*/}" "$*" >&2; exit 1; }

# Installs those of the named packages that are not there; needs no network when none is missing.
need_packages() {
    local package missing=()
    for package in "$@"; do
        [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
            missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return
    say "Installing: ${missing[*]}"
    local as_root=()
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || die "not root and no sudo; please install: ${missing[*]}"
        as_root=(sudo)
    fi
    # A package list that was never fetched, or is out of date, names files that are not to be had.
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive sh -c '
        install() { apt-get install -y -q --no-install-recommends "$@"; }
        { apt-get update -q && install "$@"; }' sh "${missing[@]}" >"$setup_log" 2>&1 ||
        { tail -n 20 "$setup_log" >&2; die "could not install: ${missing[*]}"; }
}

# configure PRESET: makes build/PRESET ready to be built.
configure() {
    cmake --preset "$1" >"$setup_log" 2>&1 || { cat "$setup_log" >&2; die "cmake failed"; }
}

# build PRESET [TARGET...]
build() {
    local preset=$1 target arguments=()
    shift
    for target in "$@"; do arguments+=(--target "$target"); done
    cmake --build "build/$preset" "${arguments[@]}" >"$setup_log" 2>&1 ||
        { tail -n 60 "$setup_log" >&2; die "the build failed"; }
}

setup_log=$(mktemp)
trap 'rm -f "$setup_log"' EXIT
