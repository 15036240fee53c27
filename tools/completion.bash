# SPDX-License-Identifier: LGPL-2.1-or-later
# shellcheck shell=bash
# Completion of zelgvc for bash.

_zelgvc() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local command=${COMP_WORDS[1]} options=
  COMPREPLY=()

  if [ "$COMP_CWORD" -eq 1 ]; then
    mapfile -t COMPREPLY < <(compgen -W "keygen listen connect send receive serve ping perf decode \
      --help --version" -- "$current")
    return
  fi

  case $previous in
    --encrypt) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
    --key-length) mapfile -t COMPREPLY < <(compgen -W "128 256" -- "$current"); return ;;
    --direction | -d)
      mapfile -t COMPREPLY < <(compgen -W "send receive both" -- "$current"); return ;;
    --from) mapfile -t COMPREPLY < <(compgen -W "client server" -- "$current"); return ;;
    --data) mapfile -t COMPREPLY < <(compgen -W "text random zero" -- "$current"); return ;;
    --exec) mapfile -t COMPREPLY < <(compgen -c -- "$current"); return ;;
    --variant | --strings | --limit | --timeout | --count | -c | --interval | -i | --size | \
      --sizes | -s | --seconds | -t | --stream) return ;;
  esac

  local stages="--compress --encrypt --key-length"
  local format="--frames --hex --variant --strings --limit --json"
  case $command in
    keygen) options="" ;;
    listen) options="$stages $format --keep --exec --timeout" ;;
    connect) options="$stages $format --timeout" ;;
    send) options="$stages --resume --json --timeout" ;;
    receive) options="$stages --force --resume --keep --json --timeout" ;;
    serve) options="$stages --timeout" ;;
    ping) options="$stages --count --interval --size --json --timeout" ;;
    perf) options="$stages --sizes --direction --seconds --data --json --timeout" ;;
    decode) options="$stages --encrypted --strings --hex --text --variant --limit --strict \
      --stream --from --json" ;;
    *) return ;;
  esac

  case $current in
    -*) mapfile -t COMPREPLY < <(compgen -W "$options --help" -- "$current") ;;
    *) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
  esac
}
complete -F _zelgvc zelgvc
