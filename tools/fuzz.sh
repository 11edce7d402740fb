#!/bin/bash
# ./test --fuzz SECONDS [TARGET...]: runs the fuzz targets one after the other, so long each.
# tools/fuzz.sh --merge [TARGET...]: takes what the runs found worth keeping into the corpora.
#
# What a run comes upon is kept in build/fuzz/found/TARGET, the inputs of findings in
# build/fuzz/findings. To repeat one: fuzz_TARGET FILE, with the program in build/fuzz/tests/fuzz or
# build/fuzz/platform/tav/tests/fuzz.
set -u
cd "$(dirname "$(readlink -f "$0")")/.." || exit 1

seconds=${1-}
case $seconds in
--merge) ;;
*[!0-9]* | '' | 0) printf 'Usage: ./test --fuzz SECONDS [TARGET...]\n' >&2; exit 2 ;;
esac
shift

. tools/setup.sh
# shellcheck disable=SC2086
need_packages $build_packages $test_packages $fuzz_packages
configure fuzz
build fuzz fuzz_targets

targets=("$@")
[ ${#targets[@]} -gt 0 ] || for program in build/fuzz/{tests,platform/tav/tests}/fuzz/fuzz_*; do
    targets+=("${program##*/fuzz_}")
done

# For speed: no record of where memory was allocated, and little freed memory held back. A finding is
# repeated without these.
export ASAN_OPTIONS=malloc_context_size=0:quarantine_size_mb=1:thread_local_quarantine_size_kb=16
ASAN_OPTIONS+=:max_redzone=64:allocator_release_to_os_interval_ms=-1

passed=0
failed=0

# prepare TARGET: sets program, corpus, inputs and the options of a run.
prepare() {
    local folder=tests/fuzz
    [ -e "$folder/$1.cpp" ] || folder=platform/tav/tests/fuzz
    program=build/fuzz/$folder/fuzz_$1
    corpus=$folder/corpus/$1
    seeds=$folder/seeds/$1
    found=build/fuzz/found/$1
    [ -x "$program" ] || die "no such target: $1"
    mkdir -p "$corpus" "$found" build/fuzz/findings
    inputs=("$found" "$corpus")
    [ -d "$seeds" ] && inputs+=("$seeds")
    options=(-max_len=512 -timeout=20 "-artifact_prefix=build/fuzz/findings/$1-")
    [ -f "$folder/$1.dict" ] && options+=("-dict=$folder/$1.dict")
}

# search TARGET: adds to the counts.
search() {
    prepare "$1"
    if step fuzz "Fuzzing $1 for $(clock "$seconds") ($2 of ${#targets[@]})" "$program" "${options[@]}" \
        "-max_total_time=$seconds" -print_final_stats=1 "${inputs[@]}"; then
        passed=$((passed + 1))
        say "$1: $(awk '/number_of_executed_units/ { print $2 }' "$step_log") inputs, nothing found"
    else
        failed=$((failed + 1))
        grep -vE '^(#|INFO|NEW_FUNC)' "$step_log" | tail -n 60
        say "$1: found an input, see above"
    fi
    cp "$step_log" "build/fuzz/findings/$1.log"
}
note_fuzz() {
    note_log "$1"
    [[ ! $1 =~ ^#([0-9]+) ]] || state="${BASH_REMATCH[1]} inputs"
}

# merge TARGET: the smallest set of inputs that reaches everything.
merge() {
    local merged
    prepare "$1"
    merged=$(mktemp -d)
    step log "Merging $1" "$program" -set_cover_merge=1 -timeout=20 -max_len=4096 "$merged" \
        "${inputs[@]}" || { tail -n 20 "$step_log" >&2; die "could not merge: $1"; }
    rm -rf "$corpus"
    mv "$merged" "$corpus"
    chmod 755 "$corpus"
    say "$1: $(find "$corpus" -type f | wc -l) inputs, $(du -bs "$corpus" | cut -f1) bytes"
}

number=0
for target in "${targets[@]}"; do
    number=$((number + 1))
    if [ "$seconds" = --merge ]; then merge "$target"; else search "$target" "$number"; fi
done
[ "$seconds" = --merge ] && exit 0
say "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
