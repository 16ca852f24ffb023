# Bash completion for the kspool programs: options and subcommands are read from their --help, so that
# this file needs no change when they get new ones.
_kspool() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local -a command=("${COMP_WORDS[0]}")
    local help word subcommands options
    help=$("${command[0]}" --help 2>/dev/null) || return
    # The help of the innermost subcommand on the line.
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        subcommands=$(sed -n '/^Subcommands:/,/^$/s/^  \([a-z][a-z-]*\) .*/\1/p' <<<"$help")
        grep -qx -- "$word" <<<"$subcommands" || continue
        command+=("$word")
        help=$("${command[@]}" --help 2>/dev/null) || return
    done
    subcommands=$(sed -n '/^Subcommands:/,/^$/s/^  \([a-z][a-z-]*\) .*/\1/p' <<<"$help")
    options=$(grep -o -E '^  (-[A-Za-z],)?--[a-z-]+' <<<"$help" | tr , ' ')
    COMPREPLY=()
    case $previous in
    --config | --password-file | --cache | --files-from | --report | --port-file | --tls-dir | --tree | -o)
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
        ;;
    esac
    case $current in
    -*) mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current") ;;
    *)
        mapfile -t COMPREPLY < <(compgen -W "$subcommands" -- "$current")
        [ ${#COMPREPLY[@]} -gt 0 ] || mapfile -t COMPREPLY < <(compgen -f -- "$current")
        ;;
    esac
}
complete -o filenames -F _kspool kspool-agent kspool-cache kspool-mb kspool-sandbox
