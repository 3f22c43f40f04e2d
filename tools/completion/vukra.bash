# bash completion for vukra: command groups and their verbs, the options,
# serial ports after -p, tables after --table, register names from the
# table in use after reg read, reg write and poll, local files for fs get and put
# (-r for a directory), directories and the mount's options after mount.
# After a "+" (which joins commands into one run) a new command begins.

_vukra_registers() {
    local table=$1
    [ -r "$table" ] || return 0
    "${COMP_WORDS[0]}" -q --table "$table" reg list 2>/dev/null |
        sed -n 's/^\([A-Za-z_][A-Za-z0-9_]*\) \[0x[0-9a-fA-F]*, .*/\1/p'
}

_vukra() {
    local cur=${COMP_WORDS[COMP_CWORD]}
    local prev=
    ((COMP_CWORD > 0)) && prev=${COMP_WORDS[COMP_CWORD - 1]}
    COMPREPLY=()

    case $prev in
    -p | --port)
        local ports=(/dev/ttyUSB* /dev/ttyACM* /dev/ttyS* /dev/pts/[0-9]* tcp://)
        COMPREPLY=($(compgen -W "${ports[*]}" -- "$cur"))
        [ ${#COMPREPLY[@]} -eq 0 ] && COMPREPLY=($(compgen -f -- "$cur"))
        return 0
        ;;
    --table)
        COMPREPLY=($(compgen -f -X '!*.xml' -- "$cur") $(compgen -d -S / -- "$cur"))
        return 0
        ;;
    --root | --cache) return 0 ;;
    --format)
        COMPREPLY=($(compgen -W "text csv json" -- "$cur"))
        return 0
        ;;
    --mqtt-credentials | --mqtt-cafile)
        COMPREPLY=($(compgen -f -- "$cur"))
        return 0
        ;;
    esac

    # The words before the cursor: the group, its verb and their arguments,
    # with the options and their values left out, from the last "+" on.
    local table=table.xml words=() i w
    for ((i = 1; i < COMP_CWORD; i++)); do
        w=${COMP_WORDS[i]}
        case $w in
        -p | --port | --every | --count | --format | --mqtt | --mqtt-credentials | --mqtt-cafile) ((i++)) ;;
        --table) ((i++)); table=${COMP_WORDS[i]} ;;
        --root | --cache) ((i++)) ;;
        +) words=() ;;
        -*) ;;
        *) words+=("$w") ;;
        esac
    done

    local group=${words[0]-} verb=${words[1]-} nargs=$((${#words[@]} - 2))
    if [[ $cur == -* ]]; then
        local options="-p --port --table -v --verbose -q --quiet -h --help --version"
        [[ $group/$verb == fs/get || $group/$verb == fs/put ]] && options+=" -r --recursive"
        [ "$group" = mount ] && options+=" --root --cache --mirror --no-put"
        [ "$group" = serve ] && options+=" --modbus-tcp --share --read-only --max-clients"
        [[ $group/$verb == reg/read || $group == poll ]] && options+=" --gap"
        [ "$group/$verb" = fs/putfs ] && options+=" --changed --full"
        COMPREPLY=($(compgen -W "$options" -- "$cur"))
        return 0
    fi

    case ${#words[@]} in
    0)
        COMPREPLY=($(compgen -W "reg fs watch mount poll serve" -- "$cur"))
        return 0
        ;;
    1)
        case $group in
        reg) COMPREPLY=($(compgen -W "read write list" -- "$cur")) ;;
        fs) COMPREPLY=($(compgen -W "ls cat get put rm mkdir rmdir mv df stat tree getfs putfs" -- "$cur")) ;;
        mount) COMPREPLY=($(compgen -d -- "$cur")) ;;
        poll) COMPREPLY=($(compgen -W "$(_vukra_registers "$table")" -- "$cur")) ;;
        esac
        return 0
        ;;
    esac

    case $group/$verb in
    reg/read | poll/*)
        COMPREPLY=($(compgen -W "$(_vukra_registers "$table")" -- "$cur"))
        ;;
    reg/write)
        ((nargs == 0)) && COMPREPLY=($(compgen -W "$(_vukra_registers "$table")" -- "$cur"))
        ;;
    fs/put)
        ((nargs == 0)) && COMPREPLY=($(compgen -f -- "$cur"))
        ;;
    fs/get)
        ((nargs == 1)) && COMPREPLY=($(compgen -f -- "$cur"))
        ;;
    esac
    return 0
}

complete -F _vukra vukra
