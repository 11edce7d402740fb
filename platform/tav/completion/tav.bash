# Completion of tav(1) for bash: commands, options, and paths from the running store.
#
# The names in a store hold blanks, colons and whatever else, and readline cuts words at some of
# these. So the line is taken apart here, and what is offered is always what was typed so far with
# the rest behind it, quoted as the word was begun.

# Takes the line up to the cursor apart as the shell would: words without their quotes in `words`,
# the last of which is being completed; the kind of quote that is open in `quote`; whether it ends in
# a backslash that still waits for its character in `pending`.
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

# Quotes a text as the rest of a word whose open quote is `quote`; the result in `quoted`.
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
        # The tool's escapes are among those that printf knows.
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
        compopt -o nospace # below a node there is more to come
    elif [[ $quote && ${COMPREPLY[0]} == *"$quote" ]]; then
        COMPREPLY[0]+=$quote # readline would take the name's own quote for the closing one
    fi
}

# The words of each command's options.
_tav_options() {
    local common='--help --socket --color'
    case $1 in
    get) printf '%s' "$common --recursive --raw --json --escaped" ;;
    ls) printf '%s' "$common --long --json --escaped" ;;
    tree) printf '%s' "$common --json --escaped" ;;
    set) printf '%s' "$common --type --escaped" ;;
    mknode | touch) printf '%s' "$common --escaped" ;;
    rm) printf '%s' "$common --recursive --escaped" ;;
    dump) printf '%s' "$common --no-time --escaped" ;;
    load) printf '%s' "$common --merge --replace --parts" ;;
    apply | diff) printf '%s' "$common" ;;
    watch) printf '%s' "$common --count --timeout --json --escaped" ;;
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
    # Such a backslash came from what several names had in common; it is written anew.
    [[ $pending ]] && typed=${typed%\\}

    # What came before: the command, and how many of its own arguments.
    for ((i = 1; i < ${#words[@]} - 1; i++)); do
        case ${words[i]} in
        --socket) socket=(--socket "${words[++i]}") ;;
        --socket=*) socket=("${words[i]}") ;;
        --color | -t | --type | --count | --timeout) ((++i)) ;;
        -*) ;;
        *) if [[ $command ]]; then ((++position)); else command=${words[i]}; fi ;;
        esac
    done

    case ${words[-2]} in
    --socket) compopt -o default; return ;;
    --color) _tav_offer auto always never; return ;;
    -t | --type) _tav_offer string boolean integer real; return ;;
    --count | --timeout) return ;;
    esac
    if [[ $word == -* && ! ($command == set && $position -gt 0) ]]; then
        # shellcheck disable=SC2046
        _tav_offer $(_tav_options "$command")
        return
    fi
    case $command in
    '') _tav_offer get ls tree set mknode touch rm apply dump load diff watch status ;;
    set) ((position % 2 == 0)) && _tav_offer_paths "$typed" ;;
    get | mknode | touch | rm) _tav_offer_paths "$typed" ;;
    ls | tree | dump | watch) ((position == 0)) && _tav_offer_paths "$typed" ;;
    apply | load | diff) ((position == 0)) && compopt -o default ;;
    esac
}

complete -F _tav tav
