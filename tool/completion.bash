# Completion of hxcrate for bash: commands, options, files, and members of a store.
# Source it, or install it as bash-completion/completions/hxcrate.
#
# A name in a store is a stranger's. It reaches the command line quoted, or not at all; bash's own
# completion of files (`compgen -f`, `compopt -o filenames`) expands what a name holds.

_hxcrate_options() {
  case $1 in
    pack) echo -T --null --no-recursion --include --exclude --include-from --exclude-from --attributes --skip --page-size --replace --in-memory --wait --dry-run ;;
    unpack) echo -v --strip-components --no-attributes --same-owner --set-id --overwrite --journals --max-entries --max-bytes --include --exclude --include-from --exclude-from --wait --dry-run ;;
    import) echo --include --exclude --include-from --exclude-from --attributes --skip --page-size --max-entries --max-bytes --replace --wait --dry-run ;;
    export) echo --format --include --exclude --include-from --exclude-from --no-attributes --wait ;;
    ls) echo -l -h -R -r --sort -0 --json --include --exclude --include-from --exclude-from --color --wait ;;
    tree) echo -d --ascii --color --wait ;;
    cat) echo --offset --length --wait ;;
    mount) echo -f --foreground -d --debug --idle --wait -o ;;
    put) echo -p --append --wait --dry-run ;;
    mkstore) echo -p --wait --dry-run ;;
    copy) echo --page-size --encoding --for --include --exclude --include-from --exclude-from --max-bytes --wait --dry-run ;;
    sum) echo --check --include --exclude --include-from --exclude-from --wait ;;
    diff) echo --json --include --exclude --include-from --exclude-from --wait ;;
    stat) echo --json --wait ;;
    check) echo --quick --json --wait ;;
    map) echo --svg --json --color --wait ;;
    salvage) echo --encoding --page-size --max-bytes --wait ;;
  esac
}

