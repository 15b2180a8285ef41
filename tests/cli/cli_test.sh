#!/usr/bin/env bash
# talvo-cli against the sample apps in a private session: every command, the exit code of
# every documented case, and one clear line for bad input. A request is made before the
# CLI runs its loop, so the launch wait of an app that is not running yet is exercised too.
. "$(dirname "$0")/cli_lib.sh" "$@"

# 0: success of each command.
expect 0 '^yes$' registered "$port" playMusic
expect 0 'mechanism: +message port' explain "$port"
expect 0 'alias app: +yes' explain "$alias_app"
expect 0 "app output: +$session_work/rt/log/$port.log" explain "$port"
expect 0 'result: \{"actionId":"playMusic"' action "$port" actionId=playMusic
expect 0 'result: \{"actionId":"setAlarm"' action "$rpc" actionId=setAlarm
expect 0 'appContext: \{"appId":"org.velna.sample.rpccompanion"' state "$rpc"
expect 0 "^$alias_app runs$" launch "$alias_app"
# The alias app asks for the focus before it serves its port, so once it has answered
# it has the focus.
expect 0 'appContext: \{"appId":"org.velna.sample.aliascompanion"' state "$alias_app"
expect 0 "^$alias_app\$" focused
expect 0 "^$port +message-port +SDK 1.0-alpha +yes +yes +no +playMusic$" list
expect 0 "^$alias_app +rpc-port +alias app +yes +yes +yes +openGallery$" list
expect 0 '^Usage: talvo-cli \[OPTION...\] state' state --help
expect 0 '^Usage: talvo-cli \[OPTION...\] run FILE' help run
expect 0 '^talvo-cli [0-9]+\.[0-9]+' --version
# Options after the command, short ones, values after '=' and after a blank, and "--".
expect 0 'result: \{"actionId":"x"' action -t 5 --log-level=silent -- "$port" actionId=x

# 1: a failure answer, an undeclared action, a refused request, no focused app.
expect 1 'status_code: ACTION_EXECUTION_FAILURE' action "$port" actionId=x \
  sample_status=ACTION_EXECUTION_FAILURE
expect 1 '^no$' registered "$port" play
expect 1 'refused: -1073741825' state org.velna.sample.noexec
gdbus call --system --dest org.enlightenment.wm --object-path /org/velna/WmSim \
  --method org.velna.WmSim.Clear > /dev/null
expect 1 'no app has the focus' focused

# 2: the command line.
expect 2 "'bad' is not KEY=VALUE" action "$port" bad
expect 2 "unknown command 'nosuch'" nosuch
expect 2 "no command 'nosuch'" help nosuch
expect 2 'Unknown option --bogus' --bogus list
expect 2 'Unknown option -x' list -x
expect 2 '--timeout takes a whole number' --timeout=0 focused
expect 2 '--json takes pretty or short' --json=long focused
expect 2 'registered needs 2 arguments' registered "$port"
expect 2 'too many arguments for explain' explain "$port" "$rpc"
expect 2 "unknown log level 'loud'" -l loud focused
expect 2 'no command given'

# 3: no answer, with the library's reason for dropping the answer that came.
expect 3 "no answer from '$port' within 2 s
  the library's log says: Unknown message recieved from app:$port" \
  --timeout=2 action "$port" actionId=x sample_reply=wrong_keys

# 4: the environment, through the flags that override it.
expect 4 "'org.nope.app' is not installed \(no org.nope.app.app in $session_work/apps\)" \
  action org.nope.app actionId=x
expect 4 "'$port' is not installed \(no $port.app in $session_work/none\)" \
  --apps-dir="$session_work/none" explain "$port"
expect 4 "^talvo-cli: no system bus at unix:path=$session_work/none" \
  --address="unix:path=$session_work/none" focused
expect 4 'the apps directory .*/none cannot be read' --apps-dir "$session_work/none" list

# The flags win over the environment: another runtime directory holds no running app,
# and the client id is the one given.
expect 0 "running: +no" --runtime-dir="$session_work/rt2" explain "$port"
expect 0 "result: .*\"done\":true" --client-id=org.example.other action "$port" actionId=x
finish
