#!/usr/bin/env bash
# demo_test.sh BUILD_DIR: installs BUILD_DIR into a temporary prefix and runs the installed
# demo (bin/talvo-demo) from there, with nothing from the build tree on any path.
set -euo pipefail
build=$(cd "$1" && pwd)
work=$(mktemp -d /tmp/talvo-install-demo.XXXXXX)
. "$(dirname "$0")/installed_tree.sh"
trap 'rm -rf "$work"' EXIT
unset LD_LIBRARY_PATH VELNA_APPS_DIR VELNA_RUNTIME_DIR

install_tree "$build" "$work/prefix"
# Into a file, not a pipe: an app that the demo launches may hold its output open.
(cd "$work" && PATH=/usr/bin:/bin "$work/prefix/bin/talvo-demo") > "$work/out" 2>&1
out=$(cat "$work/out")
echo "$out"
expect "$out" "^\[ *[0-9.]* s\] Running the client" " 0 failed$" "why: an alias app"
