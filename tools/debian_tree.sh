# shellcheck shell=bash disable=SC2154
# Sourced after tools/setup.sh: creates a clean Debian tree, and keeps it for the next run.

# debian_tree: creates the tree build/cache/debian-tree unless it exists. It contains the packages'
# dependencies, so that testing them needs no network.
debian_tree() {
    local base=$PWD/build/cache/debian-tree
    [ ! -e "$base/complete" ] || return 0
    rm -rf "$base"
    mkdir -p "$base"
    step debootstrap "Making a clean Debian tree" debootstrap --variant=minbase \
        --include=adduser,iproute2,procps,libnl-3-200,libsqlite3-0 \
        "$(. /etc/os-release && echo "$VERSION_CODENAME")" "$base" ||
        { tail -n 20 "$step_log" >&2; die "debootstrap failed"; }
    touch "$base/complete"
}
