# Fish completion of the commands, options, keys and codes of gvusb, and of the readers on the bus.

function __gvusb_readers
    set -l words (commandline -opc)
    $words[1] list 2>/dev/null | while read -l index id rest
        if test "$index" != INDEX
            echo $id
        end
    end
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
    set -l words (commandline -opc)
    set -l skip 0
    for word in $words[3..-1]
        if test $skip -eq 1
            set skip 0
        else if contains -- $word --timeout --repeat --count --idle-timeout --poll-interval --family --name --id --reader \
                --plot -o --output --max-size --redact-matching
            set skip 1
        else if not string match -q -- '-*' $word
            echo $word
        end
    end
end

# Whether one of the commands has this many arguments before the cursor.
function __gvusb_expects # COUNT COMMAND...
    set -l words (commandline -opc)
    test (count $words) -ge 2; and contains -- $words[2] $argv[2..-1]; and test (count (__gvusb_arguments)) -eq $argv[1]
end

function __gvusb_command # COMMAND...
    set -l words (commandline -opc)
    test (count $words) -ge 2; and contains -- $words[2] $argv
end

function __gvusb_is_first
    test (count (commandline -opc)) -eq 1
end

function __gvusb_keys
    set -l words (commandline -opc)
    set -l arguments (__gvusb_arguments)
    switch $words[2]:$arguments[1]
        case get:driver
            printf '%s\n' HOTPLUG-MODE PARALLEL
        case set:driver
            printf '%s\n' HOTPLUG-SUSPEND HOTPLUG-UPDATERATE PARALLEL
        case 'get:*'
            printf '%s\n' DEVICE-ID DEVICEHND DEVICENAME FAMILYNAME INTERFACE PRESENT TIMEOUT TYPENUMBER
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
complete -c gvusb -n __gvusb_is_first -a record -d 'Run a program and record what it does with readers'
complete -c gvusb -n __gvusb_is_first -a show -d 'Show a recording'
complete -c gvusb -n __gvusb_is_first -a explain -d 'Explain a return code'
complete -c gvusb -n __gvusb_is_first -a doctor -d 'Find what keeps readers from working'
complete -c gvusb -n __gvusb_is_first -a help -d 'Print the help of a command'
complete -c gvusb -n __gvusb_is_first -l version -d 'Print the versions'
complete -c gvusb -l help -d 'Print help'

complete -c gvusb -n '__gvusb_command list' -l family -x -d 'Only readers of this family'
complete -c gvusb -n '__gvusb_command list' -l name -x -d 'Only readers with this device name'
complete -c gvusb -n '__gvusb_command list' -l id -x -a '(__gvusb_readers)' -d 'Only readers with this device ID'
complete -c gvusb -n '__gvusb_command list info get set send monitor show explain doctor' -l json -d 'Print JSON'
complete -c gvusb -n '__gvusb_command send' -l timeout -x -d 'Time-out of each transfer in milliseconds'
complete -c gvusb -n '__gvusb_command send' -l repeat -x -d 'Send each frame so many times'
complete -c gvusb -n '__gvusb_command send' -l keep-going -d 'Continue after a failure'
complete -c gvusb -n '__gvusb_command send' -l drain -d 'Drop late answers before every frame'
complete -c gvusb -n '__gvusb_command send' -l no-drain -d 'Never drop late answers'
complete -c gvusb -n '__gvusb_command monitor' -l initial -d 'Start with the readers that are present'
complete -c gvusb -n '__gvusb_command monitor' -l count -x -d 'Exit after so many events'
complete -c gvusb -n '__gvusb_command monitor' -l idle-timeout -x -d 'Exit after so many seconds without an event'
complete -c gvusb -n '__gvusb_command monitor' -l poll-interval -x -d 'Milliseconds between polls'
complete -c gvusb -n '__gvusb_command record' -s o -l output -r -F -d 'The file to write'
complete -c gvusb -n '__gvusb_command record' -l redact -d 'Replace the data of frames'
complete -c gvusb -n '__gvusb_command record' -l redact-matching -x -d 'Replace frames that contain these bytes'
complete -c gvusb -n '__gvusb_command record' -l max-size -x -d 'End the recording before the file is larger'
complete -c gvusb -n '__gvusb_command record' -l until-signal -d 'End the recording at a signal'

complete -c gvusb -n '__gvusb_command show' -l reader -x -d 'Only this reader'
complete -c gvusb -n '__gvusb_command show' -l all -d 'Every control transfer in bytes'
complete -c gvusb -n '__gvusb_command show' -l plot -r -F -d 'Draw the exchanges into an SVG file'

complete -c gvusb -n '__gvusb_expects 0 show' -F
complete -c gvusb -n '__gvusb_expects 0 help' -a 'list info get set send monitor record show explain doctor'
complete -c gvusb -n '__gvusb_expects 0 info send get set' -a '(__gvusb_readers)'
complete -c gvusb -n '__gvusb_expects 0 get set' -a driver -d 'The library itself'
complete -c gvusb -n '__gvusb_expects 1 get set' -a '(__gvusb_keys)'
complete -c gvusb -n '__gvusb_expects 0 explain' -a '(__gvusb_codes)'
