#!/bin/bash
# fetch.sh TREE ARCHIVES PACKAGE...: fetches everything that installing the packages in the tree
# needs, and keeps it in ARCHIVES. Call this in a new mount namespace.
set -eu
tree=$1
archives=$2
shift 2
mount --make-rprivate /
cp /etc/resolv.conf "$tree/etc/resolv.conf"
mkdir -p "$archives/partial"
mount --bind "$archives" "$tree/var/cache/apt/archives"
chroot "$tree" apt-get update -q
chroot "$tree" apt-get install -y -q --download-only --no-install-recommends "$@"
umount "$tree/var/cache/apt/archives"
cp --reflink=auto "$archives"/*.deb "$tree/var/cache/apt/archives/"
