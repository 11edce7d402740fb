#!/bin/bash
# enter.sh LOWER UPPER COMMAND...: runs a command in a tree whose files are LOWER's and whose
# changes go to UPPER, with /proc, /sys, /dev and a /run of its own. In a mount and process
# namespace of its own. Changes the root itself, because after chroot users could not create user
# namespaces. FRESH_SHARED is mounted as /shared, FRESH_ARCHIVES as apt's archives.
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
exec env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root "$@" # nothing of the host's
