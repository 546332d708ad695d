#!/usr/bin/env bash
# Installs the Debian packages the build needs; does nothing when all are present.
set -euo pipefail
missing=()
for pkg in "$@"; do
  status=$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)
  [ "$status" = "install ok installed" ] || missing+=("$pkg")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "bootstrap: installing ${missing[*]}"
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
$SUDO apt-get update -qq
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
