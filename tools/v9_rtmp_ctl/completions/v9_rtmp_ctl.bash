# Completion of v9_rtmp_ctl for bash: commands, options, and the ids and stream names of the running server.
#
# Load it with: source <(v9_rtmp_ctl completion bash)

# Prints the listing from the socket that the command line names.
_v9_rtmp_ctl_list() {
    local i socket=()
    for ((i = 1; i < ${#typed[@]} - 2; i++)); do
        if [[ ${typed[i]} == --socket ]]; then
            socket=(--socket "${typed[i + 1]}")
        fi
    done
    command v9_rtmp_ctl --plain --timeout 1 "${socket[@]}" list 2>/dev/null
}

# Prints each stream name once. Only names of letters, digits and '_' are offered; the server accepts no others.
_v9_rtmp_ctl_streams() {
    _v9_rtmp_ctl_list | cut -f 2 | grep -xE '[A-Za-z0-9_]+' | sort -u
}

_v9_rtmp_ctl_addresses() {
    _v9_rtmp_ctl_list | cut -f 7 | sed 's/:[0-9]*$//' | grep -xE '[0-9.]+' | sort -u
}

# Prints each id, a TAB, and the client it belongs to, in numeric order.
_v9_rtmp_ctl_ids() {
    _v9_rtmp_ctl_list | sort -n | awk -F '\t' '$1 ~ /^[0-9]+$/ {
        print $1 "\t" ($2 == "" ? "no stream" : $3 " " substr($2, 1, 40)) " " $7 }'
}

# Offers ids. If several ids match, each is shown with its client. readline inserts only the common prefix, which
# consists of digits. When completions are cycled through, only the ids are offered.
_v9_rtmp_ctl_offer_ids() {
    local id client ids=() described=()
    while IFS=$'\t' read -r id client; do
        if [[ $id == "$cur"* && $given != *" $id "* ]]; then
            ids+=("$id")
            described+=("$id -- $client")
        fi
    done < <(_v9_rtmp_ctl_ids)
    case ${COMP_TYPE-} in
        9 | 33 | 63 | 64)
            if ((${#ids[@]} > 1)); then
                ids=("${described[@]}")
            fi
            ;;
    esac
    COMPREPLY+=("${ids[@]}")
}

# Offers the words on standard input that begin with the typed text and have not been typed yet.
_v9_rtmp_ctl_offer() {
    local word
    while IFS= read -r word; do
        if [[ $word == "$cur"* && $given != *" $word "* ]]; then
            COMPREPLY+=("$word")
        fi
    done
}

# Stores the words up to the cursor in typed. An option and its value are always stored as two words: bash splits
# "--sort=id" into three words, or into one if COMP_WORDBREAKS has no '='.
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
    local global="--socket --timeout --unit --json --plain --no-color --quiet --help --version"
    local command="" what="" given="" i
    for ((i = 1; i < ${#typed[@]} - 1; i++)); do
        case ${typed[i]} in
            --socket | --timeout | --unit | --mode | --stream | --address | --sort | --interval | --stalled | --behind | \
                --unnamed | --silent | --contested | --age | --stagger | --long-name | --publish-from | --settle | \
                --state | --config | --exec | --rtmp | --output | -o | --listen | --host | \
                --token-file | --watchdog-state) ((i++)) ;;
            -*) ;;
            *)
                if [[ -z $command ]]; then
                    command=${typed[i]}
                elif [[ -z $what ]]; then
                    what=${typed[i]}
                    given=" $what "
                else
                    given+=" ${typed[i]} "
                fi
                ;;
        esac
    done

    case $prev in
        --socket | --state | --config | --exec | --output | -o | --token-file | --watchdog-state)
            mapfile -t COMPREPLY < <(compgen -f -- "$cur")
            return
            ;;
        --stalled | --behind | --unnamed | --silent | --contested | --age | --long-name)
            mapfile -t COMPREPLY < <(compgen -W "off" -- "$cur")
            return
            ;;
        --timeout | --interval | --stagger | --settle | --publish-from | --rtmp | --listen | --host) return ;;
        --mode)
            mapfile -t COMPREPLY < <(compgen -W "publish play none" -- "$cur")
            return
            ;;
        --unit)
            mapfile -t COMPREPLY < <(compgen -W "bytes bits" -- "$cur")
            return
            ;;
        --sort)
            local orders="id stream rate"
            if [[ $command == streams ]]; then
                orders="stream rate"
            fi
            mapfile -t COMPREPLY < <(compgen -W "$orders" -- "$cur")
            return
            ;;
        --stream)
            given=""
            _v9_rtmp_ctl_offer < <(_v9_rtmp_ctl_streams)
            return
            ;;
        --address)
            given=""
            _v9_rtmp_ctl_offer < <(_v9_rtmp_ctl_addresses)
            return
            ;;
    esac

    local words=""
    case $command in
        "") words="hello list streams drop watch watchdog events check metrics serve raw completion version help" ;;
        list) words="--stream --address --mode --sort --reverse --no-legend" ;;
        streams)
            words="--sort --reverse --no-legend"
            _v9_rtmp_ctl_offer < <(_v9_rtmp_ctl_streams)
            ;;
        drop)
            case $what in
                "") words="id stream address unnamed" ;;
                id)
                    words="--stream --dry-run --no-list"
                    _v9_rtmp_ctl_offer_ids
                    ;;
                stream)
                    words="--address --mode --dry-run --force"
                    _v9_rtmp_ctl_offer < <(_v9_rtmp_ctl_streams)
                    ;;
                address)
                    words="--stream --mode --dry-run --force"
                    _v9_rtmp_ctl_offer < <(_v9_rtmp_ctl_addresses)
                    ;;
                unnamed) words="--address --dry-run --force" ;;
            esac
            ;;
        watchdog)
            words="--stalled --behind --unnamed --silent --contested --age --stagger --long-name --publish-from"
            words="$words --interval --settle --state --config --dry-run"
            ;;
        events) words="--interval --exec" ;;
        check) words="--rtmp --publish-test" ;;
        watch) words="--interval --stream --address --mode" ;;
        metrics) words="--output --interval --watchdog-state" ;;
        serve) words="--listen --host --allow-drop --token-file --watchdog-state" ;;
        raw)
            if [[ -n $what ]]; then
                return
            fi
            words="--async"
            _v9_rtmp_ctl_offer <<<$'hello'
            ;;
        completion) words="bash zsh fish" ;;
        help)
            case $what in
                "") words="hello list streams drop watch watchdog events check metrics serve raw completion version" ;;
                drop) words="id stream address unnamed" ;;
            esac
            ;;
    esac
    if [[ $cur == -* ]]; then
        words="$words $global"
    elif [[ -n $command ]]; then
        # Options are offered only after a dash has been typed; arguments always.
        words=$(printf '%s\n' $words | grep -v '^-')
    fi
    mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -W "$words" -- "$cur")
}

complete -o nosort -F _v9_rtmp_ctl v9_rtmp_ctl
