#!/usr/bin/env bash
# The bash completion of talvo-cli for partial command lines: commands, options and their
# values, installed app ids and the action ids that an app declares.
set -u
completion=$1 apps=$2
failures=0
. "$completion"
export VELNA_APPS_DIR=$apps

# completes LINE EXPECTED...: the replies for the command line LINE (cursor at its end).
completes() {
  local line=$1
  shift
  COMP_LINE=$line COMP_POINT=${#line} COMPREPLY=()
  _talvo_cli
  if [ "${COMPREPLY[*]}" != "$*" ]; then
    echo "FAILED: [$line] completed to [${COMPREPLY[*]}], wanted [$*]"
    failures=$((failures + 1))
  fi
}
completes "talvo-cli ex" explain
completes "talvo-cli --json " action state focused registered explain check list launch monitor run help
completes "talvo-cli --log-level=d" debug
completes "talvo-cli -l w" warn
completes "talvo-cli --json=s" short
completes "talvo-cli action org.velna.sample.r" org.velna.sample.rpccompanion
completes "talvo-cli action org.velna.sample.portcompanion " actionId=playMusic
completes "talvo-cli state org.velna.sample.aliascompanion actionId=o" openGallery
completes "talvo-cli --timeout=3 registered org.velna.sample.rpccompanion " setAlarm
completes "talvo-cli --apps-dir=/nonexistent explain "
completes "talvo-cli help mon" monitor
completes "talvo-cli focused "
[ "$failures" -eq 0 ] && echo "all completions as wanted"
