# Completion of zolctl for bash: its commands and options are those that its own --help lists.
_zolctl()
{
    local word=${COMP_WORDS[COMP_CWORD]} command=("${COMP_WORDS[0]}") given

    for given in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        [[ $given != -* ]] || continue
        # A word that is no command is an argument of the last one.
        "${command[@]}" "$given" --help >/dev/null 2>&1 || break
        command+=("$given")
    done
    mapfile -t COMPREPLY < <(compgen -W "$("${command[@]}" --help 2>/dev/null | awk -v options="${word:0:1}" '
        /^Subcommands:/ { listed = 1; next }
        /^[^ ]/ { listed = 0 }
        options != "-" && listed && /^  [a-z]/ { print $1 }
        options == "-" { for (field = 1; field <= 2; field++) {
                             count = split($field, names, ",")
                             for (name = 1; name <= count; name++) if (names[name] ~ /^--?[a-z]/) print names[name] } }
        ')" -- "$word")
    # What no command answers may be a file.
    [[ ${#COMPREPLY[@]} -gt 0 || $word == -* ]] || compopt -o default
}
complete -F _zolctl zolctl
