# bash completion for tnefx. The commands and their options come from the tool's own help,
# so they cannot drift from what it accepts.
_tnefx() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]} cmd="" i w
    for ((i = 1; i < COMP_CWORD; i++)); do
        w=${COMP_WORDS[i]}
        case $w in
            --home | --set) ((i++)) ;;
            -*) ;;
            *) cmd=$w; break ;;
        esac
    done
    case $prev in
        --home | -C | --raw-texts) COMPREPLY=($(compgen -d -- "$cur")); return ;;
        --set | --index | --want | --format) return ;;
    esac
    if [[ $cur == -* ]]; then
        local opts
        opts=$("${COMP_WORDS[0]}" ${cmd:+"$cmd"} --help 2>/dev/null |
            sed -n 's/^  \(-[^ ]*\).*/\1/p' | tr ',' '\n')
        COMPREPLY=($(compgen -W "$opts" -- "$cur"))
    elif [[ -z $cmd ]]; then
        local cmds
        cmds=$("${COMP_WORDS[0]}" --help 2>/dev/null | sed -n '/^Subcommands:/,/^$/s/^  \([a-z]\+\) .*/\1/p')
        COMPREPLY=($(compgen -W "$cmds" -- "$cur"))
    else
        COMPREPLY=($(compgen -f -- "$cur"))
    fi
}
complete -o filenames -F _tnefx tnefx
