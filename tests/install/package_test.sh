#!/usr/bin/env bash
# package_test.sh BUILD_DIR: builds the Debian packages of BUILD_DIR with CPack into a
# temporary directory and inspects them with dpkg-deb: the four packages exist, each file
# lies in the package of its kind, every installed file is packaged, dependencies on
# Debian packages come from dpkg-shlibdeps and those between ours from the component
# graph, and nothing in them names the build tree.
set -euo pipefail
build=$(cd "$1" && pwd)
work=$(mktemp -d /tmp/talvo-package.XXXXXX)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*"; exit 1; }

cpack --config "$build/CPackConfig.cmake" -B "$work/debs" >/dev/null
version=$(sed -n 's/^set(CPACK_PACKAGE_VERSION "\(.*\)")$/\1/p' "$build/CPackConfig.cmake")
runtime=libtalvo-proxy1 dev=libtalvo-proxy-dev tools=talvo-tools samples=talvo-samples

# Each package: its files ("path" per line, directories left out) and its Depends.
for pkg in $runtime $dev $tools $samples; do
  deb=$(ls "$work"/debs/${pkg}_"$version"_*.deb 2>/dev/null) || fail "no package $pkg"
  dpkg-deb --contents "$deb" | awk '$1 !~ /^d/ {print $6}' | sed 's|^\./|/|' > "$work/$pkg.files"
  dpkg-deb --field "$deb" Depends > "$work/$pkg.depends"
  dpkg-deb -x "$deb" "$work/root-$pkg"
  echo "== $pkg: $(wc -l < "$work/$pkg.files") files; Depends: $(cat "$work/$pkg.depends")"
done

# place PKG PATTERN: every file of PKG matches the extended regular expression PATTERN.
place() {
  local wrong
  wrong=$(grep -Ev "$2" "$work/$1.files" || true)
  [ -z "$wrong" ] || fail "$1 holds files that belong elsewhere: $wrong"
}
place $runtime '^/usr/lib/(.*/)?lib[a-z-]+\.so\.[0-9.]+$|^/usr/share/dbus-1/system\.d/[^/]+\.conf$'
place $dev '^/usr/include/|^/usr/lib/(.*/)?(pkgconfig/[^/]+\.pc|cmake/Talvo(Proxy|Companion)/|lib[a-z-]+\.so$)'
place $tools '^/usr/bin/talvo-(cli|wm-sim)$|^/usr/share/(man|bash-completion)/'
place $samples '^/usr/bin/talvo-demo$|^/usr/libexec/talvo-samples/|^/usr/share/talvo/'
grep -q 'libtalvo-proxy\.so\.1$' "$work/$runtime.files" || fail "no soname link in $runtime"
grep -q 'libvelna-platform\.so\.1$' "$work/$runtime.files" || fail "no platform library"
grep -q 'libtalvo-companion\.so\.1$' "$work/$runtime.files" || fail "no companion SDK library"
grep -q 'talvo-companion\.pc$' "$work/$dev.files" || fail "no SDK .pc file in $dev"
grep -q 'talvo-proxy\.pc$' "$work/$dev.files" || fail "no .pc file in $dev"
grep -q 'TalvoProxyConfigVersion\.cmake$' "$work/$dev.files" || fail "no CMake version file"

# Every file that an install puts down is in exactly one package.
DESTDIR=$work/staged cmake --install "$build" --prefix /usr >/dev/null
(cd "$work/staged" && find . ! -type d | sed 's|^\.||' | sort) > "$work/installed"
sort "$work"/*.files > "$work/packaged"
[ -z "$(sort -u "$work/packaged" | comm -3 - "$work/installed")" ] ||
  fail "installed and packaged files differ: $(sort -u "$work/packaged" | comm -3 - "$work/installed")"
[ -z "$(uniq -d "$work/packaged")" ] || fail "in two packages: $(uniq -d "$work/packaged")"

# Dependencies: shared libraries found by dpkg-shlibdeps, ours with the exact version.
depends() { grep -q -- "$2" "$work/$1.depends" || fail "$1 does not depend on $2"; }
for lib in 'libc6 (>=' 'libglib2\.0-0 (>=' 'libjson-glib-1\.0-0 (>=' 'libecore1 (>='; do
  depends $runtime "$lib"
done
depends $dev "$runtime (= $version)"
depends $tools "$runtime (= $version)"
depends $tools 'libglib2\.0-0 (>='
depends $samples "$tools (= $version)"
depends $samples 'dbus-daemon'

# The library package leaves nothing behind on removal: no maintainer scripts (a postrm
# keeps a removed package known to dpkg), ldconfig by trigger.
deb=$(ls "$work"/debs/${runtime}_*.deb)
dpkg-deb --ctrl-tarfile "$deb" | tar t > "$work/control"
! grep -Eq 'post(inst|rm)|pre(inst|rm)' "$work/control" || fail "$runtime has maintainer scripts"
[ "$(dpkg-deb --info "$deb" triggers)" = "activate-noawait ldconfig" ] || fail "no ldconfig trigger"
grep -q "^libtalvo-proxy 1 $runtime" <(dpkg-deb --info "$deb" shlibs) || fail "no shlibs entry"

# Nothing from the build tree: no path into it, no build artefacts.
if grep -rl -- "$build" "$work"/root-*; then fail "the files above name $build"; fi
if grep -E '\.(o|a|cmake\.in)$|CMakeFiles' "$work/packaged"; then fail "build artefacts packaged"; fi
grep -q '^Exec=/usr/libexec/talvo-samples/port-companion$' \
  "$work/root-$samples/usr/share/talvo/samples/apps/org.velna.sample.portcompanion.app" ||
  fail "the sample manifest does not name the packaged program"
echo "packages built and in order"
