#!/bin/bash
# check_store_alone.sh SOURCE-DIR COMPILER: the folder of the store, copied alone, configures with its
# tests and builds service and libraries; nothing in it names the daemon, or where the daemon's settings
# are.
set -u
source_dir=$1
compiler=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { printf 'FAILED: %s\n' "$*" >&2; exit 1; }

named=$(grep -rliaE 'tandrel|system settings/network' "$source_dir/platform/tav")
[ -z "$named" ] || fail "the daemon is named in $named"

cp -r "$source_dir/platform/tav" "$work/alone" || fail "copy"
cmake -S "$work/alone" -B "$work/build" -G Ninja -DBUILD_TESTING=ON -DCMAKE_CXX_COMPILER="$compiler" \
    -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG=-O0 >"$work/log" 2>&1 || { cat "$work/log"; fail "it does not configure alone"; }
ninja -C "$work/build" -j 2 tavd tav tavxx >"$work/log" 2>&1 || { cat "$work/log"; fail "it does not build alone"; }
[ "$("$work/build/tavd" --help | head -c 11)" = "Usage: tavd" ] || fail "the service does not run"
