#!/bin/bash
# Changes the daemon's sources one place at a time and lists what no unit test notices. Called as
# ./test --mutate [N|--all|FILE...]; see tests/mutate/mutate.py --help.
set -u
cd "$(dirname "$(readlink -f "$0")")/.." || exit 1

. tools/setup.sh
# shellcheck disable=SC2086
need_packages $build_packages $test_packages $mutate_packages
configure test
build test unit_tests
# After each place it prints how many it has tried.
note_mutate() {
    case $1 in
    '# '*) state=${1#'# '} ;;
    *) pass_on "$1" ;;
    esac
}
step mutate "Changing one place at a time" nice python3 tests/mutate/mutate.py "$@"
