#!/usr/bin/env bash
# install_sdk_test.sh SOURCE BUILD: installs BUILD into a temporary prefix, takes the
# minimal app of docs/companion-apps.md, builds it against the installed SDK through
# pkg-config and through find_package(TalvoCompanion), installs the one as a message-port
# app and the other as an rpc-port app, and has the installed talvo-cli check both.
set -euo pipefail
source_dir=$1 build=$2
work=$(mktemp -d /tmp/talvo-sdk-install.XXXXXX)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null
awk '/^## 7\. A minimal app/{on=1} on&&/^```c$/{grab=1; next} grab&&/^```$/{exit} grab' \
  "$source_dir/docs/companion-apps.md" > "$work/app.c"
lines=$(wc -l < "$work/app.c")
[ "$lines" -gt 10 ] && [ "$lines" -lt 40 ] || { echo "minimal app has $lines lines"; exit 1; }

libdir=$(dirname "$(find "$work/prefix" -name libtalvo-companion.so -print -quit)")
export LD_LIBRARY_PATH=$libdir PKG_CONFIG_PATH=$libdir/pkgconfig
cc -Wall -o "$work/app-pc" "$work/app.c" $(pkg-config --cflags --libs talvo-companion)

mkdir "$work/cm"
cp "$work/app.c" "$work/cm/app.c"
cat > "$work/cm/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(outside-companion C)
find_package(TalvoCompanion 1.0 REQUIRED)
add_executable(app app.c)
target_link_libraries(app PRIVATE TalvoCompanion::talvo-companion)
CMAKE
cmake -S "$work/cm" -B "$work/cm/build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cm/build" >/dev/null

export VELNA_APPS_DIR=$work/apps VELNA_RUNTIME_DIR=$work/rt VELNA_LOG_FILE=$work/log
export VELNA_APP_ID=org.velna.talvo.cli
mkdir -p "$work/apps" && mkdir -m 700 "$work/rt"
key=http://velna.org/velna/metadata/talvo
install_app() {  # ID EXEC SDK_VERSION
  printf '[Application]\nPackage=%s\nExec=%s\n\n[Metadata]\n' "$1" "$2" > "$work/apps/$1.app"
  printf '%s\n' "$key/companion-app/version=1.0.0" "$key/companion-app/capsule-id=example.mine" \
    "$key/companion-app/action-id=hello" "$key/sdk/version=$3" >> "$work/apps/$1.app"
}
install_app org.example.viaport "$work/app-pc" 1.0-alpha
install_app org.example.viarpc "$work/cm/build/app" 1.1.0

status=0
for app in org.example.viaport org.example.viarpc; do
  "$work/prefix/bin/talvo-cli" check "$app" || status=1
done
exit $status
