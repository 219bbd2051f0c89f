# Completion of portctl for bash: portctl itself knows its commands, its options and the ports.
_portctl() {
  local cur=${COMP_WORDS[COMP_CWORD]} cword=$COMP_CWORD line
  local -a words=("${COMP_WORDS[@]}")
  # A colon is part of a word here: HOST:PORT, and names of ports.
  if declare -F _get_comp_words_by_ref >/dev/null; then
    _get_comp_words_by_ref -n := cur words cword
  fi
  COMPREPLY=()
  while IFS= read -r line; do
    if [[ $line == :files ]]; then
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -f -- "$cur")
      return
    fi
    COMPREPLY+=("$(printf '%q' "${line%%$'\t'*}")")
  done < <("${words[0]}" --complete "${words[@]:1:cword}" 2>/dev/null)
  if declare -F __ltrim_colon_completions >/dev/null; then
    __ltrim_colon_completions "$cur"
  fi
}
complete -F _portctl portctl
