# shellcheck shell=bash
# Completion for qel-factory in bash: . factory/qel-factory.bash
#
# The words come from the program's own help. Where it has none that fit, files are completed.
_qel_factory()
{
    local command=() word help words
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        [[ $word == -* ]] || { command=("$word"); break; }
    done
    help=$("${COMP_WORDS[0]}" "${command[@]}" --help 2>/dev/null) || return
    words=$(sed -nE '/^ +-/s/.*(--[a-z][a-z-]*).*/\1/p' <<<"$help")
    [ ${#command[@]} -gt 0 ] || words+=" $(sed -nE '1,/^Subcommands:/d; s/^  ([a-z][a-z-]+) .*/\1/p' <<<"$help")"
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "${COMP_WORDS[COMP_CWORD]}")
}
complete -o default -F _qel_factory qel-factory
