#!/usr/bin/env bash
# Builds the Debian package from a configured and built tree and checks it: its exact file list
# and dependencies, lintian (no errors), and the systemd units as installed (systemd-analyze
# verify, and an exposure of at most 2.5 by systemd-analyze security).
#   packaging/check-package.sh BUILD_DIR OUTPUT_DIR
set -euo pipefail
build=$1
output=$2
source_dir=$(cd "$(dirname "$0")/.." && pwd)
package=vorbel-vpn-service

rm -rf "$output"
cpack --config "$build/CPackConfig.cmake" -B "$output" >/dev/null
deb=$(echo "$output"/${package}_*.deb)
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT

failed=0
fail() { echo "FAIL: $*"; failed=1; }

expected=(
    ./usr/lib/systemd/system/$package.service
    ./usr/lib/systemd/system/$package.socket
    ./usr/sbin/$package
    ./usr/share/doc/$package/README.md
    ./usr/share/doc/$package/changelog.gz
    ./usr/share/doc/$package/copyright
    ./usr/share/man/man8/$package.8.gz
)
# Every tool but the load generators is installed.
for source in "$source_dir"/tools/*.cpp; do
    [ -e "$source" ] || continue
    tool=$(basename "$source" .cpp)
    [ "$tool" = bridge-load-server ] || expected+=("./usr/libexec/$package/$tool")
done
actual=$(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print $6}' | sort)
wanted=$(printf '%s\n' "${expected[@]}" | sort)
[ "$actual" = "$wanted" ] || fail "file list differs:"$'\n'"$(diff <(echo "$wanted") <(echo "$actual"))"

depends=$(dpkg-deb -f "$deb" Depends)
for dependency in iproute2 init-system-helpers libicu72 libplist3 libsystemd0; do
    [[ "$depends" == *"$dependency"* ]] || fail "Depends lacks $dependency: $depends"
done

lintian --fail-on error "$deb" 2>&1 | grep -v 'root privileges' || true
lintian --fail-on error "$deb" >/dev/null 2>&1 || fail "lintian reports errors"

# The units as the package installs them, beside the system's own units (which they name).
dpkg-deb -x "$deb" "$root"
mkdir -p "$root/lib/systemd"
cp -a /lib/systemd/system "$root/lib/systemd/"
units=(/usr/lib/systemd/system/$package.service /usr/lib/systemd/system/$package.socket)
MANPATH="$root/usr/share/man:" systemd-analyze verify --root="$root" "${units[@]}" ||
    fail "systemd-analyze verify"
systemd-analyze security --offline=true --root="$root" --threshold=25 --no-pager \
    $package.service | tail -1 || fail "exposure above 2.5"

exit $failed
