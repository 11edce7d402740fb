#!/bin/bash
# board.sh powerpc|amd64 [REGEX]: boots an emulated board with an older kernel and runs every test
# whose name matches there. The last line says how many passed and failed; the exit status is 0 only
# when none failed. Called by ./test --board.
# board.sh powerpc|amd64 --program NAME: runs a program of tests/board on the board instead of the
# tests, and shows its output.
set -u
cd "$(dirname "$(readlink -f "$0")")/.." || exit 1
. tools/setup.sh

board=$1
selected=${2:-.}
program=board_figures
[ "$selected" != --program ] || program=${3:?a name is missing}
# In seconds of real time, enough for a machine that emulates slowly. The board itself ends a test
# that hangs.
limit=5400
work=$scratch
mkdir -p "$work/extra/board"
date +%s >"$work/extra/board/time"

# prepare_BOARD: installs, builds, and sets `kernel`, `machine` (what to start), `console` and
# `image` (arguments of board_image.sh).
prepare_powerpc() {
    # shellcheck disable=SC2086
    need_packages $build_packages $powerpc_packages $board_powerpc_packages
    tools/cross_sysroot.sh && tools/board_kernel.sh || exit 1
    build_here test-powerpc
    kernel=build/cache/powerpc-kernel/vmlinux
    machine=(qemu-system-ppc -M ppce500 -cpu e500mc)
    console=ttyS0
    export STRIP=powerpc-linux-gnu-strip READELF=powerpc-linux-gnu-readelf
    libraries=(build/cache/powerpc-sysroot/usr/lib /usr/powerpc-linux-gnu/lib)
}

prepare_amd64() {
    # shellcheck disable=SC2086
    need_packages $build_packages $test_packages $board_amd64_packages
    tools/board_kernel_amd64.sh || exit 1
    build_here test
    local cache=build/cache/amd64-kernel
    kernel=$cache/vmlinuz
    cp -r "$cache/modules" "$work/extra/board/"
    cp "$cache/module-list" "$work/extra/board/module-list"
    machine=(qemu-system-x86_64 -M q35)
    console=ttyS0
    libraries=(/lib/x86_64-linux-gnu /usr/lib/x86_64-linux-gnu /lib64)
}

build_here() {
    preset=$1
    configure "$preset"
    build "$preset" board
}

# Prints the tests that ctest would run, without the emulator that it would run them in.
plan_tests() {
    ctest --test-dir "build/$preset" --show-only=json-v1 --tests-regex "$selected" | jq -r '
        .tests[] | .name as $name | (.command // []) as $words |
        ($words | map(test("^/.*_tests$")) | index(true)) as $program | select($program != null) |
        select(any(.properties[]; .name == "LABELS" and any(.value[]; IN("unit", "tav", "kernel")))) |
        ["test", $name] + $words[$program:] | join("\t")'
}
# Removes the tests that cannot run there from the plan, and reports each of them and each omitted
# group.
leave_out() {
    awk -F'\t' -v kept="$plan.kept" '
        BEGIN { printf "" >kept }
        NR == FNR { if ($0 !~ /^#/) reasons[$1] = $2; next }
        { for (name in reasons) if ($2 ~ name) { print "left out: " $2 ": " reasons[name]; next }
          print >kept }' tests/board/left-out "$plan" && mv "$plan.kept" "$plan"
    [ "$selected" != . ] || cat <<'TEXT'
left out: lint., provider., install., bench.: they test the build machine and its tools
left out: fuzz.: their inputs are files of the source tree
left out: model.: random sequences, which take long; ./test runs them
TEXT
}

case $board in
powerpc | amd64) "prepare_$board" ;;
*) die "no such board: $board (powerpc or amd64)" ;;
esac
# The plan: see tests/board/README.md. A run of all tests also reports the memory.
plan=$work/extra/board/plan
if [ "$selected" != --program ]; then
    plan_tests >"$plan" || die "cannot list the tests"
    leave_out
    [ -s "$plan" ] || die "no test that a board runs matches '$selected'"
fi
case $selected in
. | --program)
    printf 'show\t%s\t%s\n' "$program" "$PWD/build/$preset/tests/board/$program" >>"$plan"
    ;;
esac
tools/board_image.sh "build/$preset" "$work/image" "$work/extra" "${libraries[@]}" ||
    die "cannot pack the board's file system"

# The board's clock counts executed instructions and skips idle time, so time limits on the board do
# not depend on the load of this machine.
: >"$work/console"
note_board() {
    local line
    line=$(sed 's/\r//g; s/\x1b\(c\|\[[?0-9;]*[a-zA-Z]\)//g' <<<"$1")
    printf '%s\n' "$line" >>"$work/console"
    case $line in
    'board: plan '*) planned=${line##* } ;;
    'board: FAIL '*) failures=$((failures + 1)) ended=$((ended + 1)) ;;
    'board: pass '* | 'board: skip '* | 'board: shown '*) ended=$((ended + 1)) ;;
    esac
    state="$ended of ${planned:-?}, $failures failed"
    case $line in 'board: pass'* | 'board: shown'* | 'board: end') ;; *) pass_on "$line" ;; esac
}
planned='' ended=0
step board "Testing on the $board board" timeout "$limit" "${machine[@]}" -accel tcg -m 512 -nographic \
    -no-reboot -nic none -icount shift=0,sleep=off -kernel "$kernel" -initrd "$work/image" \
    -append "console=$console quiet panic=-1"

count() { grep -c "^board: $1" "$work/console"; }
passed=$(count 'pass ')
failed=$(count 'FAIL ')
left_out=$(count 'skip ')
ended=$((passed + failed + left_out + $(count 'shown ')))
failed=$((failed + $(count 'error ')))
if ! grep -qx 'board: end' "$work/console"; then
    say "the board did not finish; the last lines of its console:"
    tail -n 30 "$work/console"
    failed=$((failed + 1))
elif [ "$ended" -ne "${planned:-0}" ]; then
    say "only $ended of $planned entries of the plan reported a result"
    failed=$((failed + 1))
fi
[ "$selected" != --program ] || exit $((failed > 0))
say "$left_out skipped"
say "$passed passed, $failed failed"
[ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
