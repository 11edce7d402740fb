#!/bin/bash
# board_image.sh BUILD-DIR IMAGE EXTRA-DIR LIBRARY-DIR...: packs an initial file system for an
# emulated board: the first process, every program of the build, and the libraries that they need.
# Built files have the same path as in the build, so that the tests find the programs that they
# start; libraries of the LIBRARY-DIRs are in /lib. EXTRA-DIR is copied into the root.
set -u
build=$(readlink -f "$1")
image=$2
extra=$3
libraries=("${@:4}")
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
die() { printf '%s: %s\n' "${0##*/}" "$*" >&2; exit 1; }

mkdir -p "$root"/{board,dev,etc,lib,proc,root,sys,tmp,usr/lib} || exit 1
printf 'root:x:0:0:root:/root:/bin/false\nnobody:x:65534:65534:nobody:/:/bin/false\n' >"$root/etc/passwd"
printf 'root:x:0:\ndaemon:x:1:\nbin:x:2:\nnogroup:x:65534:\n' >"$root/etc/group"
cp -r "$extra/." "$root/"
chmod 755 "$root"

# Copies an ELF file without debugging information, and the libraries that it needs.
put() {
    local file=$1 target=$2 name directory
    [ -e "$root$target" ] && return
    mkdir -p "$root${target%/*}"
    "${STRIP:-strip}" --strip-debug -o "$root$target" "$file" || die "cannot copy $file"
    chmod 755 "$root$target"
    while read -r name; do
        for directory in "${libraries[@]}"; do
            [ -e "$directory/$name" ] && { put "$directory/$name" "/lib/$name"; break; }
        done
        [ -e "$root/lib/$name" ] || [ -n "$(find "$build" -name "$name" -print -quit)" ] ||
            die "$file needs $name"
    done < <("${READELF:-readelf}" -d "$file" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
    # The dynamic loader is at the path that the program names.
    name=$("${READELF:-readelf}" -l "$file" 2>/dev/null | sed -n 's/.*program interpreter: \(.*\)\]/\1/p')
    [ -z "$name" ] || [ -e "$root$name" ] || {
        mkdir -p "$root${name%/*}"
        for directory in "${libraries[@]}"; do
            [ -e "$directory/${name##*/}" ] && { cp -L "$directory/${name##*/}" "$root$name"; break; }
        done
        [ -e "$root$name" ] || die "no $name"
    }
}

# Every program and library of the build except those of CMake's own checks.
while read -r file; do
    [ "$(head -c 4 "$file")" = $'\x7fELF' ] && put "$file" "$file"
done < <(find "$build" -path '*/CMakeFiles' -prune -o -type f \( -perm -u+x -o -name '*.so*' \) -print)
while read -r link; do
    cp -P "$link" "$root$link"
done < <(find "$build" -path '*/CMakeFiles' -prune -o -type l -name '*.so*' -print)
cp -P "$root$build/tests/board/board_init" "$root/init" || die "the build has no first process"

(cd "$root" && find . | cpio -o -H newc --quiet | gzip -1) >"$image"
