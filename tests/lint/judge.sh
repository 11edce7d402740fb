#!/bin/bash
# judge.sh PACKAGE... -- COMMAND...: runs a check with the tools of these packages. Newer versions
# report other things, so only Debian 12's versions are used: with any other version, or when a package
# is missing, the check is skipped (status 77) and the reason is printed.
set -u
declare -A judges=(
    [bash-completion]=1:2.11 [clang-format]=1:14.0 [clang-tidy]=1:14.0 [groff-base]=1.22.4
    [mandoc]=1.14.6 [shellcheck]=0.9.0)

while [ "$1" != -- ]; do
    version=$(dpkg-query -W -f='${Version}' "$1" 2>/dev/null)
    case $version in
    '') reason="$1 is not installed" ;;
    "${judges[$1]:?}"*) reason='' ;;
    *) reason="only Debian 12's $1 (${judges[$1]}) decides; this is $version" ;;
    esac
    [ -z "$reason" ] || { printf 'skipped: %s\n' "$reason"; exit 77; }
    shift
done
shift
exec "$@"
