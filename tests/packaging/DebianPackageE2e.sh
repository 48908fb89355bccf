#!/usr/bin/env bash
# The Debian package as an administrator gets it: built by CPack, unpacked
# into a scratch root, its agent able to start from there, its unit valid
# and hardened.
set -euo pipefail
build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/out" >/dev/null
dpkg-deb -x "$work"/out/*.deb "$work/root"
root=$work/root
for f in usr/bin/filerep usr/bin/kel-trace usr/libexec/filerep/Replicate usr/lib/systemd/system/filerep.service \
         usr/share/man/man1/filerep.1 usr/share/man/man5/filerep.yaml.5 usr/share/filerep/filerep.yaml; do
  [ -e "$root/$f" ] || { echo "the package lacks /$f" >&2; exit 1; }
done

# The configuration a fresh install starts with is valid, and the agent
# finds the Replicate installed beside it with nothing on PATH.
"$root/usr/bin/filerep" check --config "$root/usr/share/filerep/filerep.yaml"
mkdir -m 0700 "$work/run"
log=$(PATH=/usr/bin:/bin timeout -s TERM 1 "$root/usr/bin/filerep" run \
        --config "$root/usr/share/filerep/filerep.yaml" --socket "$work/run/s" 2>&1 || true)
grep -q "using the bundled Replicate in $root/usr/libexec/filerep" <<<"$log" || { echo "$log" >&2; exit 1; }

command -v systemd-analyze >/dev/null || exit 0
# The scratch root has no systemd of its own to resolve the unit's targets.
cp -rn /usr/lib/systemd/system/. "$root/usr/lib/systemd/system/"
unit=$root/usr/lib/systemd/system/filerep.service
systemd-analyze verify --man=no --root="$root" "$unit"
exposure=$(systemd-analyze security --offline=true --root="$root" "$unit" |
             sed -n 's/.*exposure level for filerep.service: \([0-9.]*\).*/\1/p')
awk -v e="$exposure" 'BEGIN { exit !(e != "" && e <= 5.0) }' || { echo "exposure level '$exposure' above 5.0" >&2; exit 1; }
