# Completion of kestctl's command lines in fish; see kestctl.bash for what `kestctl complete` prints.

function __kestctl_lines
    set -l words (commandline -opc) (commandline -ct)
    kestctl complete $words[2..-1] 2>/dev/null
end

# fish quotes what needs it
complete -c kestctl -f -a '(__kestctl_lines | string match -v -r "^:")'
complete -c kestctl -F -n 'contains -- :files (__kestctl_lines)'
complete -c kestctl -f -n 'contains -- :folders (__kestctl_lines)' -a '(__fish_complete_directories (commandline -ct))'
