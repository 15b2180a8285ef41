# bash completion for talvo-wm-sim.
_talvo_wm_sim() {
  local cur=${COMP_WORDS[COMP_CWORD]}
  COMPREPLY=($(compgen -W "--address --layout --help --version" -- "$cur"))
  [ "${COMP_WORDS[COMP_CWORD - 1]}" = --layout ] && COMPREPLY=($(compgen -W "12 13" -- "$cur"))
  return 0
}

complete -F _talvo_wm_sim talvo-wm-sim
