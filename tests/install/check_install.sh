#!/bin/bash
# check_install.sh BUILD-DIR LIBDIR: checks the content of an installation, and that it works from
# there.
set -u
build=$1
libdir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { printf 'FAILED: %s\n' "$*" >&2; exit 1; }

cmake --install "$build" --prefix "$work/usr" >"$work/log" 2>&1 || { cat "$work/log"; fail install; }
for file in sbin/tandrel sbin/tavd bin/tav bin/tandrelctl "$libdir/libtav.so" "$libdir/libtav++.so" \
    include/tav/mlr.h include/tav/toolkit.h share/man/man1/tandrelctl.1 share/man/man8/tandrel.8 \
    share/bash-completion/completions/tandrelctl \
    share/man/man1/tav.1 share/man/man3/libtav.3 share/man/man8/tavd.8 \
    share/bash-completion/completions/tav; do
    [ -e "$work/usr/$file" ] || fail "$file is not installed"
done

export LD_LIBRARY_PATH=$work/usr/$libdir
"$work/usr/sbin/tandrel" --help >"$work/usage" && fail "--help is not an option of the daemon"
grep -q "^Usage: $work/usr/sbin/tandrel \[-u <user>\]" "$work/usage" || fail "no usage text"
"$work/usr/sbin/tavd" --help >/dev/null || fail "tavd --help"
"$work/usr/bin/tav" --help >/dev/null || fail "tav --help"
"$work/usr/bin/tandrelctl" --help >/dev/null || fail "tandrelctl --help"

# A client program builds against the installed headers and libraries.
cat >"$work/own.cpp" <<'SOURCE'
#include <tav/toolkit.h>
#include <cstdio>
int main() {
    toolkit::CTav tav(mlr_init());
    std::puts(tav.handle == nullptr ? "no store" : "a store");
    mlr_close(tav.handle);
}
SOURCE
c++ -std=c++17 -I"$work/usr/include" -o "$work/own" "$work/own.cpp" -L"$work/usr/$libdir" -ltav++ -ltav ||
    fail "a program does not build against the installation"
[ "$(TAV_SOCKET=$work/none "$work/own")" = "no store" ] || fail "the program does not run"
