#!/bin/bash
# in_tree.sh HOW COMMAND...: runs inside a tree. Sets it up as HOW says, fetches the sources, and runs
# the commands. Prints "== COMMAND SECONDS RESULT" for each. /shared contains the sources (source.git,
# source.tar), the time of the commit, and the objects of configurations that were built before.
set -u
how=$1
shift
export DEBIAN_FRONTEND=noninteractive LANG=C.UTF-8 TERM=dumb
place=/src/tandrel
as=()

install() { apt-get -q update && apt-get -y -q install --no-install-recommends "$@"; }
add_user() { useradd --create-home --shell /bin/bash dev && as=(runuser -u dev --); }

case $how in
clang) install clang && export CC=clang CXX=clang++ ;;
blank) place='/src/a place/tandrel' ;;
sudo) install sudo && add_user && echo 'dev ALL=(ALL) NOPASSWD: ALL' >/etc/sudoers.d/dev ;;
user) add_user ;;
home) add_user && mount --bind /home/dev /home/dev && mount -o remount,bind,ro /home/dev ;;
lang-unset) unset LANG ;;
lang-german)
    install locales && echo 'de_DE.UTF-8 UTF-8' >/etc/locale.gen && locale-gen && export LANG=de_DE.UTF-8
    ;;
lacks:*) apt-get -y -q remove "${how#lacks:}" && apt-get -q update ;;
esac || { echo "cannot set the tree up: $how"; exit 1; }

mkdir -p "$place"
if [ "$how" = tarball ]; then
    tar -xf /shared/source.tar -C "$place"
else
    git clone -q /shared/source.git "$place"
fi || exit 1
cd "$place" || exit 1
# The sources must be older than the objects of an earlier run.
find . -path ./.git -prune -o -type f -exec touch -d "@$(cat /shared/time)" {} +
[ ${#as[@]} -eq 0 ] || { chown -R dev: . && export HOME=/home/dev; }

# key PRESET: a text that is the same for equal configurations.
key() {
    { cat "build/$1/build.ninja" && "${CXX:-c++}" --version &&
        dpkg-query -W libboost-dev libnl-3-dev nlohmann-json3-dev libcli11-dev &&
        [ "$1" = release ] || dpkg-query -W libgtest-dev libnl-route-3-dev; } | sha256sum | cut -c1-16
}

# run COMMAND MODE: see trees.sh. Sets result.
run() {
    local command=$1 mode=$2 preset=release log=/tmp/$1.log known
    [ "$command" = demo ] || preset="test"
    marks=''
    if [ "$mode" != whole ]; then
        "${as[@]}" env STOP_AFTER=configure "./$command" >"$log" 2>&1 ||
            { result="FAILED to configure"; return 1; }
        known=/shared/built/$(key "$preset")
        if [ -e "$known" ]; then
            [ "$mode" = whole-or-known ] || { result="configured as before"; return 0; }
            "${as[@]}" cp -a --no-preserve=ownership "$known/." "build/$preset/"
            marks='*'
        elif [ "$mode" = configured ]; then
            "${as[@]}" env STOP_AFTER=build "./$command" >"$log" 2>&1 ||
                { result="FAILED to build"; return 1; }
            result="built"
            return 0
        fi
    fi
    "${as[@]}" "./$command" > >(tee "$log") 2>&1 || { result="FAILED: $(tail -n 1 "$log")"; return 1; }
    if [ "$command" = demo ]; then
        grep -q '^All of this happened on a real kernel' "$log" || { result="FAILED: no end"; return 1; }
        result=ok
    else
        result=$(tail -n 1 "$log")
        left_out=$(sed -n 's/^\([0-9]* skipped\):$/, \1/p' "$log")
        result+=$left_out
    fi
    known=/shared/built/$(key "$preset")
    if [ ! -e "$known" ] && [ "$place" = /src/tandrel ]; then
        cp -a "build/$preset" "$known.new" && mv "$known.new" "$known"
    fi
    result+=$marks
}

status=0
for word in "$@"; do
    case $word in
    *'*') mode=whole-or-known ;;
    *'?') mode=configured ;;
    *) mode=whole ;;
    esac
    command=${word%[*?]}
    began=$SECONDS
    run "$command" "$mode" || { status=1; tail -n 60 "/tmp/$command.log"; }
    printf '== ./%s %d %s\n' "$command" $((SECONDS - began)) "$result"
    if [ "$how" = offline ]; then
        began=$SECONDS
        if unshare --net "./$command" >/tmp/again.log 2>&1; then
            result=$(tail -n 1 /tmp/again.log | cut -c1-60)
        else
            status=1 result="FAILED: $(tail -n 1 /tmp/again.log)"
            tail -n 60 /tmp/again.log
        fi
        printf '== ./%s-without-network %d %s\n' "$command" $((SECONDS - began)) "$result"
    fi
done
exit "$status"
