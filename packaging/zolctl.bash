# Completion of zolctl for bash: its commands and options are those that its own --help lists.

# Of a command: what may stand behind it.
_zolctl_commands()
{
    "$@" --help 2>/dev/null | awk '/^Subcommands:/ { listed = 1; next } /^[^ ]/ { listed = 0 }
                                   listed && /^  [a-z]/ { print $1 }'
}

_zolctl_options()
{
    "$@" --help 2>/dev/null | awk '{ for (field = 1; field <= 2; field++) {
                                         count = split($field, names, ",")
                                         for (name = 1; name <= count; name++)
                                             if (names[name] ~ /^--?[a-z]/) print names[name] } }'
}

_zolctl()
{
    local word=${COMP_WORDS[COMP_CWORD]} command=("${COMP_WORDS[0]}") given commands

    commands=$(_zolctl_commands "${command[@]}")
    for given in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        if [[ -n $commands && $given != -* ]]; then
            grep -qxF -- "$given" <<<"$commands" || return 0
            command+=("$given")
            commands=$(_zolctl_commands "${command[@]}")
        fi
    done
    if [[ $word == -* ]]; then
        commands=$(_zolctl_options "${command[@]}")
    elif [[ -z $commands ]]; then
        compopt -o default  # an argument: it may be a file
    fi
    mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$word")
}
complete -F _zolctl zolctl
