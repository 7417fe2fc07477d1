# Bash completion for the options of gvusb-emulate, for its commands and, after "--", for the program that it runs.

_gvusb_emulate() {
    local i word=${COMP_WORDS[COMP_CWORD]}
    for ((i = 1; i < COMP_CWORD; ++i)); do
        if [ "${COMP_WORDS[i]}" = -- ]; then
            # From bash-completion, which may not be loaded.
            COMPREPLY=()
            if declare -F _command_offset >/dev/null; then
                _command_offset $((i + 1))
            fi
            return
        fi
    done
    case ${COMP_WORDS[COMP_CWORD - 1]} in
    --reader | --listen | --usbip-memory | --usbip-patience | --kill-after | --seed | --replay-speed)
        COMPREPLY=()
        ;;
    --replay-mode) mapfile -t COMPREPLY < <(compgen -W 'matching strict' -- "$word") ;;
    --replay-plugging) mapfile -t COMPREPLY < <(compgen -W 'recorded commands' -- "$word") ;;
    --send)
        mapfile -t COMPREPLY < <(compgen -W 'plug unplug replug string remove-string fail-string descriptors stall
            unstall mute unmute delay short fail chance reply on jitter push flush busy driver refuse fail-configuration
            fail-reset list frames counts wait help' -- "$word")
        ;;
    --readers | --script | --config | --replay)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        ;;
    *)
        mapfile -t COMPREPLY < <(compgen -W '--help --reader --readers --no-readers --replay
            --replay-mode --replay-speed --replay-plugging --script --lenient --seed --config
            --no-config --usbip --listen --allow-remote --usbip-memory --usbip-patience --kill-after --wait-for-all
            --trap-system-calls --verbose --send --version --' -- "$word")
        ;;
    esac
}

complete -F _gvusb_emulate gvusb-emulate
