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
    # Depends on the processes, which only tests/ctl/kernel can start.
    daemon_absent)
        grep -qF '{reason_t::daemon_absent, {}}' <<<"$tests" &&
            grep -qF 'tandrel: note: it does not run here' tests/ctl/kernel/look_test.cpp ;;
    *) grep -qE "^ *expect\(reason_t::$reason,( \"|\$)" <<<"$tests" ;;
    esac || fail "no test holds the sentence of $reason"
done
exit "$failed"
