# Completion of tav(1) for bash: commands, options, and paths from the running store.
#
# Names in a store may contain blanks, colons and other characters at which readline splits words.
# So the line is split here, and every completion is the typed text followed by the rest, in the
# quotes with which the word begins.

# Splits the line up to the cursor as the shell would: `words` has the words without their quotes,
# and the last one is being completed; `quote` is the kind of quote that is open; `pending` says
# whether the line ends with a backslash that still needs its character.
_tav_words() {
    local line=${COMP_LINE:0:COMP_POINT} i c word='' started=''
    words=() quote='' pending=''
    for ((i = 0; i < ${#line}; i++)); do
        c=${line:i:1}
        if [[ $pending ]]; then
            # Within "", only these lose their backslash.
            [[ $quote == '"' && $c != [\"\\\$\`] ]] && word+=$'\\'
            word+=$c pending=''
        elif [[ $c == $'\\' && $quote != "'" ]]; then
            pending=1 started=1
        elif [[ $quote ]]; then
            if [[ $c == "$quote" ]]; then quote=''; else word+=$c; fi
        elif [[ $c == [\'\"] ]]; then
            quote=$c started=1
        elif [[ $c == [[:space:]] ]]; then
            [[ $started ]] && words+=("$word")
            word='' started=''
        else
            word+=$c started=1
        fi
    done
    words+=("$word")
}

# Quotes a text as the rest of a word whose open quote is `quote`; the result is in `quoted`.
_tav_quote() {
    local text=$1 i
    quoted=''
    case $quote in
    '')
        [[ -z $text ]] || printf -v quoted '%q' "$text"
        ;;
    "'")
        quoted=${text//\'/"'\\''"}
        ;;
    *)
        for ((i = 0; i < ${#text}; i++)); do
            [[ ${text:i:1} == [\"\\\$\`] ]] && quoted+=$'\\'
            quoted+=${text:i:1}
        done
        ;;
    esac
}

# Offers those of the given words that begin with `word`.
_tav_offer() {
    local candidate
    for candidate in "$@"; do
        [[ $candidate == "$word"* ]] && COMPREPLY+=("$candidate")
    done
}

# Offers the store's paths that begin with `word`: children of the last complete node in it.
_tav_offer_paths() {
    local typed=$1 type name path quoted parent
    [[ $word == /* || -z $word ]] || return
    parent=${word%/*}
    # A store that hangs must not hang the shell.
    while IFS=$'\t' read -r type name; do
        # printf knows all of the tool's escapes.
        printf -v name '%b' "$name"
        path=$parent/$name
        [[ $path == "$word"* ]] || continue
        [[ $type == node ]] && path+=/
        _tav_quote "${path:${#word}}"
        COMPREPLY+=("$typed$quoted")
    done < <(TAV_TIMEOUT_MS=2000 "${words[0]}" ls -l --color=never "${socket[@]}" -- "${parent:-/}" \
        2>/dev/null)
    [[ ${#COMPREPLY[@]} -eq 1 ]] || return
    if [[ ${COMPREPLY[0]} == */ ]]; then
        compopt -o nospace # a node has children to complete
    elif [[ $quote && ${COMPREPLY[0]} == *"$quote" ]]; then
        COMPREPLY[0]+=$quote # readline would mistake the name's own quote for the closing one
    fi
}

# The words of each command's options.
_tav_options() {
    local common='--help --socket --color'
    case $1 in
    get) printf '%s' "$common --recursive --raw --json --escaped" ;;
    ls) printf '%s' "$common --long --json --escaped" ;;
    tree) printf '%s' "$common --json --escaped" ;;
    set) printf '%s' "$common --type --if --confirm --escaped" ;;
    mknode | touch) printf '%s' "$common --escaped" ;;
    rm) printf '%s' "$common --recursive --confirm --escaped" ;;
    dump) printf '%s' "$common --no-time --escaped" ;;
    load) printf '%s' "$common --merge --replace --parts --confirm" ;;
    apply | undo) printf '%s' "$common --confirm" ;;
    confirm | diff) printf '%s' "$common" ;;
    watch) printf '%s' "$common --count --timeout --json --escaped" ;;
    history) printf '%s' "$common --since --json --escaped" ;;
    status) printf '%s' "$common --json" ;;
    *) printf '%s' "$common --version" ;;
    esac
}

_tav() {
    local words quote pending word command='' position=0 i typed=$2
    local socket=()
    COMPREPLY=()
    _tav_words
    word=${words[-1]}
    # Such a backslash comes from the common beginning of several names; it is written again.
    [[ $pending ]] && typed=${typed%\\}

    # The words before the cursor: the command, and the number of its arguments.
    for ((i = 1; i < ${#words[@]} - 1; i++)); do
        case ${words[i]} in
        --socket) socket=(--socket "${words[++i]}") ;;
        --socket=*) socket=("${words[i]}") ;;
        --color | -t | --type | --if | --confirm | --count | --since | --timeout) ((++i)) ;;
        -*) ;;
        *) if [[ $command ]]; then ((++position)); else command=${words[i]}; fi ;;
        esac
    done

    case ${words[-2]} in
    --socket) compopt -o default; return ;;
    --color) _tav_offer auto always never; return ;;
    -t | --type) _tav_offer string boolean integer real; return ;;
    --if | --confirm | --count | --since | --timeout) return ;;
    esac
    if [[ $word == -* && ! ($command == set && $position -gt 0) ]]; then
        # shellcheck disable=SC2046
        _tav_offer $(_tav_options "$command")
        return
    fi
    case $command in
    '') _tav_offer get ls tree set mknode touch rm apply dump load diff history undo confirm watch status ;;
    set) ((position % 2 == 0)) && _tav_offer_paths "$typed" ;;
    get | mknode | touch | rm) _tav_offer_paths "$typed" ;;
    ls | tree | dump | history | watch) ((position == 0)) && _tav_offer_paths "$typed" ;;
    apply | load | diff) ((position == 0)) && compopt -o default ;;
    esac
}

complete -F _tav tav
