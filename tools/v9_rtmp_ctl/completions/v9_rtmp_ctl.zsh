#compdef v9_rtmp_ctl
# Completion of v9_rtmp_ctl for zsh: commands, options, and the ids and stream names of the running server.
#
# Load it with: source <(v9_rtmp_ctl completion zsh), or store it as _v9_rtmp_ctl in a directory of $fpath.

# Prints the listing from the socket that the command line names.
_v9_rtmp_ctl_list() {
    local -a socket
    local at=${typed[(i)--socket]}
    if ((at < $#typed)); then
        socket=(--socket "${typed[at + 1]}")
    else
        socket=(${(M)typed:#--socket=*})
    fi
    command v9_rtmp_ctl --plain --timeout 1 $socket list 2>/dev/null
}

# Offers stream names. Only names of letters, digits and '_' are offered; the server accepts no others.
_v9_rtmp_ctl_streams() {
    local -a names=(${(fu)"$(_v9_rtmp_ctl_list | cut -f 2 | grep -xE '[A-Za-z0-9_]+')"})
    compadd -F typed -a names
}

_v9_rtmp_ctl_addresses() {
    local -a addresses=(${(fu)"$(_v9_rtmp_ctl_list | cut -f 7 | sed 's/:[0-9]*$//' | grep -xE '[0-9.]+')"})
    compadd -F typed -a addresses
}

# Offers ids that have not been typed yet, in numeric order, each with its stream and address.
_v9_rtmp_ctl_ids() {
    local -a lines=(${(f)"$(_v9_rtmp_ctl_list | sort -n | awk -F '\t' '$1 ~ /^[0-9]+$/ {
        print $1 "  " ($2 == "" ? "no stream" : $3 " " substr($2, 1, 40)) " " $7 }')"})
    local -a ids described
    local entry
    for entry in $lines; do
        if ((!${typed[(Ie)${entry%% *}]})); then
            ids+=("${entry%% *}")
            described+=("$entry")
        fi
    done
    compadd -V ids -l -d described -a ids
}

_v9_rtmp_ctl() {
    # Copied now, because _arguments later shortens the array "words" to begin with the command.
    local -a typed=("${(@)words[1, CURRENT - 1]}")
    local -a global commands drops streams_picked addresses_picked mode_picked orders
    local curcontext=$curcontext state line
    local -A opt_args
    global=(
        '--socket=[the control socket of the server]:socket:_files'
        '--timeout=[how long the server may be silent]:seconds'
        '--unit=[unit of rates]:unit:(bytes bits)'
        '(--plain)--json[print JSON]'
        '(--json)--plain[print fields separated by TABs]'
        '--no-color[print without color]'
        '(-q --quiet)'{-q,--quiet}'[do not report what was done]'
        '(-h --help)'{-h,--help}'[print help]'
        '(-V --version)'{-V,--version}'[print the version of this tool]'
    )
    streams_picked=('*--stream=[only those of this stream]:stream:_v9_rtmp_ctl_streams')
    addresses_picked=('*--address=[only those from this address or prefix]:address:_v9_rtmp_ctl_addresses')
    mode_picked=('--mode=[only those that publish, play, or do neither]:mode:(publish play none)')
    orders=(
        '(-r --reverse)'{-r,--reverse}'[reverse the order]'
        '--no-legend[print neither titles nor the count]'
    )
    local -a dry_run=('(-n --dry-run)'{-n,--dry-run}'[only show what would be dropped]')
    local -a force=('(-f --force)'{-f,--force}'[do not ask]')
    commands=(
        'hello:greet the server and check its port'
        'list:list the connections'
        'streams:list the streams'
        'drop:drop connections'
        'watch:show streams and connections live'
        'watchdog:drop clients that stall, fall behind or hold a slot without using it'
        'events:print a line when a client connects, publishes, plays, takes over or leaves'
        'check:report what is wrong with the server, or about to go wrong'
        'metrics:print metrics in the text format of Prometheus'
        'serve:serve a status page and metrics over HTTP'
        'raw:send a command unchanged and print the reply as JSON'
        'completion:print the completion script for a shell'
        'version:print the version of this tool'
        'help:print help about a command'
    )
    drops=(
        'id:drop connections by their ids'
        'stream:drop all connections of streams'
        'address:drop all connections from addresses'
        'unnamed:drop all connections that have not chosen a stream'
    )

    _arguments -C $global '1:command:->command' '*::argument:->argument' && return
    case $state in
        command) _describe command commands ;;
        argument)
            case $line[1] in
                list)
                    _arguments $global $streams_picked $addresses_picked $mode_picked $orders \
                        '--sort=[order of the lines]:order:(id stream rate)'
                    ;;
                streams)
                    _arguments $global $orders '--sort=[order of the lines]:order:(stream rate)' \
                        '*:stream:_v9_rtmp_ctl_streams'
                    ;;
                drop)
                    _arguments -C $global '1:what:->what' '*::argument:->drop' && return
                    case $state in
                        what) _describe what drops ;;
                        drop)
                            case $line[1] in
                                id)
                                    _arguments $global $dry_run '*:id:_v9_rtmp_ctl_ids' \
                                        '--stream=[drop only connections of this stream]:stream:_v9_rtmp_ctl_streams' \
                                        '--no-list[do not request the list before and after]'
                                    ;;
                                stream)
                                    _arguments $global $addresses_picked $mode_picked $dry_run $force \
                                        '*:stream:_v9_rtmp_ctl_streams'
                                    ;;
                                address)
                                    _arguments $global $streams_picked $mode_picked $dry_run $force \
                                        '*:address:_v9_rtmp_ctl_addresses'
                                    ;;
                                unnamed) _arguments $global $addresses_picked $dry_run $force ;;
                            esac
                            ;;
                    esac
                    ;;
                watch)
                    _arguments $global $streams_picked $addresses_picked $mode_picked \
                        '--interval=[time between two listings]:seconds'
                    ;;
                watchdog)
                    _arguments $global $dry_run \
                        '--stalled=[drop a player that receives nothing]:seconds:(off)' \
                        '--behind=[drop a player that is this far behind]:seconds:(off)' \
                        '--unnamed=[drop a client without a stream name]:seconds:(off)' \
                        '--silent=[drop a publisher that sends nothing]:seconds:(off)' \
                        '--contested=[drop a silent publisher while another one waits]:seconds:(off)' \
                        '--age=[drop a player that has played this long]:seconds:(off)' \
                        '--stagger=[time between two drops for age]:seconds' \
                        '--long-name=[drop a client whose stream name is longer than this]:bytes:(off)' \
                        '*--publish-from=[drop publishers from elsewhere]:prefix' \
                        '--interval=[time between two listings]:seconds' \
                        '--settle=[time from choosing a stream until a client is compared with others]:seconds' \
                        '--state=[keep first-seen times in this directory]:directory:_files -/' \
                        '--config=[read options from this file too]:file:_files'
                    ;;
                events)
                    _arguments $global '--interval=[time between two listings]:seconds' \
                        '--exec=[run this program for each event]:program:_files'
                    ;;
                check)
                    _arguments $global '--rtmp=[where the server accepts RTMP clients]:address' \
                        '--publish-test[send a short stream through the server]'
                    ;;
                metrics)
                    _arguments $global '(-o --output)'{-o,--output}'=[write the metrics to this file]:file:_files' \
                        '--interval=[time between two listings]:seconds' \
                        "--watchdog-state=[the watchdog's state directory]:directory:_directories"
                    ;;
                serve)
                    _arguments $global '--listen=[where to listen]:address and port' \
                        '*--host=[a host name that browsers may use to reach the page]:name' \
                        '--allow-drop[allow the page to drop connections]' '--token-file=[the file with the token]:file:_files' \
                        "--watchdog-state=[the watchdog's state directory]:directory:_directories"
                    ;;
                raw) _arguments $global '--async[request no reply]' '1:command:(hello)' '*:argument:' ;;
                completion) _arguments $global '1:shell:(bash zsh fish)' ;;
                help)
                    _arguments $global '1:command:(hello list streams drop watch watchdog events check metrics serve raw completion version)' \
                        '2:what:(id stream address unnamed)'
                    ;;
                *) _arguments $global ;;
            esac
            ;;
    esac
}

# The completion system runs this file as the function; if the file is sourced, it registers the function.
if [[ ${funcstack[1]} == _v9_rtmp_ctl ]]; then
    _v9_rtmp_ctl "$@"
else
    compdef _v9_rtmp_ctl v9_rtmp_ctl
fi
