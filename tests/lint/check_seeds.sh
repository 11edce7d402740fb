#!/bin/bash
# check_seeds.sh SOURCE-DIR: a fuzz target has few seeds, each under a name in words. What a run finds
# stays in the build.
set -u
cd "$1" || exit 1
failed=0
fail() { printf 'FAILED: %s\n' "$*" >&2; failed=1; }

targets=0
for file in {,platform/tav/}tests/fuzz/*.seeds; do
    targets=$((targets + 1))
    mapfile -t names < <(cut -d ' ' -f 1 "$file")
    [ "${#names[@]}" -le 40 ] || fail "$file holds ${#names[@]} inputs, more than 40"
    printf '%s\n' "${names[@]}" | LC_ALL=C sort -cu || fail "the names in $file are not in order"
    for name in "${names[@]}"; do
        [[ $name =~ ^[a-z0-9]+(-[a-z0-9]+)*$ && ! $name =~ ^[0-9]+$ && ! $name =~ ^[0-9a-f]{16,}$ ]] ||
            fail "the name $name in $file says nothing"
    done
done
[ "$targets" -ge 11 ] || fail "few targets were found"
exit "$failed"
