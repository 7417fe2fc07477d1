# Bash completion of the commands, options, keys and codes of gvusb, and of the readers on the bus or of a fleet.

# The names of the readers. OPTIONS stand before the command.
_gvusb_readers() { # TOOL [OPTIONS]
    local tool=$1 fleet=''
    shift
    [[ " $* " =~ \ --broker[=\ ] ]] && fleet=1 && set -- "$@" --connect-timeout 1
    "$tool" "$@" list 2>/dev/null | while read -r first second third _; do
        if [ "$first" = INDEX ] || [ "$first" = MACHINE ]; then
            continue
        elif [ -n "$fleet" ]; then
            echo "$first/$third"
        else
            echo "$second"
        fi
    done
}

# Whether an option takes the next word as its value.
_gvusb_takes_value() { # OPTION
    case $1 in
    --timeout | --repeat | --count | --idle-timeout | --poll-interval | --family | --name | --id | --machine | --reader | \
        --plot | -o | --output | --max-size | --redact-matching) ;;
    --broker | --ca-file | --certificate | --key | --user | --password-file | --prefix | --connect-timeout) ;;
    *) return 1 ;;
    esac
}

# The arguments after the command, without options and without the word to complete.
_gvusb_arguments() { # WORD...
    while [ $# -gt 1 ]; do
        if _gvusb_takes_value "$1"; then
            shift
        elif [[ $1 != -* ]]; then
            echo "$1"
        fi
        shift
    done
}

_gvusb_options() { # COMMAND FLEET
    echo --help
    case $1:$2 in
    list:) echo --family --name --id --json ;;
    list:*) echo --machine --family --name --id --json ;;
    info:1 | get:1 | set:1) echo --timeout --json ;;
    send:1) echo --timeout --repeat --keep-going --json ;;
    monitor:1) echo --machine --json --initial --count --idle-timeout ;;
    info:* | get:* | set:* | explain:* | doctor:*) echo --json ;;
    show:*) echo --reader --all --plot --json ;;
    send:*) echo --timeout --repeat --keep-going --drain --no-drain --json ;;
    monitor:*) echo --json --initial --count --idle-timeout --poll-interval ;;
    record:*) echo --output --redact --redact-matching --max-size --until-signal ;;
    esac
}

_gvusb_keys() { # COMMAND TARGET
    case $1:$2 in
    get:driver) echo HOTPLUG-MODE PARALLEL ;;
    set:driver) echo HOTPLUG-SUSPEND HOTPLUG-UPDATERATE PARALLEL ;;
    get:*) echo DEVICE-ID DEVICEHND DEVICENAME FAMILYNAME INTERFACE PRESENT TIMEOUT TYPENUMBER ;;
    set:*/*) echo CANCEL RESETDEVICE RESETPIPE TIMEOUT ;;
    set:*) echo RESETDEVICE RESETPIPE TIMEOUT ;;
    esac
}

_gvusb_files() { # WORD
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$1")
}

# What may follow the options before the command.
_gvusb_before_command() { # FLEET PREVIOUS WORD
    case $2 in
    --ca-file | --certificate | --key | --password-file)
        _gvusb_files "$3"
        return
        ;;
    esac
    local words='doctor explain get help info list monitor record send set show --broker --help --version'
    [ -z "$1" ] || words='get help info list monitor send set --broker --ca-file --certificate --connect-timeout --help
        --insecure --key --password-file --prefix --user --version'
    _gvusb_takes_value "$2" || mapfile -t COMPREPLY < <(compgen -W "$words" -- "$3")
}

_gvusb_after_command() { # TOOL FLEET PREVIOUS WORD ARGUMENTS-BEFORE... -- OPTIONS-BEFORE...
    local tool=$1 fleet=$2 previous=$3 word=$4 command=$5 words='' arguments=()
    shift 5
    while [ "$1" != -- ]; do
        arguments+=("$1")
        shift
    done
    shift
    if [[ $command == explain && $word != --* ]]; then
        words=$("$tool" explain 2>/dev/null | while read -r code _; do echo "$code"; done)
        words=${words#CODE}
    elif [[ $command == record && $previous =~ ^(-o|--output)$ ]]; then
        _gvusb_files "$word"
        return
    elif [[ $word == -* ]]; then
        words=$(_gvusb_options "$command" "$fleet")
    elif [ "$previous" = --plot ]; then
        _gvusb_files "$word"
        return
    elif [ "$previous" = --id ]; then
        words=$(_gvusb_readers "$tool" "$@")
        [ -z "$fleet" ] || words=$(sed 's|.*/||; s|@.*||' <<<"$words" | sort -u)
    elif [ "$previous" = --machine ]; then
        words=$(_gvusb_readers "$tool" "$@" | sed 's|/.*||' | sort -u)
    elif ! _gvusb_takes_value "$previous"; then
        case $command:${#arguments[@]} in
        show:0)
            _gvusb_files "$word"
            return
            ;;
        help:0)
            words='doctor explain get info list monitor record send set show'
            [ -z "$fleet" ] || words='get info list monitor send set'
            ;;
        info:0 | send:0) words=$(_gvusb_readers "$tool" "$@") ;;
        get:0 | set:0)
            words=$(_gvusb_readers "$tool" "$@")
            [ -n "$fleet" ] || words="driver $words"
            ;;
        get:1 | set:1) words=$(_gvusb_keys "$command" "${arguments[0]}") ;;
        esac
    fi
    # Device IDs and keys may be typed in lower case.
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
    if [ ${#COMPREPLY[@]} -eq 0 ]; then
        [[ $word == */* ]] && word=${word%%/*}/$(tr '[:lower:]' '[:upper:]' <<<"${word#*/}") || word=${word^^}
        mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
    fi
}

_gvusb() {
    # Bash takes the ':', '=' and '@' of an address or a name for words of their own.
    local words=() joins='' fleet='' word i command arguments
    for ((i = 0; i <= COMP_CWORD; ++i)); do
        word=${COMP_WORDS[i]}
        if [ "$i" -gt 1 ] && [[ $joins$word =~ ^(1|[:=@]+$) ]]; then
            words[${#words[@]} - 1]+=$word
        else
            words+=("$word")
        fi
        [[ $word =~ ^[:=@]+$ ]] && joins=1 || joins=''
    done
    local last=$((${#words[@]} - 1))
    word=${words[last]}
    for ((command = 1; command < last; ++command)); do
        [[ ${words[command]} != --broker* ]] || fleet=1
        [[ ${words[command]} == -* ]] || break
        ! _gvusb_takes_value "${words[command]}" || ((++command))
    done
    if [ "$command" -ge "$last" ]; then
        _gvusb_before_command "$fleet" "${words[last - 1]}" "$word"
    else
        mapfile -t arguments < <(_gvusb_arguments "${words[@]:command+1}")
        _gvusb_after_command "${words[0]}" "$fleet" "${words[last - 1]}" "$word" "${words[command]}" "${arguments[@]}" -- \
            "${words[@]:1:command-1}"
    fi
    # What is in front of the last of bash's words is there already.
    local front=${word%"${COMP_WORDS[COMP_CWORD]}"}
    [[ ${COMP_WORDS[COMP_CWORD]} =~ ^[:=@]+$ ]] && front=$word
    COMPREPLY=("${COMPREPLY[@]#"$front"}")
}

complete -F _gvusb gvusb
