# Completion of quorval(1) for fish.

set -l commands check config describe get graph inspect list new recording replay run schema set stop top
set -l graph_commands check graph replay run
set -l running_commands replay run

set -l no_command "not __fish_seen_subcommand_from $commands"
complete -c quorval -n $no_command -f
complete -c quorval -n $no_command -l version -d 'Print the version'
for line in \
        'check Look for what is wrong with a graph' \
        'config Look at store files, and change them' \
        'describe Show a running graph' \
        'get Show the configuration of a block of a running graph' \
        'graph Draw a graph' \
        'inspect Show what plug-ins offer' \
        'list List running graphs' \
        'new Write a plug-in to begin with' \
        'recording Look at a recording' \
        'replay Run a graph on what was recorded' \
        'run Run a graph' \
        'schema Write a JSON Schema of graph files' \
        'set Change a running graph' \
        'stop Stop a running graph' \
        'top Show what the blocks of a running graph do'
    set -l parts (string split --max 1 ' ' $line)
    complete -c quorval -n $no_command -a $parts[1] -d $parts[2]
end
complete -c quorval -s h -l help -d 'Print usage, options, exit status and an example'

complete -c quorval -n "__fish_seen_subcommand_from $graph_commands" -l set -x \
    -d 'Give a block another value'
complete -c quorval -n "__fish_seen_subcommand_from $graph_commands" -l plugin-path -x \
    -a '(__fish_complete_directories)' -d 'Look for plug-ins in these directories first'

complete -c quorval -n '__fish_seen_subcommand_from check' -l strict -d 'Let warnings count'
complete -c quorval -n '__fish_seen_subcommand_from check' -l json -d 'Write what is found as JSON'

complete -c quorval -n '__fish_seen_subcommand_from config' -l raw -d 'Print a string bare'
set -l actions diff export get import set show unset
complete -c quorval -f -a "$actions" \
    -n "__fish_seen_subcommand_from config; and not __fish_seen_subcommand_from $actions"

complete -c quorval -n '__fish_seen_subcommand_from check replay run' -l machine -x \
    -d 'Take the blocks of this machine alone'
complete -c quorval -n '__fish_seen_subcommand_from replay run' -l local \
    -d 'Run the blocks of all machines here'

complete -c quorval -n '__fish_seen_subcommand_from graph' -l format -x \
    -a 'dot json mermaid svg' -d 'Kind of picture'

complete -c quorval -f -n '__fish_seen_subcommand_from schema'
complete -c quorval -n '__fish_seen_subcommand_from schema' -l set -x -d 'Changes nothing'
complete -c quorval -n '__fish_seen_subcommand_from schema' -l plugin-path -x \
    -a '(__fish_complete_directories)' -d 'Look for plug-ins in these directories first'

complete -c quorval -f -n '__fish_seen_subcommand_from inspect'
complete -c quorval -n '__fish_seen_subcommand_from inspect' -l set -x \
    -d 'Make blocks with this setting'
complete -c quorval -n '__fish_seen_subcommand_from inspect' -l plugin-path -x \
    -a '(__fish_complete_directories)' -d 'Look for plug-ins in these directories first'
complete -c quorval -n '__fish_seen_subcommand_from inspect' -l json -d 'Write everything as JSON'

complete -c quorval -f -n '__fish_seen_subcommand_from new'

complete -c quorval -f -a show \
    -n '__fish_seen_subcommand_from recording; and not __fish_seen_subcommand_from show'

complete -c quorval -n '__fish_seen_subcommand_from replay' -l fast \
    -d 'Do not wait for the time of each wave'
complete -c quorval -n '__fish_seen_subcommand_from run' -l bus -x -a 'user system none' \
    -d 'Be seen and changed on this bus'
complete -c quorval -n '__fish_seen_subcommand_from run' -l for -x -d 'Stop after this time'
complete -c quorval -n '__fish_seen_subcommand_from run' -l stats \
    -d 'Show what blocks did at the end'
complete -c quorval -n '__fish_seen_subcommand_from replay run' -l threads -x \
    -d 'Run blocks on up to so many threads'
complete -c quorval -n '__fish_seen_subcommand_from run' -l trace -r \
    -d 'Write each run of a block to this file'
complete -c quorval -n '__fish_seen_subcommand_from run' -l record -r \
    -d 'Record what outputs give into this file'
complete -c quorval -n '__fish_seen_subcommand_from run' -l outputs -x -d 'Record these outputs'
complete -c quorval -n "__fish_seen_subcommand_from $running_commands" -l state -x \
    -a '(__fish_complete_directories)' -d 'Keep the state of the blocks below this directory'
complete -c quorval -n "__fish_seen_subcommand_from $running_commands" -s q -l quiet \
    -d 'Write errors alone'
complete -c quorval -n "__fish_seen_subcommand_from $running_commands" -s v -l verbose \
    -d 'Write notes too'

set -l remote_commands describe get list set stop top
complete -c quorval -f -n "__fish_seen_subcommand_from $remote_commands"
complete -c quorval -n "__fish_seen_subcommand_from $remote_commands" -l bus -x -a 'user system' \
    -d 'Look on this bus'
complete -c quorval -n '__fish_seen_subcommand_from set' -l save \
    -d 'Keep the changes for the next start'
complete -c quorval -n '__fish_seen_subcommand_from top' -l once -d 'Print the tables of blocks and links, and end'
