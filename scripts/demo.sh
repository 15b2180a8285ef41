#!/usr/bin/env bash
# Sets up, builds and runs the end-to-end demo session.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh
demo=${BUILD_DIR:-build}/tools/demo/talvo-demo
if [ ! -x "$demo" ]; then
  echo "demo: everything is built; the end-to-end demo session is not part of this tree yet."
  exit 0
fi
exec "$demo" "$@"
