# Completion of v9_rtmp_ctl for fish: commands, options, and the ids and stream names of the running server.
#
# Load it with: v9_rtmp_ctl completion fish | source

# Prints the listing from the socket that the command line names.
function __v9_rtmp_ctl_list
    set -l words (commandline -opc)
    set -l socket
    if set -l at (contains -i -- --socket $words)
        and test $at -lt (count $words)
        set socket --socket $words[(math $at + 1)]
    else if set -l glued (string match -- '--socket=*' $words)
        set socket $glued[1]
    end
    command v9_rtmp_ctl --plain --timeout 1 $socket list 2>/dev/null
end

# Prints each stream name once. Only names of letters, digits and '_' are offered; the server accepts no others.
function __v9_rtmp_ctl_streams
    __v9_rtmp_ctl_list | cut -f 2 | grep -xE '[A-Za-z0-9_]+' | sort -u
end

function __v9_rtmp_ctl_addresses
    __v9_rtmp_ctl_list | cut -f 7 | sed 's/:[0-9]*$//' | grep -xE '[0-9.]+' | sort -u
end

# Prints each id that has not been typed yet, a TAB, and the client it belongs to, in numeric order.
function __v9_rtmp_ctl_ids
    set -l typed (commandline -opc)
    for line in (__v9_rtmp_ctl_list | sort -n | awk -F '\t' '$1 ~ /^[0-9]+$/ {
            print $1 "\t" ($2 == "" ? "no stream" : $3 " " substr($2, 1, 40)) " " $7 }')
        if not contains -- (string split -f 1 \t -- $line) $typed
            printf '%s\n' $line
        end
    end
end

# Prints the words that are neither options nor their values.
function __v9_rtmp_ctl_plain_words
    set -l words (commandline -opc)
    set -l found
    set -l skip 0
    for word in $words[2..-1]
        if test $skip -eq 1
            set skip 0
            continue
        end
        switch $word
            case --socket --timeout --unit --mode --stream --address --sort --interval --stalled --behind --unnamed \
                    --silent --contested --age --stagger --long-name --publish-from --settle --state --config --exec --rtmp \
                    --output -o --listen --host --token-file --watchdog-state
                set skip 1
            case '-*'
            case '*'
                set -a found $word
        end
    end
    test (count $found) -eq 0
    or printf '%s\n' $found
end

# True if the plain words are exactly those in $argv.
function __v9_rtmp_ctl_at
    set -l found (__v9_rtmp_ctl_plain_words)
    test "$found" = "$argv"
end

# True if the plain words begin with those in $argv.
function __v9_rtmp_ctl_in
    set -l found (__v9_rtmp_ctl_plain_words)
    set -l wanted (count $argv)
    test (count $found) -ge $wanted
    and test "$found[1..$wanted]" = "$argv"
end

complete -c v9_rtmp_ctl -f
complete -c v9_rtmp_ctl -l socket -r -F -d 'The control socket of the server'
complete -c v9_rtmp_ctl -l timeout -x -d 'How long the server may be silent'
complete -c v9_rtmp_ctl -l unit -x -a 'bytes bits' -d 'Unit of rates'
complete -c v9_rtmp_ctl -l json -d 'Print JSON'
complete -c v9_rtmp_ctl -l plain -d 'Print fields separated by TABs'
complete -c v9_rtmp_ctl -l no-color -d 'Print without color'
complete -c v9_rtmp_ctl -s q -l quiet -d 'Do not report what was done'
complete -c v9_rtmp_ctl -s h -l help -d 'Print help'
complete -c v9_rtmp_ctl -s V -l version -d 'Print the version'

complete -c v9_rtmp_ctl -n __v9_rtmp_ctl_at -a hello -d 'Greet the server'
complete -c v9_rtmp_ctl -n __v9_rtmp_ctl_at -a list -d 'List the connections'
complete -c v9_rtmp_ctl -n __v9_rtmp_ctl_at -a streams -d 'List the streams'
complete -c v9_rtmp_ctl -n __v9_rtmp_ctl_at -a drop -d 'Drop connections'
complete -c v9_rtmp_ctl -n __v9_rtmp_ctl_at -a watch -d 'Show streams and connections live'
complete -c v9_rtmp_ctl -n __v9_rtmp_ctl_at -a watchdog -d 'Drop stalled clients'
complete -c v9_rtmp_ctl -n __v9_rtmp_ctl_at -a events -d 'Print events'
complete -c v9_rtmp_ctl -n __v9_rtmp_ctl_at -a check -d 'Report what is wrong'
complete -c v9_rtmp_ctl -n __v9_rtmp_ctl_at -a metrics -d 'Print metrics for Prometheus'
complete -c v9_rtmp_ctl -n __v9_rtmp_ctl_at -a serve -d 'Serve a status page and metrics'
complete -c v9_rtmp_ctl -n __v9_rtmp_ctl_at -a raw -d 'Send a command unchanged'
complete -c v9_rtmp_ctl -n __v9_rtmp_ctl_at -a completion -d 'Print a completion script'
complete -c v9_rtmp_ctl -n __v9_rtmp_ctl_at -a version -d 'Print the version'
complete -c v9_rtmp_ctl -n __v9_rtmp_ctl_at -a help -d 'Print help about a command'

