# Completion of zarip-bus for bash.

_zarip_bus() {
    # A service that hangs must not hold up the shell.
    local program=${1:-zarip-bus} wait=(--timeout 1)
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local words=() word skip=
    # The words before the cursor that are not options.
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        if [ "$word" = -t ] || [ "$word" = --timeout ] || [ "$word" = "=" ]; then
            skip=yes
        elif [ -n "$skip" ]; then
            skip=
        elif [[ $word != -* ]]; then
            words+=("$word")
        fi
    done
    COMPREPLY=()
    if [ "$previous" = -t ] || [ "$previous" = --timeout ] || [ "$previous" = "=" ]; then
        return
    elif [ ${#words[@]} -ge 3 ] && [ "${words[0]}" = call ]; then
        return  # arguments, also those that begin with a dash
    elif [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "--all --json --timeout --help --version" -- "$current")
    elif [ ${#words[@]} -eq 0 ]; then
        mapfile -t COMPREPLY < <(compgen -W "list describe call monitor wait" -- "$current")
    elif [ ${#words[@]} -eq 1 ] && [ "${words[0]}" != list ]; then
        mapfile -t COMPREPLY < <(compgen -W "$("$program" --all list 2>/dev/null | sed 's/.*\.//')" -- "$current")
    elif [ ${#words[@]} -eq 2 ] && [ "${words[0]}" = call ]; then
        mapfile -t COMPREPLY < <(compgen -W "$("$program" "${wait[@]}" describe "${words[1]}" 2>/dev/null |
            sed -n 's/^  \([A-Za-z0-9_]*\)(.*/\1/p')" -- "$current")
    fi
}
complete -F _zarip_bus zarip-bus
