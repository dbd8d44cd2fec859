# Completion of hxcrate for bash: commands, options, files, and members of a store.
# Source it, or install it as bash-completion/completions/hxcrate.

_hxcrate_options() {
  case $1 in
    pack) echo --page-size --replace --in-memory --dry-run ;;
    unpack) echo --overwrite --max-entries --max-bytes --dry-run ;;
    ls) echo -l -R -0 --json ;;
    tree) echo --ascii ;;
    cat) echo --offset --length ;;
    put) echo -p --append --wait --dry-run ;;
    mkstore) echo -p --wait --dry-run ;;
    copy) echo --page-size --encoding --exclude --dry-run ;;
    diff | stat) echo --json ;;
    check) echo --quick --json ;;
    map) echo --svg --json ;;
    salvage) echo --encoding --page-size ;;
  esac
}

# The members of the store $1 that begin with $2, which may be a path. Nothing is said of a store
# that does not open.
_hxcrate_members() {
  local store=$1 prefix='' name
  local -a parent=()
  if [[ $2 == */* ]]; then
    prefix=${2%/*}/
    parent=("${2%/*}")
  fi
  while IFS= read -r -d '' name; do
    [[ $prefix$name == "$2"* ]] && COMPREPLY+=("$prefix$name")
  done < <("${COMP_WORDS[0]}" ls -0 -- "$store" "${parent[@]}" 2>/dev/null)
  compopt -o filenames
  # A store's name goes on behind its slash.
  [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY[0]} == */ ]] && compopt -o nospace
}

_hxcrate_files() {
  local name
  while IFS= read -r name; do COMPREPLY+=("$name"); done < <(compgen "$1" -- "$2")
  compopt -o filenames
}

_hxcrate() {
  local current=${COMP_WORDS[COMP_CWORD]} command=${COMP_WORDS[1]-} store='' place=0 i
  local commands='pack unpack ls tree cat diff put mkstore copy stat map check salvage --help --version'
  local encodings='hxmok1/le/utf-8 hxmok1/be/utf-8'
  COMPREPLY=()
  if ((COMP_CWORD == 1)); then
    mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$current")
    return
  fi
  # Which of the words that are no options is being typed.
  for ((i = 2; i < COMP_CWORD; ++i)); do
    case ${COMP_WORDS[i]} in
      --page-size | --max-entries | --max-bytes | --offset | --length | --wait | --exclude | --encoding | --svg) ((++i)) ;;
      -*) ;;
      *)
        ((++place))
        # As it is typed; a quoted name is not understood, one with backslashes is.
        ((place == 1)) && store=${COMP_WORDS[i]//\\/}
        ;;
    esac
  done
  if ((i > COMP_CWORD)); then  # the value of an option
    case ${COMP_WORDS[COMP_CWORD - 1]} in
      --svg) _hxcrate_files -f "$current" ;;
      --encoding) mapfile -t COMPREPLY < <(compgen -W "$encodings" -- "$current") ;;
    esac
    return
  fi
  if [[ $current == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$(_hxcrate_options "$command") --help" -- "$current")
    return
  fi
  case $command:$place in
    pack:1 | unpack:1) _hxcrate_files -d "$current" ;;
    ls:1 | tree:1 | cat:[1-9]* | put:1 | mkstore:1 | unpack:[2-9]*)
      _hxcrate_members "$store" "${current//\\/}"
      ;;
    *:0 | copy:1 | diff:1 | salvage:1 | put:2) _hxcrate_files -f "$current" ;;
  esac
}

complete -F _hxcrate hxcrate
