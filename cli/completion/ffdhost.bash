# Completion of ffdhost for bash.
_ffdhost() {
    local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local commands="info read record map edit split join check recover"
    local operations="seek insert overwrite delete undo read show map store restore crash"
    local command="" at=0 i
    for ((i = 1; i < COMP_CWORD; i++)); do
        if [[ " $commands " == *" ${COMP_WORDS[i]} "* ]]; then
            command=${COMP_WORDS[i]} at=$i
            break
        fi
    done

    local words=""
    case "$previous" in
    --driver | -o | --output | --svg | insert | overwrite)
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        compopt -o filenames
        return
        ;;
    --from | --at | --length | --wait | seek | delete) return ;;
    esac
    case "$command:$word" in
    :*) words="$commands --driver --json --wait --version --help" ;;
    read:-*) words="--from --length --output --force --json --help" ;;
    record:-*) words="--at --length --overwrite --new --backup --force --json --help" ;;
    map:-*) words="--svg --force --json --help" ;;
    edit:-*) words="--force --snap --backup --dry-run --json --help" ;;
    split:-*) words="--output --force --json --help" ;;
    join:-*) words="--force --json --help" ;;
    recover:-*) words="--copy --info-frame --json --help" ;;
    *:-*) words="--json --help" ;;
    esac
    if [[ $command == edit ]] && ((COMP_CWORD > at + 1)); then
        words+=" $operations"
    elif [[ -n $command && $word != -* ]]; then
        local file
        while IFS= read -r file; do
            if [[ -d $file || ${file,,} == *.mp3 ]]; then
                COMPREPLY+=("$file")
            fi
        done < <(compgen -f -- "$word")
        compopt -o filenames
        return
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}
complete -F _ffdhost ffdhost
