# Fish completion of the commands, options, keys and codes of gvusb, and of the readers on the bus or of a fleet.

# The tool, and the options before the command.
function __gvusb_before
    set -l words (commandline -opc)
    echo $words[1]
    set -l value 0
    for word in $words[2..-1]
        if test $value -eq 1
            set value 0
        else if contains -- $word --broker --ca-file --certificate --key --user --password-file --prefix --connect-timeout
            set value 1
        else if not string match -q -- '-*' $word
            return
        end
        echo $word
    end
end

# The command and what follows it.
function __gvusb_words
    set -l words (commandline -opc)
    set -l before (__gvusb_before)
    test (count $words) -gt (count $before); and printf '%s\n' $words[(math (count $before) + 1)..-1]
end

function __gvusb_is_fleet
    string match -q -- '--broker*' (__gvusb_before)
end

function __gvusb_readers
    set -l before (__gvusb_before)
    if __gvusb_is_fleet
        $before --connect-timeout 1 list 2>/dev/null | while read -l machine index id rest
            test "$machine" = MACHINE; or echo $machine/$id
        end
        return
    end
    $before[1] list 2>/dev/null | while read -l index id rest
        if test "$index" != INDEX
            echo $id
        end
    end
end

# The device IDs of the readers, and the machines.
function __gvusb_ids
    __gvusb_readers | string replace -r '.*/' '' | string replace -r '@.*' '' | sort -u
end

function __gvusb_machines
    __gvusb_readers | string replace -r '/.*' '' | sort -u
end

function __gvusb_codes
    set -l words (commandline -opc)
    $words[1] explain 2>/dev/null | while read -l code rest
        if test "$code" != CODE
            echo $code\t$rest
        end
    end
end

# The arguments after the command, without options.
function __gvusb_arguments
    set -l words (__gvusb_words)
    set -l skip 0
    for word in $words[2..-1]
        if test $skip -eq 1
            set skip 0
        else if contains -- $word --timeout --repeat --count --idle-timeout --poll-interval --family --name --id --machine \
                --reader --plot -o --output --max-size --redact-matching
            set skip 1
        else if not string match -q -- '-*' $word
            echo $word
        end
    end
end

# Whether one of the commands has this many arguments before the cursor.
function __gvusb_expects # COUNT COMMAND...
    __gvusb_command $argv[2..-1]; and test (count (__gvusb_arguments)) -eq $argv[1]
end

function __gvusb_command # COMMAND...
    set -l words (__gvusb_words)
    test (count $words) -ge 1; and contains -- $words[1] $argv
end

# The same without --broker, and with it.
function __gvusb_local # COMMAND...
    __gvusb_command $argv; and not __gvusb_is_fleet
end

function __gvusb_fleet # COMMAND...
    __gvusb_command $argv; and __gvusb_is_fleet
end

function __gvusb_is_first
    test (count (__gvusb_words)) -eq 0
end

function __gvusb_is_first_local
    __gvusb_is_first; and not __gvusb_is_fleet
end

function __gvusb_is_first_fleet
    __gvusb_is_first; and __gvusb_is_fleet
end

function __gvusb_keys
    set -l words (__gvusb_words)
    set -l arguments (__gvusb_arguments)
    switch $words[1]:$arguments[1]
        case get:driver
            printf '%s\n' HOTPLUG-MODE PARALLEL
        case set:driver
            printf '%s\n' HOTPLUG-SUSPEND HOTPLUG-UPDATERATE PARALLEL
        case 'get:*'
            printf '%s\n' DEVICE-ID DEVICEHND DEVICENAME FAMILYNAME INTERFACE PRESENT TIMEOUT TYPENUMBER
        case 'set:*/*'
            printf '%s\n' CANCEL RESETDEVICE RESETPIPE TIMEOUT
        case 'set:*'
            printf '%s\n' RESETDEVICE RESETPIPE TIMEOUT
    end
end

