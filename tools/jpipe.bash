# jpipe.bash - completion of jpipe's commands, options and endpoints for bash

# Names with other characters than these are left out: bash would expand them, and any
# local user can make an endpoint.
_jpipe_endpoints() {
  jpipe list 2>/dev/null | awk 'NR > 1 && $1 ~ /^[[:alnum:]:\/._-]+$/ { print $1 }'
}

# The options that the command $1 takes.
_jpipe_options() {
  local bridge='--progress --timeout --bind --connect --hwm --linger --curve-cert
    --curve-server --curve-clients'
  case $1 in
    pull) echo --format --count --timeout --progress --frames ;;
    push) echo --count --timeout --progress --frames --file --no-wait ;;
    signal) echo --timeout --no-wait ;;
    drain) echo --format ;;
    export) echo --count "$bridge" ;;
    import) echo "$bridge" ;;
  esac
  echo --verbose --help
}

# What may stand after the words "$1 ... $2": "words LIST", "file", "directory" or nothing.
_jpipe_next() {
  local command=$1 previous=$2 current=$3
  case $previous in
    -f | --format) echo words text quoted hex json raw ;;
    --file | --curve-cert | --curve-server) echo file ;;
    --curve-clients) echo directory ;;
    -n | --count | -t | --timeout | --hwm | --linger | --frames) ;;
    *)
      case $current:$command in
        -*) echo words "$(_jpipe_options "$command")" ;;
        *:decode | *:keygen) echo file ;;
        *:list) ;;
        *) echo words "$(_jpipe_endpoints)" ;;
      esac
      ;;
  esac
}

_jpipe() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} next
  # bash takes the colon of ipc:// for a word of its own; bash-completion mends that.
  if declare -F _get_comp_words_by_ref >/dev/null; then
    _get_comp_words_by_ref -n : -c current -p previous
  fi
  next='words pull push signal list drain decode export import keygen --help --version'
  if [ "$COMP_CWORD" -gt 1 ]; then
    next=$(_jpipe_next "${COMP_WORDS[1]}" "$previous" "$current")
  fi
  COMPREPLY=()
  case $next in
    words*) mapfile -t COMPREPLY < <(compgen -W "${next#words}" -- "$current") ;;
    file) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
    directory) mapfile -t COMPREPLY < <(compgen -d -- "$current") ;;
  esac
  if [ "$next" = file ] || [ "$next" = directory ]; then
    compopt -o filenames
  elif declare -F __ltrim_colon_completions >/dev/null; then
    __ltrim_colon_completions "$current"
  fi
}

complete -F _jpipe jpipe
