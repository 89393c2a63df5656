# jpipe.bash - completion for bash. The commands, options and operands come from
# jpipe's own help.

# Leaves out names with characters other than these: bash would expand them, and any local
# user can make an endpoint.
_jpipe_endpoints() {
  jpipe list 2>/dev/null | awk 'NR > 1 && $1 ~ /^[[:alnum:]:\/._-]+$/ { print $1 }'
}

# The options in the help $1, one per line: "--format text|quoted -f", "--help -h".
_jpipe_options() {
  sed -nE 's/^ +(-.)?,? *(--[a-z-]+)( [^ ]+)?.*/\2\3 \1/p' <<<"$1"
}

# The value that the option $2 in the help $1 takes; nothing for a flag.
_jpipe_value() {
  _jpipe_options "$1" | awk -v option="$2" '
    ($1 == option || $NF == option) && NF > 1 && $2 !~ /^-/ { print $2 }'
}

# What the last of the words "$2"... is: the name that the help $1 has for it, or "option".
_jpipe_wanted() {
  local help=$1 operands operand=0 value='' only_operands=no
  read -ra operands < <(sed -nE 's/^Usage: .*\[OPTION\.\.\.\] ?//p' <<<"$help")
  shift
  while [ $# -gt 1 ]; do
    if [ -n "$value" ]; then
      value=''
    elif [ "$1" = -- ]; then
      only_operands=yes
    elif [[ $only_operands = no && $1 = -?* ]]; then
      value=$(_jpipe_value "$help" "$1")
    else
      operand=$((operand + 1))
    fi
    shift
  done
  if [ -n "$value" ]; then
    echo "$value"
  elif [[ $only_operands = no && $1 = -* ]]; then
    echo option
  else
    echo "${operands[operand]-}"
  fi
}

_jpipe() {
  local word words=() current typed=${COMP_WORDS[COMP_CWORD]} help wanted offered=''
  # bash treats a colon and an equals sign as separate words.
  for word in "${COMP_WORDS[@]:0:COMP_CWORD+1}"; do
    if [[ $word = :* || ${words[*]: -1} = *: ]]; then
      words[-1]+=$word
    elif [ "$word" != = ]; then
      words+=("$word")
    fi
  done
  [ "$typed" != = ] || words+=('')
  current=${words[-1]}
  COMPREPLY=()
  if [ ${#words[@]} -eq 2 ]; then
    wanted='command'
  else
    help=$(jpipe "${words[1]}" --help 2>/dev/null)
    wanted=$(_jpipe_wanted "$help" "${words[@]:2}")
  fi
  case $wanted in
    command) offered="$(jpipe --help | sed -nE 's/^  ([a-z]+) .*/\1/p') --help --version" ;;
    option) offered=$(_jpipe_options "$help" | cut -d ' ' -f 1) ;;
    ENDPOINT) offered=$(_jpipe_endpoints) ;;
    *\|*) offered=${wanted//|/ } ;;
    FILE | \[FILE]) compopt -o filenames && mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
    DIR) compopt -o filenames && mapfile -t COMPREPLY < <(compgen -d -- "$current") ;;
  esac
  if [ -n "$offered" ]; then
    mapfile -t COMPREPLY < <(compgen -W "$offered" -- "$current")
  fi
  # bash replaces only what comes after the last colon.
  if [ "$typed" != "$current" ]; then
    COMPREPLY=("${COMPREPLY[@]#"${current%"${current##*:}"}"}")
  fi
}

complete -F _jpipe jpipe