# What the line $1, which ends at the cursor, means, in the caller's variables: `words`, unquoted, of
# which the last is being typed, and the `quote` that is open in it. Readline replaces the line from
# its last $2 on: `kept` is what of that stays as it was typed, `fixed` the value of the last word up
# to there. Nothing is run: a line of more than names, quotes and $VARIABLES is not understood.
_hxcrate_parse() {
  local LC_ALL=C  # names are bytes
  local line=$1 rest=$1 from=$((${#1} - ${#2})) at reference token word=''
  local variable='^\$(([[:alpha:]_][[:alnum:]_]*)|\{([[:alpha:]_][[:alnum:]_]*)\})' home='^~(/|$)'
  local single="^'([^']*)" ansi="^\\\$'(([^\\\\']|\\\\[0-7]{3}|\\\\[^0-7])*)"
  words=() quote='' kept='' fixed=''
  while [[ -n $rest ]]; do
    token=${rest:0:1}
    if [[ $rest =~ $variable ]]; then
      token=$BASH_REMATCH reference=${BASH_REMATCH[2]}${BASH_REMATCH[3]}
      word+=${!reference-}
    elif [[ $rest =~ ^\\[\\\"\$\`] || (-z $quote && $token == \\) ]]; then
      token=${rest:0:2}
      word+=${token:1}
    elif [[ $token == \" ]]; then
      [[ -n $quote ]] && quote='' || quote=$token
    elif [[ -z $quote && ($rest =~ $single || $rest =~ $ansi) ]]; then
      token=$BASH_REMATCH
      [[ $token == \$* ]] && word+=${BASH_REMATCH[1]@E} || word+=${BASH_REMATCH[1]}
      if [[ ${rest:${#token}:1} == \' ]]; then token+=\'; else token=$rest quote=\'; fi
    elif [[ $token == [\$\`] || (-z $quote && $token == [\<\>\|\&\;\(\)]) ]]; then
      return 1
    elif [[ -z $quote && $rest =~ ^[[:space:]]+ ]]; then
      token=$BASH_REMATCH words+=("$word") word=''
    elif [[ -z $quote$word && $rest =~ $home ]]; then
      word=$HOME
    else
      word+=$token
    fi
    rest=${rest:${#token}}
    at=$((${#line} - ${#rest}))
    if [[ -z $quote ]] && ((at <= from)); then fixed=$word kept=''
    elif [[ -z $quote && $token == / ]]; then fixed=$word kept=${line:from:at - from}
    fi
  done
  words+=("$word")
}

# The members of the store among which the typed word, which may be a path, is one. Nothing is said of
# a store that does not open.
_hxcrate_members() {
  local parent=() name
  [[ -f $store_file ]] || return 0  # not even a pipe is opened
  [[ $current == */* ]] && parent=("${current%/*}")
  while IFS= read -r -d '' name; do
    found+=("${parent[0]+$parent/}$name")
  done < <("${words[0]}" ls -0 -- "$store_file" "${parent[@]}" 2>/dev/null </dev/null)
}

# The files, or the directories alone (-d), whose names begin with the typed word.
_hxcrate_files() {
  local name
  while IFS= read -r -d '' name; do
    if [[ -d $name ]]; then found+=("$name/"); elif [[ $1 == -f && -n $name ]]; then found+=("$name"); fi
  done < <(shopt -u failglob; shopt -s nullglob; set +f; printf '%s\0' "$current"*)
}

# Whether $1 holds what changes how the text around it looks, or is not seen.
_hxcrate_is_deceptive() {
  local LC_ALL=C  # of bytes
  [[ $1 == *@($'\xd8\x9c'|$'\xe2\x80'[$'\x8b\x8e\x8f\xa8'-$'\xae']|$'\xe2\x81'[$'\xa0'-$'\xa9']|$'\xef\xbb\xbf')* ]]
}

# The character $1 as its bytes' numbers, in `character`.
_hxcrate_number() {
  local LC_ALL=C
  printf -v character %q "$1"
}

# The name $1 as it can be typed, in `typed`. What two names begin with alike is typed alike, for
# readline inserts that.
_hxcrate_quote() {
  local character i
  typed=''
  [[ -z $1 ]] || printf -v typed %q "$1"
  [[ $typed == *\$\'* ]] || _hxcrate_is_deceptive "$1" || return 0
  typed=''
  for ((i = 0; i < ${#1}; ++i)); do
    character=${1:i:1}
    if _hxcrate_is_deceptive "$character"; then _hxcrate_number "$character"
    else printf -v character %q "$character"
    fi
    typed+=$character
  done
}

# Offers those of `found` that begin with the word that is being typed. Behind an open quote readline
# takes a word that begins and ends with that quote for the whole of it; what can't stand between two
# of the kind stands unquoted between two empty pairs.
_hxcrate_offer() {
  local name typed pair=$quote
  for name in "${found[@]}"; do
    [[ -n $quote && $name == "$current"* ]] || continue
    if [[ $name == "$current"*[[:cntrl:]\$\`\"\'\\\!]* ]] || _hxcrate_is_deceptive "$name"; then
      pair=$quote$quote
    fi
  done
  for name in "${found[@]}"; do
    # What begins with a dash would be an option before `--`.
    [[ $name == "$current"* && ($name != -* || -n $ended) ]] || continue
    typed=${name:${#fixed}}
    [[ -n $quote && $pair == "$quote" ]] || _hxcrate_quote "$typed"
    COMPREPLY+=("$kept$pair$typed$pair")
  done
  # A folder's name goes on behind its slash.
  [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY%"$pair"} == */ ]] && compopt -o nospace
}

# Finds what can stand in the place that is being typed, or behind the option $1.
_hxcrate_find() {
  case ${1:-$command:$place} in
    --svg | --check | --include-from | --exclude-from | -T) _hxcrate_files -f ;;
    --format) found=(tar zip cpio) ;;
    --encoding) found=(hxmok1/le/utf-8 hxmok1/be/utf-8) ;;
    --for) found=(reading) ;;
    --sort) found=(name size none) ;;
    --color) found=(auto always never) ;;
    -*) ;;
    unpack:1 | mount:[1-9]*) _hxcrate_files -d ;;
    ls:1 | tree:1 | stat:1 | cat:[1-9]* | sum:[1-9]* | put:1 | mkstore:1 | unpack:[2-9]*)
      [[ $store_file == *://* ]] || _hxcrate_members ;;  # a key that is pressed asks no server
    *:0 | pack:* | import:1 | export:1 | copy:1 | diff:1 | salvage:1 | put:2) _hxcrate_files -f ;;
  esac
}

_hxcrate() {
  local words quote kept fixed current command store_file='' place=0 option='' ended='' found=() i
  local commands='pack unpack import export ls tree cat sum diff put mkstore copy stat map check salvage --help --version'
  command -v hxcrate-mount > /dev/null && commands+=' mount'
  local IFS=$' \t\n'
  COMPREPLY=()
  _hxcrate_parse "${COMP_LINE:0:COMP_POINT}" "$2" || return
  current=${words[-1]} command=${words[1]}
  for ((i = 2; i < ${#words[@]} - 1; ++i)); do
    if [[ -n $option ]]; then option=''  # this is its value
    elif [[ -n $ended || ${words[i]} != -* ]]; then ((++place == 1)) && store_file=${words[i]}
    else
      case ${words[i]} in
        --) ended=1 ;;
        --page-size | --strip-components | --max-entries | --max-bytes | --max-transfer | --patience | --offset | --length | --wait | --idle | -o | --include | --exclude) ;&
        --include-from | --exclude-from | -T | --encoding | --for | --svg | --check | --format | --sort | --color) option=${words[i]} ;;
      esac
    fi
  done
  if ((${#words[@]} == 2)); then
    found=($commands) ended=1
  elif [[ $current == -* && -z $ended$option ]]; then
    found=($(_hxcrate_options "$command") --help) ended=1
  else
    _hxcrate_find "$option"
  fi
  _hxcrate_offer
}

complete -F _hxcrate hxcrate
