#!/bin/bash
# check_reasons.sh SOURCE-DIR: every reason of `tandrelctl check` has a test that causes it and
# compares its exact sentence.
set -u
cd "$1" || exit 1
failed=0
fail() { printf 'FAILED: %s\n' "$*" >&2; failed=1; }

tests=$(cat tests/ctl/reasons_test.cpp)
reasons=$(sed -n '/^enum class reason_t/,/^};/s/^ *\([a-z_][a-z_0-9]*\),\{0,1\}.*/\1/p' ctl/reasons.h | grep -v '^\(enum\|count_\)$')
[ "$(wc -l <<<"$reasons")" -ge 50 ] || fail "few reasons were found"
for reason in $reasons; do
    case $reason in
    daemon_prefix) grep -qF "it manages links whose names begin with 'enp3s', not" <<<"$tests" ;;
    # Depends on the processes and on the store's service.
    daemon_*) grep -qF "daemon_t::${reason#daemon_}," <<<"$tests" ;;
    # Comes from the keeper's memory.
    setting_remembered) grep -qF "was removed from the store (link down);" tests/ctl/kernel/keeper_test.cpp ;;
    # Comes from the store's service.
    change_unconfirmed) grep -qF "is unconfirmed, and will be" tests/ctl/kernel/change_test.cpp ;;
    *) grep -qE "^ *expect\(reason_t::$reason,( \"|\$)" <<<"$tests" ;;
    esac || fail "no test holds the sentence of $reason"
done

# Every remedy is carried out by a test, except that of a daemon that hangs, which takes a minute.
remedies=$(perl -0ne 'while (/\{r::\w+, \w+, "([\w-]+)",\s*((?:"(?:\\.|[^"\\])*"\s*)+),\s*((?:"(?:\\.|[^"\\])*"\s*)+)\}/g) {
        print "$1\n" if $3 !~ /^""\s*$/
    }' ctl/reasons.cpp | grep -vx daemon-hangs)
[ "$(wc -l <<<"$remedies")" -ge 35 ] || fail "few remedies were found"
cases=$(tr -s '\n ' ' ' <tests/ctl/kernel/remedies_test.cpp)
for name in $remedies; do
    grep -qF "{\"$name\", ARRANGED(" <<<"$cases" ||
        fail "no test carries out the remedy of $name"
done
exit "$failed"