complete -c gvusb -f
complete -c gvusb -n __gvusb_is_first -a list -d 'List the readers on the bus'
complete -c gvusb -n __gvusb_is_first -a info -d 'Show everything about one reader'
complete -c gvusb -n __gvusb_is_first -a get -d 'Print parameters'
complete -c gvusb -n __gvusb_is_first -a set -d 'Change a parameter'
complete -c gvusb -n __gvusb_is_first -a send -d 'Send frames and print the answers'
complete -c gvusb -n __gvusb_is_first -a monitor -d 'Report readers as they connect and disconnect'
complete -c gvusb -n __gvusb_is_first_local -a record -d 'Run a program and record what it does with readers'
complete -c gvusb -n __gvusb_is_first_local -a show -d 'Show a recording'
complete -c gvusb -n __gvusb_is_first_local -a explain -d 'Explain a return code'
complete -c gvusb -n __gvusb_is_first_local -a doctor -d 'Find what keeps readers from working'
complete -c gvusb -n __gvusb_is_first -a help -d 'Print the help of a command'
complete -c gvusb -n __gvusb_is_first -l version -d 'Print the versions'
complete -c gvusb -n __gvusb_is_first -l broker -x -d 'Use readers of other machines'
complete -c gvusb -n __gvusb_is_first_fleet -l ca-file -r -F -d 'Certificates that are trusted'
complete -c gvusb -n __gvusb_is_first_fleet -l certificate -r -F -d 'The certificate to show'
complete -c gvusb -n __gvusb_is_first_fleet -l key -r -F -d 'The key of the certificate'
complete -c gvusb -n __gvusb_is_first_fleet -l user -x -d 'The user name'
complete -c gvusb -n __gvusb_is_first_fleet -l password-file -r -F -d 'A file with the password'
complete -c gvusb -n __gvusb_is_first_fleet -l insecure -d 'Permit a connection without TLS'
complete -c gvusb -n __gvusb_is_first_fleet -l prefix -x -d 'The first level of the topics'
complete -c gvusb -n __gvusb_is_first_fleet -l connect-timeout -x -d 'Seconds to wait for the broker'
complete -c gvusb -l help -d 'Print help'

complete -c gvusb -n '__gvusb_command list' -l family -x -d 'Only readers of this family'
complete -c gvusb -n '__gvusb_command list' -l name -x -d 'Only readers with this device name'
complete -c gvusb -n '__gvusb_fleet list monitor' -l machine -x -a '(__gvusb_machines)' -d 'Only readers of this machine'
complete -c gvusb -n '__gvusb_command list' -l id -x -a '(__gvusb_ids)' -d 'Only readers with this device ID'
complete -c gvusb -n '__gvusb_command list info get set send monitor show explain doctor' -l json -d 'Print JSON'
complete -c gvusb -n '__gvusb_local send' -l timeout -x -d 'Time-out of each transfer in milliseconds'
complete -c gvusb -n '__gvusb_fleet info get set send' -l timeout -x -d 'Milliseconds to wait for an answer'
complete -c gvusb -n '__gvusb_command send' -l repeat -x -d 'Send each frame so many times'
complete -c gvusb -n '__gvusb_command send' -l keep-going -d 'Continue after a failure'
complete -c gvusb -n '__gvusb_local send' -l drain -d 'Drop late answers before every frame'
complete -c gvusb -n '__gvusb_local send' -l no-drain -d 'Never drop late answers'
complete -c gvusb -n '__gvusb_command monitor' -l initial -d 'Start with the readers that are present'
complete -c gvusb -n '__gvusb_command monitor' -l count -x -d 'Exit after so many events'
complete -c gvusb -n '__gvusb_command monitor' -l idle-timeout -x -d 'Exit after so many seconds without an event'
complete -c gvusb -n '__gvusb_local monitor' -l poll-interval -x -d 'Milliseconds between polls'
complete -c gvusb -n '__gvusb_command record' -s o -l output -r -F -d 'The file to write'
complete -c gvusb -n '__gvusb_command record' -l redact -d 'Replace the data of frames'
complete -c gvusb -n '__gvusb_command record' -l redact-matching -x -d 'Replace frames that contain these bytes'
complete -c gvusb -n '__gvusb_command record' -l max-size -x -d 'End the recording before the file is larger'
complete -c gvusb -n '__gvusb_command record' -l until-signal -d 'End the recording at a signal'

complete -c gvusb -n '__gvusb_command show' -l reader -x -d 'Only this reader'
complete -c gvusb -n '__gvusb_command show' -l all -d 'Every control transfer in bytes'
complete -c gvusb -n '__gvusb_command show' -l plot -r -F -d 'Draw the exchanges into an SVG file'

complete -c gvusb -n '__gvusb_expects 0 show' -F
complete -c gvusb -n '__gvusb_expects 0 help' -a 'list info get set send monitor'
complete -c gvusb -n '__gvusb_expects 0 help; and not __gvusb_is_fleet' -a 'record show explain doctor'
complete -c gvusb -n '__gvusb_expects 0 info send get set' -a '(__gvusb_readers)'
complete -c gvusb -n '__gvusb_expects 0 get set; and not __gvusb_is_fleet' -a driver -d 'The library itself'
complete -c gvusb -n '__gvusb_expects 1 get set' -a '(__gvusb_keys)'
complete -c gvusb -n '__gvusb_expects 0 explain' -a '(__gvusb_codes)'
