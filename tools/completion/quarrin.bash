# Completion of quarrin(1) for bash: subcommands, options, their values, and the recordings of the storage folder.
# shellcheck shell=bash

_quarrin_options()
{
    case $1 in
    record) echo "-h --help --storage -v --verbose --format --split --duration --durable --name --quota" \
        "--no-auto-delete --transcode --codec" ;;
    list) echo "-h --help --storage -v --verbose --json" ;;
    play) echo "-h --help --storage -v --verbose --output --seek --frames" ;;
    snapshot) echo "-h --help --storage -v --verbose --at" ;;
    *) echo "-h --help --version" ;;
    esac
}

# Marks the answers as file names, so that the line editor quotes them. Away from the line editor there is no such thing.
_quarrin_files()
{
    local names
    compopt -o filenames 2>/dev/null || true
    mapfile -t names < <(compgen "$1" -- "$2")
    COMPREPLY+=("${names[@]}")
}

# The recordings below a storage folder, as list names them.
_quarrin_recordings()
{
    local path word=${2//\\/}
    for path in "$1"/rec/*; do
        path=${path##*/}
        [[ $path == [0-9]*.To.* && $path == "$word"* ]] && COMPREPLY+=("$path")
    done
    compopt -o filenames 2>/dev/null || true
}

_quarrin()
{
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
    local command='' storage='' place=0 index option
    COMPREPLY=()
    # --option=value comes as three words.
    if [[ $word == = ]]; then
        word=
    elif [[ $before == = ]]; then
        before=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    for ((index = 1; index < COMP_CWORD; index++)); do
        option=${COMP_WORDS[index]}
        case $option in
        --storage | --format | --split | --duration | --durable | --name | --quota | --codec | --output | --seek | --at)
            [[ ${COMP_WORDS[index + 1]} == = ]] && ((index++))
            ((index++))
            [[ $option == --storage && $index -lt $COMP_CWORD ]] && storage=${COMP_WORDS[index]//\\/}
            ;;
        -*) ;;
        *)
            # The subcommand, then its other arguments.
            if [[ -n $command ]]; then ((place++)); else command=$option; fi
            ;;
        esac
    done
    storage=${storage/#\~/$HOME}

    case $before in
    --storage)
        _quarrin_files -d "$word"
        return
        ;;
    --output)
        _quarrin_files -f "$word"
        return
        ;;
    --format) option="mkv ts mp4 mov" ;;
    --codec) option="h264 h265" ;;
    --split | --duration | --durable | --name | --quota | --seek | --at) return ;;
    *)
        option=
        if [[ $word == -* ]]; then
            option=$(_quarrin_options "$command")
        elif [[ -z $command ]]; then
            option="record list play snapshot"
        fi
        ;;
    esac
    # shellcheck disable=SC2207 # words without anything special in them
    [[ -z $option ]] || COMPREPLY=($(compgen -W "$option" -- "$word"))
    [[ -z $option && $word != -* ]] || return 0
    case $command.$place in
    record.0)
        _quarrin_files -f "$word"
        [[ "test" == "$word"* ]] && COMPREPLY+=("test")
        ;;
    play.0 | snapshot.0)
        [[ -z $storage ]] || _quarrin_recordings "$storage" "$word"
        _quarrin_files -f "$word"
        ;;
    snapshot.1) _quarrin_files -f "$word" ;;
    esac
}

complete -F _quarrin quarrin
