# Completion of fmcache for bash.

# Prints the identifiers in the store that the command line names, without braces, which need quoting.
_fmcache_ids() {
    local i store=${FMCACHE_DIR:+$FMCACHE_DIR/sdstore} info
    for ((i = 1; i + 1 < ${#COMP_WORDS[@]}; ++i)); do
        case ${COMP_WORDS[i]} in
            --dir) store=${COMP_WORDS[i + 1]}/sdstore ;;
            --store) store=${COMP_WORDS[i + 1]} ;;
        esac
    done
    store=${store//\\/} store=${store//[\"\']/}
    for info in "${store/#\~/$HOME}"/\{*\}.sdi; do
        info=${info##*/\{}
        [[ $info == '*}.sdi' ]] || echo "${info%\}.sdi}"
    done
}

_fmcache() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} verb='' each options
    local verbs='put get ls show verify report rm housekeep clear'
    for each in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        if [[ " $verbs " == *" $each "* ]]; then
            verb=$each
            break
        fi
    done
    case $before in
        --dir | --store)
            compopt -o filenames
            mapfile -t COMPREPLY < <(compgen -d -- "$word")
            return
            ;;
        -o | --output | --sums | --write-sums)
            compopt -o filenames
            mapfile -t COMPREPLY < <(compgen -f -- "$word")
            return
            ;;
        --sort)
            mapfile -t COMPREPLY < <(compgen -W 'id name size age' -- "$word")
            return
            ;;
        --block | --piece | --name | --days | --max-size | --min-free) return ;;
    esac
    case $verb in
        put) options='--dir --json --block --piece --name' ;;
        get) options='--dir --json -o --output --force' ;;
        ls) options='--dir --store --json --days --sort' ;;
        show) options='--dir --store --json --days' ;;
        verify) options='--dir --store --json --sums --write-sums --force' ;;
        report) options='--dir --store --days' ;;
        rm) options='--dir --json --force' ;;
        housekeep) options='--dir --json --days --max-size --min-free --dry-run' ;;
        clear) options='--dir --json --yes --force' ;;
        *) options='' ;;
    esac
    if [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options --verbose --version -h --help" -- "$word")
    elif [[ -z $verb ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$verbs" -- "$word")
    elif [[ $verb == put ]]; then
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
    elif [[ $verb =~ ^(get|show|verify|rm)$ ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_fmcache_ids)" -- "$word")
    fi
}

complete -F _fmcache fmcache
