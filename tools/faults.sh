#!/bin/bash
# Runs the daemon's kernel tests, without those of tandrelctl, against a store with faults, and
# prints the results; the tests' output is kept in build/faults. Called as ./test --faults [REGEX];
# see tests/faults/plan.h for the plans.
set -u
cd "$(dirname "$(readlink -f "$0")")/.." || exit 1

pattern=${1:-.}
explained=tests/faults/explained.txt

# Name of the fault; plan of the service; plan of the calls. The first ones cause no rebuild, so
# each test's own result is valid. Each of the others occurs once, in the middle of a test.
faults='
Echoes                 echo                             -
DuplicatedEvents       duplicate                        -
ReorderedEvents        reorder                          -
SpuriousReadiness      spurious                         -
RefusedRegistrations   refuse:on=watchdog+ping:every=2  -
RefusedWrites          refuse:on=write:after=3:limit=1  -
SenselessReplies       garble:after=40:limit=1          -
RepliesThatDoNotCome   hang:after=40:limit=1            -
RepliesCutInTheMiddle  cut:after=40:limit=1             -
Overflows              overflow:after=40:limit=1        -
FailedReads            -                                fail:on=read+list:after=10:limit=1
FailedWrites           -                                fail:on=write+remove:after=2:limit=1
FailedFetches          -                                fail:on=events:after=2:limit=1:result=0'

. tools/setup.sh
# shellcheck disable=SC2086
need_packages $build_packages $test_packages
configure test
build test kernel_tests

kept=$PWD/build/faults
mkdir -p "$kept"
row='%-22s %6s %7s %10s %12s %9s %7s %5s\n'
unexplained=0
passed=0

# The output of failing tests is examined below.
note_quiet_ctest() { note_ctest "$1" >/dev/null; }

# The results of the tests under a fault, one line for each: "<name> <run|fail|...>".
verdicts() { sed -n 's/.*<testcase name="\([^" ]*\).* status="\([a-z]*\)".*/\1 \2/p' "$results"; }

# printed_by TEST: its output under the fault.
printed_by() {
    awk -v RS='</testcase>' -v start="<testcase name=\"$1\"" 'index($0, start)' "$results"
}

# explain FAULT TEST: whether the list of explained failures has this one.
explain() {
    local fault test sign reason
    while IFS=$'\t' read -r fault test sign reason; do
        [ -n "$reason" ] && [[ $1 =~ ^($fault)$ && $2 =~ ^kernel\.($test)$ ]] &&
            printed_by "$2" | grep -qE "$sign" && return 0
    done < <(grep -v '^#' "$explained")
    return 1
}

# shellcheck disable=SC2059
printf "$row" fault tests passed explained unexplained rebuilds Static lost
while read -r name service calls; do
    [[ -n $name && $name =~ $pattern ]] || continue
    results=$kept/$name.xml
    environment=(KT_REBUILDS=1)
    [ "$service" = - ] ||
        environment+=("KT_TAVD=$PWD/build/test/tests/faults/tavd_faulty" "TAVD_FAULT=$service")
    [ "$calls" = - ] || environment+=("KT_CALL_FAULT=$calls")
    step quiet_ctest "Testing with $name" env "${environment[@]}" "${in_memory[@]}" ctest --test-dir build/test \
        --parallel $(($(nproc) * 4)) --label-regex '^kernel$' --exclude-regex 'FaultTest|\.ctl\.' \
        --output-junit "$results" --test-output-size-passed 1000000 --test-output-size-failed 1000000
    rebuilds=$(grep -o '^rebuilds: [0-9]*' "$results" | awk '{ sum += $2 } END { print sum + 0 }')
    tests=0 fine=0 known=0 unknown=()
    while read -r test status; do
        tests=$((tests + 1))
        if [ "$status" = run ]; then
            fine=$((fine + 1))
        elif explain "$name" "$test"; then
            known=$((known + 1))
        else
            unknown+=("$test")
        fi
    done < <(verdicts)
    # The same fault without end, while a user makes edits.
    step log "A user edits under $name" build/test/tests/kernel/kernel_tests \
        --gtest_filter="Store/FaultTest*/$name"
    scenario=$(<"$step_log")
    counts=$(sed -n 's/^fault .* rebuilds, \([0-9]*\) Static addresses, \([0-9]*\) lost$/\1 \2/p' <<<"$scenario")
    grep -q '^\[  PASSED  \] 1 test' <<<"$scenario" || unknown+=("Store/FaultTest*/$name")
    # shellcheck disable=SC2059,SC2086
    printf "$row" "$name" "$tests" "$fine" "$known" ${#unknown[@]} "$rebuilds" ${counts:-? ?}
    [ ${#unknown[@]} -eq 0 ] || printf '    unexplained: %s\n' "${unknown[@]}"
    passed=$((passed + fine + known))
    unexplained=$((unexplained + ${#unknown[@]}))
done <<<"$faults"

say "$passed passed, $unexplained failed"
[ "$unexplained" -eq 0 ] && [ "$passed" -gt 0 ]
