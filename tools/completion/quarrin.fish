# Completion of quarrin(1) for fish.

function __quarrin_recordings
    set -l words (commandline -opc)
    set -l storage
    for index in (seq (count $words))
        switch $words[$index]
            case --storage
                test $index -lt (count $words); and set storage $words[(math $index + 1)]
            case '--storage=*'
                set storage (string replace -- --storage= '' $words[$index])
        end
    end
    test -n "$storage"; and path basename -- $storage/rec/*.To.*
end

set -l needs __fish_use_subcommand
complete -c quarrin -n $needs -f -a record -d 'Record an input into the storage folder'
complete -c quarrin -n $needs -f -a list -d 'List the recordings'
complete -c quarrin -n $needs -f -a play -d 'Play a recording back'
complete -c quarrin -n $needs -f -a snapshot -d 'Save one picture of a recording as JPEG'
complete -c quarrin -n $needs -s h -l help -d 'Print the subcommands and options'
complete -c quarrin -n $needs -l version -d 'Print the version'

for command in record list play snapshot
    set -l seen "__fish_seen_subcommand_from $command"
    complete -c quarrin -n $seen -s h -l help -d 'Print the options'
    complete -c quarrin -n $seen -l storage -x -a '(__fish_complete_directories)' -d 'Storage folder'
    complete -c quarrin -n $seen -s v -l verbose -d 'Show what the library and FFmpeg say'
end

set -l seen '__fish_seen_subcommand_from record'
complete -c quarrin -n $seen -a test -d 'A generated clip'
complete -c quarrin -n $seen -l format -x -a 'mkv ts mp4 mov' -d 'Container of the files'
complete -c quarrin -n $seen -l split -x -d 'Begin a new file after so many seconds, 5 or more'
complete -c quarrin -n $seen -l duration -x -d 'Stop after so many seconds'
complete -c quarrin -n $seen -l durable -x -d 'Write through to the card every so many seconds'
complete -c quarrin -n $seen -l name -x -d 'Comment in the names of the files'
complete -c quarrin -n $seen -l quota -x -d 'What the recordings may take, 500M or 80%'
complete -c quarrin -n $seen -l no-auto-delete -d 'Stop when the quota is reached'
complete -c quarrin -n $seen -l transcode -d 'Encode the video again, without B-frames'
complete -c quarrin -n $seen -l codec -x -a 'h264 h265' -d 'Video codec of the generated clip'

set -l seen '__fish_seen_subcommand_from list'
complete -c quarrin -n $seen -f
complete -c quarrin -n $seen -l json -d 'As JSON'

set -l seen '__fish_seen_subcommand_from play'
complete -c quarrin -n $seen -a '(__quarrin_recordings)' -d Recording
complete -c quarrin -n $seen -l output -r -d 'File to write, - for standard output'
complete -c quarrin -n $seen -l seek -x -d 'Begin at the key frame at or before that second'
complete -c quarrin -n $seen -l frames -d 'Print a line for every frame'

set -l seen '__fish_seen_subcommand_from snapshot'
complete -c quarrin -n $seen -a '(__quarrin_recordings)' -d Recording
complete -c quarrin -n $seen -l at -x -d 'Time in the recording, in seconds'
