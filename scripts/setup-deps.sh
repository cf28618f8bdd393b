#!/usr/bin/env bash
# Installs the Debian packages needed to build, test and run the project.
# Idempotent: packages already installed are skipped.
set -euo pipefail

PACKAGES=(
  build-essential cmake ninja-build ccache pkg-config git
  clang libclang-rt-dev clang-format
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev
  gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad
  libgtest-dev libgmock-dev libbenchmark-dev
  libdvbpsi-dev nlohmann-json3-dev libmicrohttpd-dev
  prometheus curl
  v4l-utils
  debhelper lintian help2man man-db
  python3-gi python3-gst-1.0
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup-deps: all packages present"
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "setup-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