for command in list watch 'drop stream' 'drop address'
    complete -c v9_rtmp_ctl -n "__v9_rtmp_ctl_in $command" -l mode -x -a 'publish play none' -d 'Only those that publish, play or do neither'
end
for command in list watch 'drop id' 'drop address'
    complete -c v9_rtmp_ctl -n "__v9_rtmp_ctl_in $command" -l stream -x -a '(__v9_rtmp_ctl_streams)' -d 'Only those of this stream'
end
for command in list watch 'drop stream' 'drop unnamed'
    complete -c v9_rtmp_ctl -n "__v9_rtmp_ctl_in $command" -l address -x -a '(__v9_rtmp_ctl_addresses)' -d 'Only those from this address or prefix'
end
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in list' -l sort -x -a 'id stream rate' -d 'Order of the lines'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in streams' -l sort -x -a 'stream rate' -d 'Order of the lines'
for command in list streams
    complete -c v9_rtmp_ctl -n "__v9_rtmp_ctl_in $command" -s r -l reverse -d 'Reverse the order'
    complete -c v9_rtmp_ctl -n "__v9_rtmp_ctl_in $command" -l no-legend -d 'Print neither titles nor the count'
end
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in streams' -a '(__v9_rtmp_ctl_streams)' -d 'Stream'

for command in drop 'help drop'
    complete -c v9_rtmp_ctl -n "__v9_rtmp_ctl_at $command" -a id -d 'Drop connections by their ids'
    complete -c v9_rtmp_ctl -n "__v9_rtmp_ctl_at $command" -a stream -d 'Drop all connections of streams'
    complete -c v9_rtmp_ctl -n "__v9_rtmp_ctl_at $command" -a address -d 'Drop all connections from addresses'
    complete -c v9_rtmp_ctl -n "__v9_rtmp_ctl_at $command" -a unnamed -d 'Drop those without a stream'
end
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in drop id' -k -a '(__v9_rtmp_ctl_ids)'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in drop id' -l no-list -d 'Do not request the list'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in drop stream' -a '(__v9_rtmp_ctl_streams)' -d 'Stream'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in drop address' -a '(__v9_rtmp_ctl_addresses)' -d 'Address'
for command in 'drop id' 'drop stream' 'drop address' 'drop unnamed'
    complete -c v9_rtmp_ctl -n "__v9_rtmp_ctl_in $command" -s n -l dry-run -d 'Only show what would be dropped'
end
for command in 'drop stream' 'drop address' 'drop unnamed'
    complete -c v9_rtmp_ctl -n "__v9_rtmp_ctl_in $command" -s f -l force -d 'Do not ask'
end

for command in watch watchdog events metrics
    complete -c v9_rtmp_ctl -n "__v9_rtmp_ctl_in $command" -l interval -x -d 'Time between two listings'
end
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in watchdog' -l stalled -x -a off -d 'Drop a player that receives nothing'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in watchdog' -l behind -x -a off -d 'Drop a player that is this far behind'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in watchdog' -l unnamed -x -a off -d 'Drop a client without a stream name'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in watchdog' -l silent -x -a off -d 'Drop a publisher that sends nothing'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in watchdog' -l contested -x -a off -d 'Drop a silent publisher while another one waits'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in watchdog' -l age -x -a off -d 'Drop a player that has played this long'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in watchdog' -l stagger -x -d 'Time between two drops for age'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in watchdog' -l long-name -x -a off -d 'Drop a client whose stream name is longer than this'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in watchdog' -l publish-from -x -d 'Drop publishers from elsewhere'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in watchdog' -l settle -x -d 'Time from choosing a stream until a client is compared with others'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in watchdog' -l state -r -F -d 'Keep first-seen times in this directory'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in watchdog' -l config -r -F -d 'Read options from this file too'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in watchdog' -s n -l dry-run -d 'Only print what would be dropped'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in events' -l exec -r -F -d 'Run this program for each event'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in check' -l rtmp -x -d 'Where the server accepts RTMP clients'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in check' -l publish-test -d 'Send a short stream through the server'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in metrics' -s o -l output -r -F -d 'Write the metrics to this file'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in serve' -l listen -x -d 'Address and port'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in serve' -l host -x -d 'A host name that browsers may use to reach the page'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in serve' -l allow-drop -d 'Allow the page to drop connections'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_in serve' -l token-file -r -F -d 'The file with the token'
for command in metrics serve
    complete -c v9_rtmp_ctl -n "__v9_rtmp_ctl_in $command" -l watchdog-state -r -F -d 'State of the watchdog'
end
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_at raw' -l async -d 'Request no reply'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_at completion' -a 'bash zsh fish'
complete -c v9_rtmp_ctl -n '__v9_rtmp_ctl_at help' -a 'hello list streams drop watch watchdog events check metrics serve raw completion version'
