# Sourced by the install tests: installing the build into a prefix, checking that the
# tree stands alone, starting a session from the installed tree, and matching output.

# install_tree BUILD PREFIX: cmake --install, then fails when an installed text file, or
# the run path of an installed binary, names the build tree.
install_tree() {
  local build=$1 prefix=$2 file
  cmake --install "$build" --prefix "$prefix" >/dev/null
  if grep -rIl -- "$build" "$prefix"; then
    echo "the files above name the build tree $build"
    return 1
  fi
  while IFS= read -r file; do
    if readelf -d "$file" 2>/dev/null | grep -E "R(UN)?PATH" | grep -v '\$ORIGIN'; then
      echo "$file: run path outside the installed tree"
      return 1
    fi
  done < <(find "$prefix" -type f -perm -u+x -o -type f -name '*.so*')
}

# session_from_tree PREFIX WORK: the private session of scripts/session.sh (bus,
# window-manager simulator, runtime and apps directory), made from the installed tree.
session_from_tree() {
  local prefix=$1
  session_manifests=$prefix/share/talvo/samples/apps
  session_wm_sim=$prefix/bin/talvo-wm-sim
  session_bus_config=$prefix/share/talvo/talvo-private-bus.conf
  . "$prefix/share/talvo/session.sh"
  mkdir "$2"
  session_start "$2"
}

# expect TEXT PATTERN...: fails, naming the pattern, unless TEXT has a line for each.
expect() {
  local text=$1 pattern
  shift
  for pattern in "$@"; do
    grep -q -- "$pattern" <<<"$text" || { echo "no line matches: $pattern"; return 1; }
  done
}

session_stop() { :; }  # until a session is started
