#!/bin/bash
# board_kernel.sh: builds the kernel of the emulated PowerPC board from Debian's source package,
# with tests/board/powerpc.config. Result: build/cache/powerpc-kernel/vmlinux. Does nothing if that
# exists and neither source nor configuration has changed.
set -u
cd "$(dirname "$(readlink -f "$0")")/.." || exit 1
. tools/setup.sh

config=$PWD/tests/board/powerpc.config
cache=$PWD/build/cache/powerpc-kernel
# shellcheck disable=SC2086
need_packages $powerpc_packages $board_powerpc_packages
wanted="$(dpkg-query -W -f='${Version}' linux-source-6.1) $(sha256sum <"$config")"
[ "$(cat "$cache/built-from" 2>/dev/null)" = "$wanted" ] && exit 0

rm -rf "$cache"
mkdir -p "$cache/source"
cross_make=(make -C "$cache/source" ARCH=powerpc CROSS_COMPILE=powerpc-linux-gnu-
    KBUILD_BUILD_USER=board KBUILD_BUILD_HOST=board)
{
    step log "Unpacking the board's kernel" \
        tar -xJf /usr/src/linux-source-6.1.tar.xz -C "$cache/source" --strip-components=1 &&
        step make "Configuring the board's kernel" \
            "${cross_make[@]}" KCONFIG_ALLCONFIG="$config" allnoconfig &&
        step make "Building the board's kernel (once)" "${cross_make[@]}" -j"$(nproc)" vmlinux
} || { tail -n 30 "$step_log" >&2; die "the kernel does not build"; }

# An option with missing requirements is dropped silently.
while read -r option; do
    grep -qx "$option" "$cache/source/.config" || die "the kernel was built without $option"
done < <(grep '^CONFIG_' "$config")

powerpc-linux-gnu-strip -o "$cache/vmlinux" "$cache/source/vmlinux" || die "no vmlinux"
rm -rf "$cache/source"
printf '%s\n' "$wanted" >"$cache/built-from"
