#!/usr/bin/env bash
# An app that starts but never registers its port: after the library's 10-second launch
# wait the client gets the library's own failure answer, which exits 1.
. "$(dirname "$0")/cli_lib.sh" "$@"
expect 1 'result: \{"result":"Failure"\}' --timeout=60 action org.velna.sample.neverready actionId=x
finish
