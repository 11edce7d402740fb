#!/bin/bash
# Runs README's commands exactly as written there, in a clean Debian tree and in its own namespaces,
# and compares their output with README.
set -u
cd "$(dirname "$(readlink -f "$0")")/../.." || exit 1
. tools/setup.sh
. tools/debian_tree.sh
need_root --readme
need_packages debootstrap

work=$PWD/build/readme
rm -rf "$work"
mkdir -p "$work" build/cache/archives
debian_tree
tree=$work/tree
cp -a --reflink=auto build/cache/debian-tree "$tree"
mkdir -p "$tree/blocks" "$tree/root/tandrel"
tests/readme/extract.sh README.md "$tree/blocks" || exit 1
tar --exclude=./build --exclude=./.git -cf - . | tar -xf - -C "$tree/root/tandrel"

# The packages that README's commands install are fetched before, because there is no network
# inside.
# shellcheck disable=SC2086
step apt "Fetching packages" unshare --mount bash tests/readme/fetch.sh "$tree" "$PWD/build/cache/archives" \
    $build_packages $demo_packages $package_packages ||
    { tail -n 20 "$step_log" >&2; die "could not fetch the packages"; }

note_block() {
    note_log "$1"
    case $1 in 'block '*) state=$1 ;; esac
}
step block "Running README's commands" unshare --net --mount --pid --fork --kill-child --uts \
    bash tests/package/enter_tree.sh "$tree" bash -c 'cd /root/tandrel && . tests/readme/in_tree.sh'
cp "$step_log" "$work/session.log"

passed=0
failed=0
for block in "$tree"/blocks/*.sh; do
    name=${block%.sh}
    title=$(head -n 1 "$block")
    if [ -e "$name.reason" ]; then
        say "  not run  $title: $(cat "$name.reason")"
    elif ! [ -e "$name.done" ]; then
        failed=$((failed + 1))
        say "  FAIL     $title"
        cat "$work/session.log" "$name.out" 2>/dev/null | tail -n 40
        break
    elif [ -e "$name.text" ] && ! difference=$(tests/readme/shown.sh "$name.text" "$name.out"); then
        failed=$((failed + 1))
        say "  FAIL     $title"
        say "$difference"
        cat "$name.out"
    else
        passed=$((passed + 1))
        say "  ok       $title"
    fi
done
rm -rf "$work/outputs"
mkdir "$work/outputs"
mv "$tree"/blocks/* "$work/outputs/"
rm -rf "$tree"
say "$passed passed, $failed failed"
[ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
