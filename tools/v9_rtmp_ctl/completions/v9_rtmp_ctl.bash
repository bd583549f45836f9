# Completion of v9_rtmp_ctl for bash: commands, options, and the ids and stream names of the running server.
#
# Load it with: source <(v9_rtmp_ctl completion bash)

# Prints field $1 of the listing, each value once. Asks the socket that the command line names. Stream names are
# made of letters, digits and '_'; whatever else a listing holds is not offered.
_v9_rtmp_ctl_live() {
    local i socket=()
    for ((i = 1; i < ${#typed[@]} - 2; i++)); do
        if [[ ${typed[i]} == --socket ]]; then
            socket=(--socket "${typed[i + 1]}")
        fi
    done
    command v9_rtmp_ctl --plain --timeout 1 "${socket[@]}" list 2>/dev/null | cut -f "$1" | grep -xE '[A-Za-z0-9_]+' |
        sort -u
}

# Offers those of the words on standard input that begin with what was typed.
_v9_rtmp_ctl_offer() {
    local word
    while IFS= read -r word; do
        if [[ $word == "$cur"* ]]; then
            COMPREPLY+=("$word")
        fi
    done
}

# Stores in typed the words up to the cursor, an option and its value always as two: bash gives "--sort=id" as three
# words, or as one where COMP_WORDBREAKS has no '='.
_v9_rtmp_ctl_read_words() {
    local i word
    typed=()
    for ((i = 0; i <= COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        if [[ $word == = && ${COMP_WORDS[i - 1]} == --* ]]; then
            if ((i == COMP_CWORD)); then
                typed+=("")
            fi
        elif [[ $word == --*=* ]]; then
            typed+=("${word%%=*}" "${word#*=}")
            if ((i == COMP_CWORD)); then
                glue=${word%%=*}=
            fi
        else
            typed+=("$word")
        fi
    done
}

_v9_rtmp_ctl() {
    local typed glue="" i
    COMPREPLY=()
    _v9_rtmp_ctl_read_words
    _v9_rtmp_ctl_complete
    for i in "${!COMPREPLY[@]}"; do
        COMPREPLY[i]=$glue${COMPREPLY[i]}
    done
}

_v9_rtmp_ctl_complete() {
    local cur=${typed[-1]} prev=${typed[-2]}
    local global="--socket --timeout --json --plain --no-color --quiet --help"
    local command="" what="" value="" i
    for ((i = 1; i < ${#typed[@]} - 1; i++)); do
        case ${typed[i]} in
            --socket | --timeout | --mode | --stream | --sort | --interval) ((i++)) ;;
            -*) ;;
            *)
                if [[ -z $command ]]; then
                    command=${typed[i]}
                elif [[ -z $what ]]; then
                    what=${typed[i]}
                else
                    value=${typed[i]}
                fi
                ;;
        esac
    done

    case $prev in
        --socket)
            mapfile -t COMPREPLY < <(compgen -f -- "$cur")
            return
            ;;
        --timeout | --interval) return ;;
        --mode)
            mapfile -t COMPREPLY < <(compgen -W "publish play none" -- "$cur")
            return
            ;;
        --sort)
            mapfile -t COMPREPLY < <(compgen -W "id stream rate" -- "$cur")
            return
            ;;
        --stream)
            _v9_rtmp_ctl_offer < <(_v9_rtmp_ctl_live 2)
            return
            ;;
    esac

    local words=""
    case $command in
        "") words="hello list streams drop watch raw completion version help" ;;
        list) words="--mode --stream --sort --no-legend" ;;
        drop)
            case $what in
                "") words="id stream unnamed" ;;
                id)
                    words="--stream"
                    if [[ -z $value ]]; then
                        _v9_rtmp_ctl_offer < <(_v9_rtmp_ctl_live 1)
                    fi
                    ;;
                stream)
                    words="--dry-run --force"
                    if [[ -z $value ]]; then
                        _v9_rtmp_ctl_offer < <(_v9_rtmp_ctl_live 2)
                    fi
                    ;;
                unnamed) words="--force" ;;
            esac
            ;;
        watch) words="--interval" ;;
        raw)
            if [[ -n $what ]]; then
                return
            fi
            words="--async"
            _v9_rtmp_ctl_offer <<<$'hello'
            ;;
        completion) words="bash zsh fish" ;;
        help) words="hello list streams drop watch raw completion version" ;;
    esac
    if [[ $cur == -* ]]; then
        words="$words $global"
    elif [[ -n $command ]]; then
        # Options are offered once a dash was typed; arguments at once.
        words=$(printf '%s\n' $words | grep -v '^-')
    fi
    mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -W "$words" -- "$cur")
}

complete -F _v9_rtmp_ctl v9_rtmp_ctl
