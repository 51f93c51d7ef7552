# bash completion for mavrel
_mavrel() {
  local current previous command
  current=${COMP_WORDS[COMP_CWORD]}
  previous=${COMP_WORDS[COMP_CWORD-1]}
  command=${COMP_WORDS[1]}
  if [[ $COMP_CWORD -eq 1 ]]; then
    COMPREPLY=($(compgen -W "migrate plan apps --help --version -V" -- "$current"))
    return
  fi
  case $previous in
    --root|--plugin-dir) COMPREPLY=($(compgen -d -- "$current")); return ;;
    --report|--log-json|--installer-log-json) COMPREPLY=($(compgen -f -- "$current")); return ;;
    --log-level) COMPREPLY=($(compgen -W "0 1 2 3 4 5 6 7" -- "$current")); return ;;
    --progress-fd) return ;;
  esac
  case $command in
    migrate)
      COMPREPLY=($(compgen -W "--root --report --verify --quiet --force --progress-fd
        --log-json --installer-log-json --log-level --plugin-dir --help" -- "$current")) ;;
    plan|apps) COMPREPLY=($(compgen -W "--root --json --help" -- "$current")) ;;
  esac
}
complete -F _mavrel mavrel
