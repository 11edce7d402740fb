#!/bin/bash
# enter_tree.sh TREE COMMAND...: runs a command in a Debian tree, with /proc, /sys, /dev and an empty
# /run. Call this in a new mount namespace. The command can write to the file that $counts names.
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
unset TMPDIR # a directory of the host
exec chroot "$root" "$@"
