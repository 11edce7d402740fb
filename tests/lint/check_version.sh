#!/bin/bash
# check_version.sh SOURCE-DIR BUILD-DIR: the version is in CMakeLists.txt, and once more in that of the
# store; the change log begins with it, the tools and the libraries have it, and nothing else spells it
# out.
set -u
source_dir=$1
build=$2
failed=0
fail() { printf 'FAILED: %s\n' "$*" >&2; failed=1; }

version=$(sed -n 's/^project(tandrel VERSION \([0-9.]*\).*/\1/p' "$source_dir/CMakeLists.txt")
[ -n "$version" ] || { fail "no version in CMakeLists.txt"; exit 1; }
of_store=$(sed -n 's/^project(tav VERSION \([0-9.]*\).*/\1/p' "$source_dir/platform/tav/CMakeLists.txt")
[ "$of_store" = "$version" ] || fail "the store's version is '$of_store', not $version"
logged=$(sed -n 's/^## \([0-9.]*\).*/\1/p' "$source_dir/CHANGELOG.md" | head -n 1)
[ "$logged" = "$version" ] || fail "CHANGELOG.md begins with '$logged', not $version"

for tool in ctl/tandrelctl platform/tav/tav; do
    for option in -V --version; do
        printed=$("$build/$tool" "$option")
        [ "$printed" = "${tool##*/} $version" ] || fail "${tool##*/} $option prints '$printed'"
    done
done
for library in libtav.so libtav++.so; do
    [ -e "$build/platform/tav/$library.$version" ] || fail "$library does not have the version"
done

# With a point before or after it, it is another number.
elsewhere=$(cd "$source_dir" &&
    grep -rnE --exclude-dir=build --exclude-dir=.git "(^|[^0-9.])${version//./\\.}([^0-9.]|\$)" \
        CMakeLists.txt cmake shell netlink store sync ctl platform packaging debian tools test demo package |
    grep -vE '^(platform/tav/)?CMakeLists.txt:[0-9]*:project\(')
[ -z "$elsewhere" ] || fail "written out elsewhere: $elsewhere"
exit "$failed"
