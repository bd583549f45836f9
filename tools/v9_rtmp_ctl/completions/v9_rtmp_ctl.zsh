#compdef v9_rtmp_ctl
# Completion of v9_rtmp_ctl for zsh: commands, options, and the ids and stream names of the running server.
#
# Load it with: source <(v9_rtmp_ctl completion zsh), or store it as _v9_rtmp_ctl in a directory of $fpath.

# Offers field $1 of the listing. Asks the socket that the command line names. Stream names are made of letters,
# digits and '_'; whatever else a listing holds is not offered.
_v9_rtmp_ctl_live() {
    local -a socket values
    local at=${typed[(i)--socket]}
    if ((at < $#typed)); then
        socket=(--socket "${typed[at + 1]}")
    else
        socket=(${(M)typed:#--socket=*})
    fi
    values=(${(fu)"$(command v9_rtmp_ctl --plain --timeout 1 $socket list 2>/dev/null | cut -f $1 |
        grep -xE '[A-Za-z0-9_]+')"})
    compadd -a values
}

_v9_rtmp_ctl_ids() { _v9_rtmp_ctl_live 1 }
_v9_rtmp_ctl_streams() { _v9_rtmp_ctl_live 2 }

_v9_rtmp_ctl() {
    # Behind a command, words begins with that.
    local -a typed=("${(@)words[1, CURRENT - 1]}")
    local -a global commands drops
    local curcontext=$curcontext state line
    local -A opt_args
    global=(
        '--socket=[the control socket of the server]:socket:_files'
        '--timeout=[how long to wait for an answer]:seconds'
        '(--plain)--json[print JSON]'
        '(--json)--plain[print fields separated by TABs]'
        '--no-color[print without color]'
        '(-q --quiet)'{-q,--quiet}'[say nothing about what was done]'
        '(-h --help)'{-h,--help}'[print help]'
    )
    commands=(
        'hello:greet the server and tell how long its answer took'
        'list:list the connections'
        'streams:list the streams'
        'drop:drop connections'
        'watch:show streams and connections live'
        'raw:send a command as it is and print the reply as JSON'
        'completion:print the completion script of a shell'
        'version:print the version of this tool'
        'help:print help about a command'
    )
    drops=(
        'id:drop one connection'
        'stream:drop all connections of a stream'
        'unnamed:drop all connections that have not chosen a stream'
    )

    _arguments -C $global '1:command:->command' '*::argument:->argument' && return
    case $state in
        command) _describe command commands ;;
        argument)
            case $line[1] in
                list)
                    _arguments $global '--mode=[only those that publish, play, or do neither]:mode:(publish play none)' \
                        '--stream=[only those of this stream]:stream:_v9_rtmp_ctl_streams' \
                        '--sort=[order of the lines]:order:(id stream rate)' \
                        '--no-legend[print neither titles nor the count]'
                    ;;
                drop)
                    _arguments -C $global '1:what:->what' '*::argument:->drop' && return
                    case $state in
                        what) _describe what drops ;;
                        drop)
                            case $line[1] in
                                id)
                                    _arguments $global '1:id:_v9_rtmp_ctl_ids' \
                                        '--stream=[keep it if it is not of this stream]:stream:_v9_rtmp_ctl_streams'
                                    ;;
                                stream)
                                    _arguments $global '1:stream:_v9_rtmp_ctl_streams' \
                                        '(-n --dry-run)'{-n,--dry-run}'[only show what would be dropped]' \
                                        '(-f --force)'{-f,--force}'[do not ask]'
                                    ;;
                                unnamed) _arguments $global '(-f --force)'{-f,--force}'[do not ask]' ;;
                            esac
                            ;;
                    esac
                    ;;
                watch) _arguments $global '--interval=[time from one look to the next]:seconds' ;;
                raw) _arguments $global '--async[want no reply]' '1:command:(hello)' '*:argument:' ;;
                completion) _arguments $global '1:shell:(bash zsh fish)' ;;
                help) _arguments $global '1:command:(hello list streams drop watch raw completion version)' ;;
                *) _arguments $global ;;
            esac
            ;;
    esac
}

# Read by the completion system, this file is the function; sourced, it registers it.
if [[ ${funcstack[1]} == _v9_rtmp_ctl ]]; then
    _v9_rtmp_ctl "$@"
else
    compdef _v9_rtmp_ctl v9_rtmp_ctl
fi
