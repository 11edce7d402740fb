# shellcheck shell=bash
# Sourced by tools/fresh.sh: the trees. Each line of tree_table is
#   NAME  BASE  HOW  COMMANDS
# BASE: a minimal Debian suite; or SUITE-full, with all packages of the lists in tools/setup.sh.
# HOW: what in_tree.sh does differently there ("-" for nothing).
# COMMANDS: demo, test: run completely, in a new clone. demo*, test*: the same, but with the objects of
# an equal configuration if one was built before. demo?, test?: only configured, and built if no equal
# configuration was built before.

tree_table() {
    cat <<'TABLE'
bookworm     bookworm       -            demo test
trixie       trixie         -            demo test
sid          sid            -            demo test
clang        bookworm       clang        demo test
blank        bookworm       blank        demo test
tarball      bookworm-full  tarball      demo* test*
sudo         bookworm       sudo         demo* test*
user         bookworm-full  user         demo* test*
home         bookworm-full  home         demo* test*
lang-unset   bookworm-full  lang-unset   demo* test*
lang-german  bookworm-full  lang-german  demo* test*
offline      bookworm       offline      demo* test*
TABLE
    local package commands
    # shellcheck disable=SC2154,SC2086
    for package in $(printf '%s\n' $build_packages $demo_packages $test_packages $lint_packages | sort -u); do
        case $package in
        mandoc | libgtest-dev | clang-tidy | shellcheck | iproute2) commands='demo* test*' ;;
        *) commands='demo? test?' ;;
        esac
        printf 'lacks-%s bookworm-full lacks:%s %s\n' "$package" "$package" "$commands"
    done
}
