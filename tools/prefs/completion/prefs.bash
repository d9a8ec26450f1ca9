# bash completion of prefs, the command-line client of the preferences service.
# Keys are completed from `prefs list`, asked of the service without waiting for it.

_prefs() {
    local cur prev words cword
    _init_completion 2>/dev/null || {
        cur=${COMP_WORDS[COMP_CWORD]}
        prev=${COMP_WORDS[COMP_CWORD-1]}
        words=("${COMP_WORDS[@]}")
        cword=$COMP_CWORD
    }

    local commands="get set type reset watch dump profile list describe backup restore help"
    local command="" i
    for ((i = 1; i < cword; i++)); do
        case ${words[i]} in
            --binder-dir|--trusted-uid|--wait) ((i++)) ;;
            -*) ;;
            *) command=${words[i]}; break ;;
        esac
    done

    case $prev in
        --binder-dir)
            COMPREPLY=($(compgen -d -- "$cur"))
            return ;;
        --type)
            COMPREPLY=($(compgen -W "integer long float double boolean string" -- "$cur"))
            return ;;
        --trusted-uid|--wait|--user|--count|--timeout|--package)
            return ;;
    esac

    case $command in
        "")
            COMPREPLY=($(compgen -W "$commands --binder-dir --trusted-uid --wait --help --version" -- "$cur")) ;;
        get|set|type|reset|describe|watch)
            if [[ $cur != -* ]]; then
                local keys
                keys=$(prefs --wait 0 list 2>/dev/null | awk '{ print $1 }')
                COMPREPLY=($(compgen -W "$keys" -- "$cur"))
                return
            fi ;;&
        get)
            COMPREPLY=($(compgen -W "--type --user --current --json --help" -- "$cur")) ;;
        set)
            COMPREPLY=($(compgen -W "--type --user --current --help" -- "$cur")) ;;
        describe)
            COMPREPLY=($(compgen -W "--json --help" -- "$cur")) ;;
        list)
            COMPREPLY=($(compgen -W "--package --values --json --help" -- "$cur")) ;;
        backup)
            COMPREPLY=($(compgen -W "--user --help" -- "$cur")) ;;
        watch)
            COMPREPLY=($(compgen -W "--values --count --timeout --help" -- "$cur")) ;;
        dump)
            COMPREPLY=($(compgen -W "all nodb db --list --profile --trace --help" -- "$cur")) ;;
        profile)
            COMPREPLY=($(compgen -W "start-profiling stop-profiling reset-profile
                enable-profile-on-boot disable-profile-on-boot start-tracing stop-tracing
                reset-trace enable-trace-on-boot disable-trace-on-boot" -- "$cur")) ;;
        help)
            COMPREPLY=($(compgen -W "$commands" -- "$cur")) ;;
        type)
            COMPREPLY=($(compgen -W "--help" -- "$cur")) ;;
        reset)
            COMPREPLY=($(compgen -W "--user --current --help" -- "$cur")) ;;
        restore)
            if [[ $cur == -* ]]; then
                COMPREPLY=($(compgen -W "--dry-run --help" -- "$cur"))
            else
                COMPREPLY=($(compgen -f -- "$cur"))
            fi ;;
    esac
}

complete -F _prefs prefs
