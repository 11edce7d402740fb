#!/bin/bash
# enter_tree.sh TREE COMMAND...: runs a command in a Debian tree, with /proc, /sys, /dev and a /run of
# its own. In a mount namespace of its own. The file that $counts names can be written from inside.
set -u
root=$1
shift
mount --make-rprivate /
mount --bind "$root" "$root"
mount -t proc proc "$root/proc"
mount -t sysfs -o ro sysfs "$root/sys"
mount -t tmpfs -o mode=755 tmpfs "$root/run"
mount --rbind /dev "$root/dev"
if [ -n "${counts:-}" ]; then
    touch "$root/counts"
    mount --bind "$counts" "$root/counts"
    export counts=/counts
fi
exec chroot "$root" "$@"
