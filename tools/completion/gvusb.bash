# Bash completion of the commands, options, keys and codes of gvusb, and of the readers on the bus.

_gvusb_readers() {
    "$1" list 2>/dev/null | while read -r index id _; do
        if [ "$index" != INDEX ]; then
            echo "$id"
        fi
    done
}

# The arguments after the command, without options and without the word to complete.
_gvusb_arguments() {
    local i=2 word
    for ((; i < COMP_CWORD; ++i)); do
        word=${COMP_WORDS[i]}
        case $word in
        --timeout | --repeat | --count | --idle-timeout | --poll-interval | --family | --name | --id | --reader | \
            --plot | -o | --output | --max-size | --redact-matching) ((++i)) ;;
        -*) ;;
        *) echo "$word" ;;
        esac
    done
}

_gvusb_options() { # COMMAND
    echo --help
    case $1 in
    list) echo --family --name --id --json ;;
    info | get | set | explain | doctor) echo --json ;;
    show) echo --reader --all --plot --json ;;
    send) echo --timeout --repeat --keep-going --drain --no-drain --json ;;
    monitor) echo --json --initial --count --idle-timeout --poll-interval ;;
    record) echo --output --redact --redact-matching --max-size --until-signal ;;
    esac
}

_gvusb_keys() { # COMMAND TARGET
    case $1:$2 in
    get:driver) echo HOTPLUG-MODE PARALLEL ;;
    set:driver) echo HOTPLUG-SUSPEND HOTPLUG-UPDATERATE PARALLEL ;;
    get:*) echo DEVICE-ID DEVICEHND DEVICENAME FAMILYNAME INTERFACE PRESENT TIMEOUT TYPENUMBER ;;
    set:*) echo RESETDEVICE RESETPIPE TIMEOUT ;;
    esac
}

_gvusb_files() { # WORD
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$1")
}

_gvusb() {
    local tool=${COMP_WORDS[0]} command=${COMP_WORDS[1]} word=${COMP_WORDS[COMP_CWORD]} words='' arguments
    if [ "$COMP_CWORD" -eq 1 ]; then
        words='doctor explain get help info list monitor record send set show --help --version'
    elif [[ $command == explain && $word != --* ]]; then
        words=$("$tool" explain 2>/dev/null | while read -r code _; do echo "$code"; done)
        words=${words#CODE}
    elif [[ $command == record && ${COMP_WORDS[COMP_CWORD - 1]} =~ ^(-o|--output)$ ]]; then
        _gvusb_files "$word"
        return
    elif [[ $word == -* ]]; then
        words=$(_gvusb_options "$command")
    elif [ "${COMP_WORDS[COMP_CWORD - 1]}" = --plot ]; then
        _gvusb_files "$word"
        return
    elif [ "${COMP_WORDS[COMP_CWORD - 1]}" = --reader ]; then
        COMPREPLY=()
        return
    elif [ "${COMP_WORDS[COMP_CWORD - 1]}" = --id ]; then
        words=$(_gvusb_readers "$tool")
    else
        mapfile -t arguments < <(_gvusb_arguments)
        if [ "$command:${#arguments[@]}" = show:0 ]; then
            _gvusb_files "$word"
            return
        fi
        case $command:${#arguments[@]} in
        help:0) words='doctor explain get info list monitor record send set show' ;;
        info:0 | send:0) words=$(_gvusb_readers "$tool") ;;
        get:0 | set:0) words="driver $(_gvusb_readers "$tool")" ;;
        get:1 | set:1) words=$(_gvusb_keys "$command" "${arguments[0]}") ;;
        esac
    fi
    # Device IDs and keys may be typed in lower case.
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
    if [ ${#COMPREPLY[@]} -eq 0 ] && [ "$COMP_CWORD" -gt 1 ]; then
        mapfile -t COMPREPLY < <(compgen -W "$words" -- "${word^^}")
    fi
}

complete -F _gvusb gvusb
