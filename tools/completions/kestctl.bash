# Completion of kestctl's command lines in bash. kestctl itself knows the words: `kestctl complete WORD...` prints those
# that can stand in the place of the last one, a line each, or ":files" and ":folders" where one of these is due.

_kestctl()
{
    local -a words=() lines=()
    local word joins="" index cur candidate quoted before=""

    # bash splits words at ':' and '='; here they are whole again
    for ((index = 1; index <= COMP_CWORD; index++)); do
        word=${COMP_WORDS[index]}
        if [[ ${#words[@]} -gt 0 && $word =~ ^[:=]+$ ]]; then
            words[-1]+=$word
            joins=yes
        elif [[ -n $joins && ! ($index -eq $COMP_CWORD && ${COMP_LINE:0:COMP_POINT} == *[[:space:]]) ]]; then
            words[-1]+=$word
            joins=""
        else
            words+=("$word")
            joins=""
        fi
    done
    if [[ ${COMP_LINE:0:COMP_POINT} == *[[:space:]] && -n ${COMP_WORDS[COMP_CWORD]} ]]; then
        words+=("")
    fi
    cur=${words[-1]-}

    COMPREPLY=()
    mapfile -t lines < <(kestctl complete "${words[@]}" 2>/dev/null)
    # what stands before the last ':' or '=' is not replaced
    if [[ $cur == *[:=]* ]]; then
        before=${cur%"${cur##*[:=]}"}
    fi
    for candidate in "${lines[@]}"; do
        case $candidate in
            :files | :folders)
                compopt -o filenames 2>/dev/null
                [[ $candidate == :files ]] && mapfile -t COMPREPLY < <(compgen -f -- "${cur#"$before"}")
                [[ $candidate == :folders ]] && mapfile -t COMPREPLY < <(compgen -d -- "${cur#"$before"}")
                return
                ;;
        esac
        printf -v quoted %q "${candidate#"$before"}"
        COMPREPLY+=("$quoted")
    done
}

complete -F _kestctl kestctl
