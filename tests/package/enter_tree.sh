#!/bin/bash
# Walks a tree without a service manager through the packages' life. In namespaces of its own.
set -u
root=$1
mount --make-rprivate /
mount --bind "$root" "$root"
mount -t proc proc "$root/proc"
mount -t sysfs -o ro sysfs "$root/sys"
mount -t tmpfs -o mode=755 tmpfs "$root/run"
mount --rbind /dev "$root/dev"
touch "$root/counts"
mount --bind "$counts" "$root/counts"
counts=/counts exec chroot "$root" bash /packages/inside_life_cycle.sh
