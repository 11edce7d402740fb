#!/bin/bash
# Carries out random sequences, each in its own environment, for the given number of minutes: ./test
# --soak. Those of the model change kernel and store; those of the keeper take links away, restart
# programs and delete settings. SOAK_SEED is the first seed (default: from the time), SOAK_PRESET the
# build, SOAK_JOBS the number of the model's sequences at a time, SOAK_KEEPER_JOBS that of the
# keeper's, SOAK_KEEPER_STEPS their length, SOAK_LOG the directory for the reports of failures.
set -u
cd "$(dirname "$(readlink -f "$0")")/.." || exit 1

minutes=${1:-}
case $minutes in
'' | *[!0-9]*) echo "usage: ./test --soak MINUTES" >&2; exit 2 ;;
esac

preset=${SOAK_PRESET:-test}
jobs=${SOAK_JOBS:-$(($(nproc) * 8))} # they mostly wait
keeper_jobs=${SOAK_KEEPER_JOBS:-$(($(nproc) * 4))}
keeper_steps=${SOAK_KEEPER_STEPS:-60}
first=${SOAK_SEED:-$(date +%s)}

. tools/setup.sh
# shellcheck disable=SC2086
need_packages $build_packages $test_packages
configure "$preset"
build "$preset" model_tests ctl_kernel_tests
program=build/$preset/tests/model/model_tests
keeper_program=build/$preset/tests/ctl/kernel/ctl_kernel_tests

reports=${SOAK_LOG:-build/soak}
mkdir -p "$reports"
say "$jobs sequences at a time, and $keeper_jobs of the keeper, from seed $first, for $minutes minutes;" \
    "failures are kept in $reports"

# work NUMBER: runs every jobs-th seed, and prints a line for each. The report of a failure goes to a
# separate file.
work() {
    local seed=$((first + $1)) report
    while [ $SECONDS -lt $((minutes * 60)) ]; do
        report=$reports/$seed.txt
        timeout 600 "$program" --replay "$seed" >"$report" 2>&1
        if head -n 1 "$report" | grep '^passed'; then
            rm -f "$report"
        else
            echo "FAILED: seed $seed, see $report"
        fi
        seed=$((seed + jobs))
    done
}
keep() {
    local seed=$((first + $1)) report
    while [ $SECONDS -lt $((minutes * 60)) ]; do
        report=$reports/keeper-$seed.txt
        KEEPER_SEED=$seed KEEPER_STEPS=$keeper_steps timeout 3600 "$keeper_program" \
            --gtest_filter='KeeperRandomly.*' >"$report" 2>&1
        if grep -q '^\[  PASSED  \] 1 test' "$report" && grep '^kept: ' "$report"; then
            rm -f "$report"
        else
            echo "FAILED keeper: seed $seed, see $report"
        fi
        seed=$((seed + keeper_jobs))
    done
}
work_all() {
    local job
    for ((job = 0; job < jobs; job++)); do work "$job" & done
    for ((job = 0; job < keeper_jobs; job++)); do keep "$job" & done
    wait
}

lines=$scratch/lines
sequences=0
: >"$lines"
note_sequence() {
    printf '%s\n' "$1" >>"$lines"
    sequences=$((sequences + 1))
    case $1 in FAILED*) failures=$((failures + 1)); pass_on "$1" ;; esac
    state="$sequences sequences, $failures failed"
}
step sequence "Soaking for $minutes minutes" \
    bash -c "$(declare -p first jobs keeper_jobs keeper_steps keeper_program minutes program reports)
        $(declare -f work keep work_all); work_all"

failing=$(sed -n 's/^FAILED: seed \([0-9]*\),.*/\1/p' "$lines" | sort -n)
for seed in $(head -n 3 <<<"$failing"); do
    say "seed $seed, shortened:"
    step lines "Shortening $seed" "$program" --shrink "$seed"
done
awk -v failed="$(wc -w <<<"$failing")" -v seeds="$(tr '\n' ' ' <<<"$failing")" '
    /^(kept|FAILED keeper): / { ++keepers }
    /^FAILED keeper: / { ++keepers_failed }
    /^kept: / { gsub(",", ""); events += $4; restarts += $7; certain += $9; uncertain += $12; undone += $15 }
    /^passed/ { gsub(",", ""); operations += $5; items += $7; undetermined += $9; refused += $11 }
    END { printf "%d sequences, %d failed; %d operations, %d items compared, ", NR - keepers, failed,
              operations, items - undetermined
          printf "%d undetermined, %d refused by the kernel\n", undetermined, refused
          printf "keeper: %d sequences, %d failed; %d link events, %d restarts, %d deletions; ", keepers,
              keepers_failed, events, restarts, certain
          printf "%d more while something happened, %d of them undone\n", uncertain, undone
          if (failed > 0) print "failing seeds: " seeds
          exit failed > 0 || keepers_failed > 0 || NR == keepers && '"$jobs"' > 0 || NR == 0 }' "$lines"
