# shellcheck shell=bash
# Completes the programs' options and subcommands with what their --help tells; files where it tells nothing.

_quorvane() {
    local program=$1 current=$2 previous=$3 subcommand='' word help
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        [[ $word == -* ]] || { subcommand=$word && break; }
    done
    help=$("${program/#\~/$HOME}" ${subcommand:+"$subcommand"} --help 2>/dev/null) || return 0

    local words=
    if [[ $previous == -* ]] && words=$(sed -nE "s/^ +(-.,)?$previous .*\{([^}]*)\}.*/\2/p" <<<"$help") && [[ $words ]]; then
        words=${words//,/ }
    elif [[ $current == -* ]]; then
        words=$(sed -nE 's/^ +(-.,)?(--[a-z-]+).*/\2/p' <<<"$help")
    elif [[ ! $subcommand ]]; then
        words=$(sed -nE '/^Subcommands:/,$s/^  ([a-z-]+) .*/\1/p' <<<"$help")
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

complete -o default -F _quorvane quorvanectl quorvane-storebag quorvane-collector
