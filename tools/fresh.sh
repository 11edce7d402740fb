#!/bin/bash
# ./test --fresh [NAME...]: README's two commands on fresh machines: see tests/fresh/README.md.
set -u
cd "$(dirname "$(readlink -f "$0")")/.." || exit 1
. tools/setup.sh
. tests/fresh/trees.sh
need_root --fresh
need_space 8000
commit=$(git rev-parse HEAD) || die "needs a git checkout"
need_packages debootstrap

cache=$PWD/build/cache/fresh
results=$PWD/build/fresh/results/$commit
logs=$PWD/build/fresh/logs/$commit
shared=$PWD/build/fresh/shared/$commit
mkdir -p "$cache" "$results" "$logs" "$shared/built"
export FRESH_SHARED=$shared

names=()
while read -r name _; do
    if [ $# -eq 0 ]; then
        grep -q FAILED "$results/$name" 2>/dev/null || [ ! -e "$results/$name" ] || continue
        names+=("$name")
    else
        # shellcheck disable=SC2053 # a pattern is meant
        for wanted in "$@"; do [[ $name != $wanted ]] || names+=("$name"); done
    fi
done < <(tree_table)
[ ${#names[@]} -gt 0 ] || [ $# -eq 0 ] || die "no such tree: $*; there are: $(tree_table | awk '{printf "%s ", $1}')"

# Only committed files. Runs for other trees of this commit may be in progress.
(
    flock 9
    [ ! -e "$shared/time" ] || exit 0
    rm -rf "$shared/source.git"
    git clone -q --bare . "$shared/source.git" && git archive -o "$shared/source.tar" HEAD &&
        git log -1 --format=%ct >"$shared/time"
) 9>"$shared/lock" || die "cannot copy the sources"

declare -A lock_of # a suite's archives: held, or none if another run has them
# base BASE: creates it unless it exists.
base() {
    local suite=${1%-full} path=$cache/$1 lock
    # apt locks the archives, so the second of two simultaneous runs needs a directory of its own.
    export FRESH_ARCHIVES=$cache/archives-$suite
    mkdir -p "$FRESH_ARCHIVES/partial"
    if [ -z "${lock_of[$suite]-}" ]; then
        exec {lock}>"$FRESH_ARCHIVES/in-use"
        if flock -n "$lock"; then lock_of[$suite]=held; else lock_of[$suite]=none; fi
    fi
    if [ "${lock_of[$suite]}" = none ]; then
        FRESH_ARCHIVES=$scratch/archives-$suite
        mkdir -p "$FRESH_ARCHIVES/partial"
    fi
    [ ! -e "$path.complete" ] || return 0
    rm -rf "$path"
    mkdir -p "$path"
    if [ "$1" = "$suite" ]; then
        step debootstrap "Making a $suite tree" debootstrap --variant=minbase --include=git,ca-certificates \
            "$suite" "$path" || { tail -n 20 "$step_log" >&2; die "debootstrap failed"; }
        cp /etc/resolv.conf "$path/etc/resolv.conf"
        # A mirror may be out of date.
        echo 'Acquire::Check-Valid-Until "false";' >"$path/etc/apt/apt.conf.d/90mirror"
    else
        base "$suite"
        # shellcheck disable=SC2016,SC2086
        step apt "Making a $1 tree" bash tests/fresh/enter.sh "$cache/$suite" "$path.made" env \
            DEBIAN_FRONTEND=noninteractive sh -c \
            'apt-get -q update && apt-get -y -q install --no-install-recommends "$@" && cp -ax / /shared/full' sh \
            $build_packages $demo_packages $test_packages $lint_packages ||
            { tail -n 20 "$step_log" >&2; die "apt-get failed"; }
        rm -rf "$path" "$path.made"
        mv "$shared/full" "$path"
    fi
    touch "$path.complete"
}

note_fresh() {
    note_log "$1"
    if [[ $1 =~ ^(Installing|Configuring|Building|Testing).*,\ [0-9]+:[0-9][0-9]$ ]]; then
        state=${1%, *}
    elif [[ $1 == '== '* ]]; then
        printf '%s\n' "${1#== }" >>"$results/$name.new"
    fi
}

number=0
for name in "${names[@]}"; do
    number=$((number + 1))
    read -r _ base how commands < <(tree_table | awk -v name="$name" '$1 == name')
    base "$base"
    rm -rf "$scratch/tree" "$results/$name.new"
    mkdir "$scratch/tree"
    cp tests/fresh/in_tree.sh "$shared/"
    set -f # "*" and "?" in the commands are not patterns
    # shellcheck disable=SC2086
    step fresh "$name ($number of ${#names[@]})" bash tests/fresh/enter.sh "$cache/$base" "$scratch/tree" \
        bash /shared/in_tree.sh "$how" $commands
    status=$?
    set +f
    cp "$step_log" "$logs/$name"
    if [ "$status" -ne 0 ] && ! grep -q FAILED "$results/$name.new" 2>/dev/null; then
        echo "- 0 FAILED: see $logs/$name" >>"$results/$name.new"
    fi
    mv "$results/$name.new" "$results/$name"
done

passed=0
failed=0
printf '%-24s %-24s %7s  %s\n' tree command seconds result
while read -r name _; do
    [ -e "$results/$name" ] || continue
    while read -r command seconds result; do
        printf '%-24s %-24s %7s  %s\n' "$name" "$command" "$seconds" "$result"
        case $result in *FAILED*) failed=$((failed + 1)) ;; *) passed=$((passed + 1)) ;; esac
    done <"$results/$name"
done < <(tree_table)
say "at $commit; * reused the objects of a tree with the same configuration"
say "$passed passed, $failed failed"
[ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
