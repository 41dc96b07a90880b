# bash completion for talvoro: commands, options, camera serial numbers, control names and
# values. The tool itself knows what can follow (talvoro __complete), so this stays the same
# when commands are added.
_talvoro() {
    local cur=${COMP_WORDS[COMP_CWORD]}
    local IFS=$'\n'
    local candidates
    candidates=$("${COMP_WORDS[0]}" __complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2> /dev/null) ||
        return 0
    case $candidates in
        @file)
            COMPREPLY=($(compgen -f -- "$cur"))
            compopt -o filenames 2> /dev/null
            ;;
        @dir)
            COMPREPLY=($(compgen -d -- "$cur"))
            compopt -o filenames 2> /dev/null
            ;;
        @command)
            COMPREPLY=($(compgen -c -- "$cur"))
            ;;
        *)
            COMPREPLY=($(compgen -W "$candidates" -- "$cur"))
            ;;
    esac
    return 0
}
complete -F _talvoro talvoro
