# Completion of v9_rtmp_ctl for fish: commands, options, and the ids and stream names of the running server.
#
# Load it with: v9_rtmp_ctl completion fish | source

# Prints field $argv[1] of the listing. Asks the socket that the command line names. Stream names are made of
# letters, digits and '_'; whatever else a listing holds is not offered.
function __v9_rtmp_ctl_live
    set -l words (commandline -opc)
    set -l socket
    if set -l at (contains -i -- --socket $words)
        and test $at -lt (count $words)
        set socket --socket $words[(math $at + 1)]
    else if set -l glued (string match -- '--socket=*' $words)
        set socket $glued[1]
    end
    command v9_rtmp_ctl --plain --timeout 1 $socket list 2>/dev/null | cut -f $argv[1] | grep -xE '[A-Za-z0-9_]+' |
        sort -u
end

# True when the words that are neither options nor their values are those in $argv.
function __v9_rtmp_ctl_at
    set -l words (commandline -opc)
    set -l found
    set -l skip 0
    for word in $words[2..-1]
        if test $skip -eq 1
            set skip 0
            continue
        end
        switch $word
            case --socket --timeout --mode --stream --sort --interval
                set skip 1
            case '-*'
            case '*'
                set -a found $word
        end
    end
    test "$found" = "$argv"
end

# True when the first of those words are the ones in $argv.
function __v9_rtmp_ctl_in
    set -l words (string match -v -- '-*' (commandline -opc))
    contains -- $argv[1] $words
    and begin
        test (count $argv) -lt 2
        or contains -- $argv[2] $words
    end
end

complete -c v9_rtmp_ctl -f
complete -c v9_rtmp_ctl -l socket -r -F -d 'The control socket of the server'
complete -c v9_rtmp_ctl -l timeout -x -d 'How long to wait for an answer'
complete -c v9_rtmp_ctl -l json -d 'Print JSON'
complete -c v9_rtmp_ctl -l plain -d 'Print fields separated by TABs'
complete -c v9_rtmp_ctl -l no-color -d 'Print without color'
complete -c v9_rtmp_ctl -s q -l quiet -d 'Say nothing about what was done'
complete -c v9_rtmp_ctl -s h -l help -d 'Print help'

complete -c v9_rtmp_ctl -n __v9_rtmp_ctl_at -a hello -d 'Greet the server'
complete -c v9_rtmp_ctl -n __v9_rtmp_ctl_at -a list -d 'List the connections'
complete -c v9_rtmp_ctl -n __v9_rtmp_ctl_at -a streams -d 'List the streams'
complete -c v9_rtmp_ctl -n __v9_rtmp_ctl_at -a drop -d 'Drop connections'
complete -c v9_rtmp_ctl -n __v9_rtmp_ctl_at -a watch -d 'Show streams and connections live'
complete -c v9_rtmp_ctl -n __v9_rtmp_ctl_at -a raw -d 'Send a command as it is'
complete -c v9_rtmp_ctl -n __v9_rtmp_ctl_at -a completion -d 'Print a completion script'
complete -c v9_rtmp_ctl -n __v9_rtmp_ctl_at -a version -d 'Print the version'
complete -c v9_rtmp_ctl -n __v9_rtmp_ctl_at -a help -d 'Print help about a command'

complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in list' -l mode -x -a 'publish play none' -d 'Only these'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in list' -l stream -x -a '(__v9_rtmp_ctl_live 2)' -d 'Only this stream'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in list' -l sort -x -a 'id stream rate' -d 'Order of the lines'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in list' -l no-legend -d 'Neither titles nor the count'

complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_at drop' -a id -d 'Drop one connection'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_at drop' -a stream -d 'Drop all connections of a stream'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_at drop' -a unnamed -d 'Drop those without a stream'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_at drop id' -a '(__v9_rtmp_ctl_live 1)' -d 'Connection'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in drop id' -l stream -x -a '(__v9_rtmp_ctl_live 2)' -d 'Only of this stream'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_at drop stream' -a '(__v9_rtmp_ctl_live 2)' -d 'Stream'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in drop stream' -s n -l dry-run -d 'Only show'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in drop stream' -s f -l force -d 'Do not ask'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in drop unnamed' -s f -l force -d 'Do not ask'

complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in watch' -l interval -x -d 'Time from one look to the next'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_at raw' -l async -d 'Want no reply'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_at completion' -a 'bash zsh fish'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_at help' -a 'hello list streams drop watch raw completion version'
