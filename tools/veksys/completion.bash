# Completion of veksys for bash: subcommands, options, components, types of points, names of return codes, files.

_veksys_words() { veksys --list "$1" 2>/dev/null; }

# Completes the last part of a list separated by commas.
_veksys_list() {
  local current=$1 words=$2 before=""
  [[ $current == *,* ]] && before=${current%,*},
  mapfile -t COMPREPLY < <(compgen -P "$before" -W "$words" -- "${current##*,}")
  compopt -o nospace
}

_veksys_filters="--component --function --process --thread --since --until --rc --errors --limit --last"

_veksys_log_tests="--level --since --until --pid --tid --function --component --probe --database --member --code --text"
_veksys_log_shapes="--where --limit --tail --follow --fold --count-by --per-minute --oneline --csv"
_veksys_log_fields="time level pid tid process instance member database apphdl appid uowid actid tenantid authid hostname"
_veksys_log_fields+=" eduid eduname product component function probe message called code oserr impact object type"

_veksys_options() {
  local everywhere="--help --instance --json"
  case $1 in
    log) echo "$_veksys_log_tests $_veksys_log_shapes $everywhere" ;;
    latch) echo "--process --type --waiting --all --interval --watch $everywhere" ;;
    memory) echo "--watch --openmetrics $everywhere" ;;
    rc) echo "--limit $everywhere" ;;
    on) echo "--size --component --type $everywhere" ;;
    off) echo "--discard $everywhere" ;;
    mask) echo "--component --type --add --remove $everywhere" ;;
    format) echo "$_veksys_filters $everywhere" ;;
    flow) echo "--merged --full $_veksys_filters $everywhere" ;;
    stat) echo "--sort --top $_veksys_filters $everywhere" ;;
    export) echo "--chrome --ctf $_veksys_filters $everywhere" ;;
    *) echo "$everywhere" ;;
  esac
}

_veksys_instances() {
  local file
  for file in "${VEK_SHM_DIR:-/dev/shm}/veksys.$UID."*; do
    file=${file##*/veksys."$UID".}
    [[ $file == "*" || $file == *.trace* ]] || echo "$file"
  done
}

# The subcommand on the line so far, `trace` replaced by the one below it.
_veksys_subcommand() {
  local word found=""
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    case $word in
      level) [[ $found != log ]] || found=level ;;
      latch | log | memory | rc | on | off | mask | dump | clear | status | format | flow | stat | export) found=$word ;;
      trace) [[ -n $found ]] || found=trace ;;
    esac
  done
  echo "$found"
}

_veksys() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} subcommand
  subcommand=$(_veksys_subcommand)
  COMPREPLY=()
  case $previous in
    --component) _veksys_list "$current" "all $(_veksys_words components)" && return ;;
    --type) [[ $subcommand == latch ]] || _veksys_list "$current" "$(_veksys_words types)" && return ;;
    --rc) _veksys_list "$current" "failed $(_veksys_words codes)" && return ;;
    --sort) mapfile -t COMPREPLY < <(compgen -W "total self calls p50 p99 max failed errors name" -- "$current") && return ;;
    --code) _veksys_list "$current" "$(_veksys_words codes)" && return ;;
    --level) _veksys_list "$current" "severe error warning info critical event" && return ;;
    --count-by) mapfile -t COMPREPLY < <(compgen -W "$_veksys_log_fields" -- "$current") && return ;;
    --size) mapfile -t COMPREPLY < <(compgen -W "1M 2M 16M 64M 256M 1G" -- "$current") && return ;;
    --instance) mapfile -t COMPREPLY < <(compgen -W "$(_veksys_instances)" -- "$current") && return ;;
    --chrome) compopt -o filenames && mapfile -t COMPREPLY < <(compgen -f -- "$current") && return ;;
    --ctf) compopt -o filenames && mapfile -t COMPREPLY < <(compgen -d -- "$current") && return ;;
    --function | --process | --thread | --since | --until | --limit | --last | --top | --tail | --where) return ;;
    --interval | --watch | --pid | --tid | --probe | --database | --member | --text) return ;;
  esac
  if [[ $current == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$(_veksys_options "$subcommand")" -- "$current")
    return
  fi
  case $subcommand in
    "") mapfile -t COMPREPLY < <(compgen -W "latch log memory rc trace" -- "$current") ;;
    trace) mapfile -t COMPREPLY < <(compgen -W "on off mask dump clear status format flow stat export" -- "$current") ;;
    rc) [[ -z $current ]] || mapfile -t COMPREPLY < <(compgen -W "$(_veksys_words codes)" -- "${current^^}") ;;
    level) mapfile -t COMPREPLY < <(compgen -W "default severe error warning info critical event" -- "$current") ;;
    log) compopt -o filenames && mapfile -t COMPREPLY < <(compgen -f -W level -- "$current") ;;
    dump | status | format | flow | stat | export) compopt -o filenames && mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
  esac
}

complete -F _veksys veksys
