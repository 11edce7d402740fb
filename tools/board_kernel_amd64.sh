#!/bin/bash
# board_kernel_amd64.sh: fetches Debian's packaged amd64 kernel for virtual machines and extracts
# the kernel itself and the modules that the tests need. Result, in build/cache/amd64-kernel:
# vmlinuz, modules/ and module-list, the order to load them in. Does nothing if they exist.
set -u
cd "$(dirname "$(readlink -f "$0")")/.." || exit 1
. tools/setup.sh

cache=$PWD/build/cache/amd64-kernel
[ -e "$cache/built-from" ] && exit 0
package=$(apt-cache depends --important linux-image-cloud-amd64 |
    sed -n 's/^ *Depends: \(linux-image-.*\)$/\1/p' | head -n 1)
[ -n "$package" ] || die "no package of an amd64 kernel in the package lists; see apt-get update"

rm -rf "$cache"
mkdir -p "$cache/modules"
# shellcheck disable=SC2016
step log "Fetching the amd64 board's kernel (once)" env -C "$cache" \
    sh -c 'apt-get download "$1" && dpkg-deb -x ./*.deb unpacked' sh "$package" ||
    { tail -n 20 "$step_log" >&2; die "cannot fetch $package"; }
cp "$cache"/unpacked/boot/vmlinuz-* "$cache/vmlinuz" || exit 1
for module in veth dummy; do
    file=$(find "$cache/unpacked" -name "$module.ko" -print -quit)
    [ -n "$file" ] || die "$package has no module $module"
    cp "$file" "$cache/modules/"
    printf '/board/modules/%s.ko\n' "$module" >>"$cache/module-list"
done
rm -rf "$cache/unpacked" "$cache"/*.deb
printf '%s\n' "$package" >"$cache/built-from"
