#!/bin/bash
# enter.sh LOWER UPPER COMMAND...: runs a command in a tree. Its files come from LOWER, and changes
# are written to UPPER. /proc, /sys, /dev and /run are mounted. Call this in a new mount and process
# namespace. It uses pivot_root, because after a chroot users could not create user namespaces.
# FRESH_SHARED is mounted as /shared, FRESH_ARCHIVES as apt's archives.
set -eu
lower=$1
upper=$2
shift 2
mount --make-rprivate /
mkdir -p "$upper/root" "$upper/changes" "$upper/work"
mount -t overlay overlay -o "lowerdir=$lower,upperdir=$upper/changes,workdir=$upper/work" "$upper/root"
cd "$upper/root"
mount -t proc proc proc
mount -t sysfs -o ro sysfs sys
mount -t tmpfs -o mode=755 tmpfs run
mount --rbind /dev dev
mkdir -p shared old
mount --bind "$FRESH_SHARED" shared
mount --bind "$FRESH_ARCHIVES" var/cache/apt/archives
pivot_root . old
cd /
umount -l old
rmdir old
# Without the host's environment.
exec env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root "$@"
