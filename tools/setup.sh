# shellcheck shell=bash disable=SC2034
# Sourced by ./demo, ./test, ./package, bench/run and the scripts that they call: installs what is
# missing, configures and builds.
. "$PWD/tools/progress.sh"

build_packages="g++ cmake ninja-build pkg-config libnl-3-dev libboost-dev libsqlite3-dev libcli11-dev
    nlohmann-json3-dev"
demo_packages="iproute2 procps radvd"
test_packages="libgtest-dev libnl-route-3-dev binutils iproute2 procps radvd python3 tmux"
# Their checks are skipped if these cannot be installed.
lint_packages="clang-format clang-tidy mandoc groff-base bash-completion shellcheck"
fuzz_packages="clang libclang-rt-dev"
mutate_packages="lld"
bench_packages="iproute2 binutils valgrind linux-perf systemd keepalived redis-server libhiredis-dev"
# For ./test --powerpc and --board. The boards' kernels come from Debian's packages too.
powerpc_packages="g++-powerpc-linux-gnu qemu-user googletest tcl xz-utils dpkg-dev gcc make flex
    bison"
board_powerpc_packages="linux-source-6.1 bc make xz-utils cpio jq qemu-system-ppc"
board_amd64_packages="cpio jq xz-utils qemu-system-x86"
package_packages="build-essential debhelper dpkg-dev lintian"

# need_root WHAT, need_namespaces, need_space MEGABYTES: report early that something cannot work here.
need_root() { [ "$(id -u)" -eq 0 ] || die "$1 needs root"; }
need_namespaces() {
    local spaces=(--net --mount --pid --fork --kill-child --mount-proc)
    [ "$(id -u)" -eq 0 ] || spaces+=(--user --map-root-user)
    unshare "${spaces[@]}" true 2>/dev/null ||
        die "cannot create namespaces: run this as root, or allow users to create them" \
            "(sysctl -w kernel.unprivileged_userns_clone=1; in a container: --privileged)"
}
need_space() {
    local there
    there=$(df --output=avail -m . | tail -n 1)
    [ "$there" -ge "$1" ] || die "needs $1 MB of free disk space in $PWD; only $((there)) MB are free"
}

on_debian_12() { (. /etc/os-release && [ "$ID-$VERSION_ID" = debian-12 ]) 2>/dev/null; }

# missing_of PACKAGE...: prints those that are not installed, or not completely.
missing_of() {
    local package
    for package in "$@"; do
        [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
            printf '%s ' "$package"
    done
}

# need_packages PACKAGE...: installs the missing ones. If none is missing, it needs no network.
need_packages() {
    command -v apt-get >/dev/null && command -v dpkg-query >/dev/null ||
        die "cannot install packages: this is not Debian. Install what these Debian packages" \
            "contain, and build with CMake as README.md says: $*"
    local missing
    missing=$(missing_of "$@")
    # shellcheck disable=SC2086
    [ -z "$missing" ] || install $missing ||
        { tail -n 20 "$step_log" >&2; die "could not install: $missing"; }
}

# want_packages PACKAGE...: the same, but skips those that cannot be installed.
want_packages() {
    local missing package
    missing=$(missing_of "$@")
    # shellcheck disable=SC2086
    [ -n "$missing" ] || return 0
    can_install && install $missing && return
    for package in $missing; do
        can_install && install "$package" || say "continuing without $package: it could not be installed"
    done
}

can_install() { [ "$(id -u)" -eq 0 ] || command -v sudo >/dev/null; }

# install PACKAGE...
install() {
    local as_root=() start_by=unboxed end_with=INT
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || die "this needs root or sudo to install: $*"
        as_root=(sudo)
        sudo -v || die "sudo failed; install these packages as root: $*"
    fi
    # After an installation that was interrupted, the first command configures what it can, and the
    # third fetches what that lacks. A package list that is missing or out of date may name files that
    # no longer exist.
    say "Installing: $*"
    # shellcheck disable=SC2016
    step apt "Installing" "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive sh -c '
        apt="apt-get -y -q -o DPkg::Lock::Timeout=300 --no-install-recommends"
        dpkg --configure -a; $apt update && $apt install --fix-broken && $apt install "$@"' sh "$@"
}
# Not in a box: processes that apt-get starts belong to the system, and it exits cleanly by itself.
unboxed() { exec env --default-signal=INT --default-signal=QUIT "$@"; }

# configure PRESET: prepares build/PRESET. In presets where warnings are errors, they are so only with
# Debian 12's compiler; others may have more warnings.
configure() {
    local lenient=() cache=build/$1/CMakeCache.txt
    # A checkout that was moved is rebuilt.
    [ ! -e "$cache" ] || grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$PWD" "$cache" || rm -rf "build/$1"
    on_debian_12 || lenient=(--compile-no-warning-as-error)
    step log "Configuring build/$1" cmake --preset "$1" "${lenient[@]}" ||
        { cat "$step_log" >&2; die "cmake failed"; }
    [ "${STOP_AFTER:-}" != configure ] || exit 0 # for tests/fresh
}

# build PRESET [TARGET...]
build() {
    local preset=$1 target arguments=()
    shift
    for target in "$@"; do arguments+=(--target "$target"); done
    step ninja "Building build/$preset" cmake --build "build/$preset" "${arguments[@]}" ||
        { tail -n 60 "$step_log" >&2; die "the build failed"; }
    [ "${STOP_AFTER:-}" != build ] || exit 0
}

# The tests' files are in memory where possible: on a disk, most of the time is spent waiting for it.
# shellcheck disable=SC2016
in_memory=(bash -c 'mkdir -p "$TMPDIR/files" && chmod 711 "$TMPDIR/files" &&
    mount -t tmpfs -o mode=711 tmpfs "$TMPDIR/files" 2>/dev/null; TMPDIR=$TMPDIR/files exec "$@"' bash)
