#!/bin/bash
# Tests the packages in the given directory: in a clean Debian tree with init scripts and without a
# service manager, in another one that systemd boots, and under the units' restrictions. Everything
# runs in its own namespaces.
set -u
packages=$(readlink -f "$1")
cd "$(dirname "$(readlink -f "$0")")/../.." || exit 1
. tools/setup.sh
. tools/debian_tree.sh
need_root --check
# shellcheck disable=SC2086
need_packages $test_packages debootstrap systemd-container systemd libseccomp-dev

work=$PWD/build/package/check
export counts=$work/counts
rm -rf "$work"
mkdir -p "$work"
: >"$counts"
debian_tree

# tree NAME [PACKAGE...]: a copy with the built packages under /packages, and a newer version of
# each under /newer, and an older one of the daemon's under /older.
tree() {
    local root=$work/$1 package
    shift
    cp -a --reflink=auto build/cache/debian-tree "$root"
    # shellcheck disable=SC2016
    [ $# -eq 0 ] || step apt "Installing $* there" chroot "$root" sh -c \
        'apt-get update -q && apt-get install -y -q --no-install-recommends "$@"' sh "$@" ||
        { tail -n 20 "$step_log" >&2; die "apt-get failed"; }
    mkdir "$root/packages" "$root/newer" "$root/older"
    older "$packages"/tandrel_*.deb "$root/older"
    for package in "$packages"/*.deb; do
        case $package in *dbgsym*) continue ;; esac
        cp "$package" "$root/packages/"
        newer "$package" "$root/newer"
    done
    cp tests/package/expect.sh tests/package/inside_*.sh "$root/packages/"
}

# newer PACKAGE DIRECTORY: the same with a higher version.
newer() {
    local unpacked
    unpacked=$(mktemp -d)
    dpkg-deb -R "$1" "$unpacked/p"
    sed -i 's/^Version: .*/&+newer1/; s/(= \([0-9.]*\))/(= \1+newer1)/' "$unpacked/p/DEBIAN/control"
    dpkg-deb -b "$unpacked/p" "$2/$(basename "$1")" >/dev/null
    rm -rf "$unpacked"
}

# older PACKAGE DIRECTORY: the same with a lower version, and with the service that tandrel-keep
# replaces instead of it.
older() {
    local unpacked unit
    unpacked=$(mktemp -d)
    dpkg-deb -R "$1" "$unpacked/p"
    sed -i 's/^Version: .*/&~older1/' "$unpacked/p/DEBIAN/control"
    find "$unpacked/p" -path '*/init.d/tandrel-keep' -delete
    sed -i '/init.d.tandrel-keep/d' "$unpacked/p/DEBIAN/"{conffiles,md5sums}
    unit=$(find "$unpacked/p" -name tandrel-keep.service)
    mv "$unit" "${unit%keep.service}nudge.service"
    # It does not remove its own service.
    sed -i -e 's/tandrel-nudge/tandrel-none/g' -e 's/tandrel-keep/tandrel-nudge/g' \
        "$unpacked/p/DEBIAN/"{postinst,prerm,postrm,md5sums}
    dpkg-deb -b "$unpacked/p" "$2/$(basename "$1")" >/dev/null
    rm -rf "$unpacked"
}

say "== exposure"
for unit in tavd tandrel tandrel-keep tandrel-wait-online; do
    systemd-analyze security --offline=yes --threshold=20 "packaging/systemd/$unit.service" 2>/dev/null |
        sed -n 's/.*Overall/Overall/p'
    if [ "${PIPESTATUS[0]}" -eq 0 ]; then echo "1 0"; else echo "0 1"; fi >>"$counts"
done

say "== life cycle, with init scripts"
tree sysv
step lines "Trying the packages with init scripts" unshare --net --mount --pid --fork --kill-child \
    --uts bash tests/package/enter_tree.sh "$work/sysv" bash /packages/inside_life_cycle.sh

say "== services, by systemd"
tree systemd systemd systemd-sysv dbus
step lines "Trying the packages with systemd" unshare --mount bash tests/package/boot.sh "$work/systemd"

say "== the kernel tests under the units' restrictions"
configure test
build test kernel_tests confine
step lines "Testing under the units' restrictions" bash tests/package/restrictions.sh build/test

rm -rf "$work/sysv" "$work/systemd"
say "$(awk '{p += $1; f += $2} END {print p " passed, " f " failed"}' "$counts")"
awk '{f += $2} END {exit f != 0}' "$counts"
