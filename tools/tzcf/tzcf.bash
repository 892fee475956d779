# bash completion for tzcf: commands, their options, files, and the stream
# names of the compound file already on the line. Installed as
# share/bash-completion/completions/tzcf.

_tzcf_streams() {
  # The names of FILE's streams, one a line; nothing when it cannot be read.
  tzcf ls -- "$1" 2>/dev/null
}

_tzcf() {
  local cur prev words cword
  if declare -F _init_completion >/dev/null; then
    _init_completion || return
  else
    cur=${COMP_WORDS[COMP_CWORD]}
    prev=${COMP_WORDS[COMP_CWORD - 1]}
    words=("${COMP_WORDS[@]}")
    cword=$COMP_CWORD
  fi

  local commands="pack add unpack ls cat put rm check info salvage compact scrub encrypt decrypt passwd help"
  if [ "$cword" -eq 1 ]; then
    COMPREPLY=($(compgen -W "$commands -V --version -h --help" -- "$cur"))
    return
  fi

  local command=${words[1]}
  case $prev in
    --password-file | --new-password-file)
      COMPREPLY=($(compgen -f -- "$cur"))
      return
      ;;
  esac

  local options
  case $command in
    pack) options="-f --force -L --dereference -q --quiet" ;;
    add) options="-L --dereference -q --quiet --password-file" ;;
    unpack) options="-q --quiet --password-file" ;;
    ls) options="-l --human --json" ;;
    cat | put) options="--password-file" ;;
    rm) options="--password-file" ;;
    check | info | salvage) options="-q --quiet --json --password-file" ;;
    compact) options="-q --quiet --copy" ;;
    scrub) options="-q --quiet" ;;
    encrypt | decrypt) options="-q --quiet --password-file" ;;
    passwd) options="-q --quiet --password-file --new-password-file" ;;
    help)
      COMPREPLY=($(compgen -W "$commands" -- "$cur"))
      return
      ;;
  esac
  if [[ $cur == -* ]]; then
    COMPREPLY=($(compgen -W "$options -h --help" -- "$cur"))
    return
  fi

  # The words that are not options, after the command, with the one being
  # completed: positional number n (from 1).
  local i n=0 file=
  for ((i = 2; i < cword; i++)); do
    case ${words[i]} in
      --password-file | --new-password-file) ((i++)) ;;
      -*) ;;
      *)
        ((n++))
        [ $n -eq 1 ] && file=${words[i]}
        ;;
    esac
  done
  ((n++))

  case $command in
    pack)
      if [ $n -eq 1 ]; then COMPREPLY=($(compgen -d -- "$cur")); else COMPREPLY=($(compgen -f -- "$cur")); fi
      ;;
    unpack)
      case $n in
        1) COMPREPLY=($(compgen -f -- "$cur")) ;;
        2) COMPREPLY=($(compgen -d -- "$cur")) ;;
        *) mapfile -t COMPREPLY < <(compgen -W "$(_tzcf_streams "$file")" -- "$cur") ;;
      esac
      ;;
    ls | cat | rm)
      if [ $n -eq 1 ]; then
        COMPREPLY=($(compgen -f -- "$cur"))
      else
        mapfile -t COMPREPLY < <(compgen -W "$(_tzcf_streams "$file")" -- "$cur")
      fi
      ;;
    put)
      case $n in
        1 | 3) COMPREPLY=($(compgen -f -- "$cur")) ;;
        2) mapfile -t COMPREPLY < <(compgen -W "$(_tzcf_streams "$file")" -- "$cur") ;;
      esac
      ;;
    *) COMPREPLY=($(compgen -f -- "$cur")) ;;
  esac
}

complete -o filenames -o bashdefault -F _tzcf tzcf
