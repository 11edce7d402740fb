#!/bin/bash
# Runs README's blocks in a clean Debian tree, one after the other in one shell, as if a reader
# typed them. They are in /blocks; the working directory is the source tree.
set -u
export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8 HOME=/root

# The reader's host: its link eth0, and a router on that link.
ip link set lo up
ip link add eth0 address 02:00:00:00:00:05 type veth peer name router
ip address add fe80::1/64 dev router nodad
# On a busy machine the check for duplicates may take longer than the time of --wait.
echo 0 >/proc/sys/net/ipv6/conf/eth0/accept_dad
ip link set router up
ip link set eth0 up

# Things that README assumes the reader to have.
prepare() {
    grep -q /opt/device-kit "$1" || return 0
    mkdir -p /opt/device-kit/{include,lib}
    cp -r tests/provider/kit/tav /opt/device-kit/include/
    local library
    for library in mlr:libtav.so toolkit:libtav++.so; do
        g++ -std=c++17 -shared -fPIC -I/opt/device-kit/include -Wl,-soname,"${library#*:}" \
            -o "/opt/device-kit/lib/${library#*:}" "tests/provider/lib/${library%:*}.cpp" || exit 1
    done
}

# No init runs here, which would start the services of packages that were just installed. The wait
# replaces the reader's time between two commands, in which the store starts.
settle() {
    if grep -q 'apt-get install' "$1"; then
        service tavd start && service tandrel start || exit 1
    fi
    if grep -qE 'apt-get install|^tavd ' "$1"; then
        timeout 60 sh -c 'until tav ls / >/dev/null 2>&1; do sleep 0.2; done' || exit 1
    fi
}

for block in /blocks/*.sh; do
    name=${block%.sh}
    [ ! -e "$name.reason" ] || continue
    printf 'echo block %s\n' "$(basename "$name")"
    printf 'block=%q\nprepare "$block"\nset -e\n{\n' "$name.sh"
    cat "$block"
    printf '} >%q 2>&1 </dev/null\nset +e\nsettle "$block"\ntouch %q\n' \
        "$name.out" "$name.done"
done >/blocks/session
set +u
. /blocks/session
