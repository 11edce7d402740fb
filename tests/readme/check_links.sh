#!/bin/bash
# check_links.sh SOURCE-DIR: ./test --readme can run README's blocks, each of them parses, and the
# targets of the documents' links exist.
set -u
cd "$1" || exit 1
failed=0
fail() { printf 'FAILED: %s\n' "$*" >&2; failed=1; }

blocks=$(mktemp -d)
trap 'rm -rf "$blocks"' EXIT
tests/readme/extract.sh README.md "$blocks" || fail "README.md has a block that is not run"
[ "$(find "$blocks" -name '*.sh' | wc -l)" -ge 5 ] || fail "few blocks were found"
for block in "$blocks"/*.sh; do
    bash -n "$block" || fail "a block does not parse: $(cat "$block")"
done

links=0
for document in *.md docs/*.md bench/*.md tests/*/*.md platform/tav/*.md; do
    while IFS= read -r target; do
        links=$((links + 1))
        [ -e "$(dirname "$document")/$target" ] || fail "$document links to $target"
    done < <(grep -oE '\]\([^)#:]+' "$document" | sed 's/^](//')
done
[ "$links" -ge 10 ] || fail "few links were found"
exit "$failed"
