#!/usr/bin/env bash
# Builds the Debian packages of debian/ from a copy of the tree (the build
# folders stay untouched), checks them with lintian, installs them on this
# machine and uses them as a user would, with no environment variable set,
# then purges them and checks that nothing of them is left. A trap purges them
# whatever step fails, so no system-wide plug-in is left to shadow the build
# tree's in later runs.
# Usage: scripts/check-debian.sh [WORK_DIR]   (default: build-debian)
set -euo pipefail
cd "$(dirname "$0")/.."
src=$PWD
work=$src/${1:-build-debian}
packages=(gstreamer1.0-vqasicapture vqasi-tools vqasi-simulator libmpegcore-dev)

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
apt_get() { $SUDO apt-get -o DPkg::Lock::Timeout=300 -y -qq "$@"; }

installed_packages() {
  local p
  for p in "${packages[@]}"; do
    if dpkg-query -W -f='${db:Status-Abbrev}' "$p" 2>/dev/null | grep -q '^.[^n]'; then echo "$p"; fi
  done
}
user_home=$(mktemp -d /tmp/vq-debian-home.XXXXXX)
purge_packages() {
  local status=$?
  local left
  left=$(installed_packages)
  if [ -n "$left" ]; then
    echo "=== purge" $left
    # shellcheck disable=SC2086
    apt_get purge $left >/dev/null || status=1
  fi
  rm -rf "$user_home"
  exit "$status"
}
trap purge_packages EXIT

version=$(dpkg-parsechangelog -l debian/changelog -S Version)
cmake_version=$(sed -n 's/^project(vq_graph VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
[ "$version" = "$cmake_version" ] || {
  echo "check-debian: debian/changelog says $version, CMakeLists.txt $cmake_version" >&2
  exit 1
}
arch=$(dpkg-architecture -q DEB_HOST_ARCH)
triplet=$(dpkg-architecture -q DEB_HOST_MULTIARCH)

echo "=== build the packages in $work/src (tests not run: nocheck)"
rm -rf "$work"
mkdir -p "$work/src"
git ls-files -z --cached --others --exclude-standard | tar --null -T - -cf - | tar -xf - -C "$work/src"
# debhelper points HOME at a scratch folder; ccache keeps using the real cache.
# Without the build path in the flags, ccache hits from any checkout.
if command -v ccache >/dev/null; then export CCACHE_DIR=${CCACHE_DIR:-$(ccache -k cache_dir)}; fi
export CCACHE_BASEDIR=$work/src CCACHE_NOHASHDIR=true
export DEB_CFLAGS_STRIP="-ffile-prefix-map=$work/src=." DEB_CXXFLAGS_STRIP="-ffile-prefix-map=$work/src=."
start=$SECONDS
(cd "$work/src" &&
 DEB_BUILD_OPTIONS="nocheck parallel=${JOBS:-$(nproc)}" dpkg-buildpackage -us -uc -b -Pnocheck) \
  > "$work/build.log" 2>&1 || { tail -n 60 "$work/build.log"; exit 1; }
echo "built in $((SECONDS - start)) s:"
debs=()
for p in "${packages[@]}"; do
  deb=$work/${p}_${version}_${arch}.deb
  [ -f "$deb" ] || { echo "check-debian: $deb not built" >&2; exit 1; }
  debs+=("$deb")
  printf '  %-45s %8s bytes, %6s KiB installed\n' "$(basename "$deb")" "$(stat -c %s "$deb")" \
    "$(dpkg-deb -f "$deb" Installed-Size)"
done

echo "=== lintian (no error, no warning)"
start=$SECONDS
lintian --fail-on error,warning "$work/vq-graph_${version}_${arch}.changes"
echo "lintian: clean ($((SECONDS - start)) s)"

echo "=== apt-get install ${debs[*]##*/}"
apt_get install "${debs[@]}" >/dev/null
# What the packages own, to check after the purge that all of it is gone.
for p in "${packages[@]}"; do dpkg -L "$p"; done | grep -vx '/\.' | sort -u > "$work/files.txt"

# A user's shell: nothing but PATH and a fresh HOME (so a fresh plug-in registry).
as_user() { env -i PATH=/usr/local/bin:/usr/bin:/bin HOME="$user_home" "$@"; }

echo "=== gst-inspect-1.0 vqasicapture"
as_user gst-inspect-1.0 vqasicapture > "$work/inspect.txt"
grep -E "Filename +(/usr)?/lib/$triplet/gstreamer-1.0/libgstvqasicapture.so" "$work/inspect.txt" ||
  { echo "check-debian: gst-inspect-1.0 did not find the installed plug-in" >&2; exit 1; }
grep -q 'src_asi' "$work/inspect.txt" || { echo "check-debian: no src_asi pad in gst-inspect-1.0" >&2; exit 1; }

echo "=== man vqasi-monitor (and the other pages)"
as_user man vqasi-monitor > "$work/man.txt"
head -n 4 "$work/man.txt"
grep -q -- '--duration' "$work/man.txt" || { echo "check-debian: man vqasi-monitor lacks --duration" >&2; exit 1; }
as_user man -w ts-tables t2mi-extract vqasi-sim

echo "=== vqasi-sim -i tests/data/live-025.ts -- vqasi-monitor --duration 3"
as_user vqasi-sim -i tests/data/live-025.ts -- vqasi-monitor --duration 3 > "$work/monitor.txt" 2> "$work/monitor.err" ||
  { cat "$work/monitor.err"; echo "check-debian: vqasi-monitor failed" >&2; exit 1; }
# Each line starts with its port's name (video0:).
grep -E '^[^ ]+: +(Signal state|Raw data counter) ' "$work/monitor.txt" | tail -n 2
grep -qE '^[^ ]+: +Raw data counter +[1-9]' "$work/monitor.txt" || { echo "check-debian: no data captured" >&2; exit 1; }

echo "=== applications built with pkg-config --cflags --libs mpegcore vqasicapture"
cat > "$work/pat_id.cpp" <<'EOF'
// Prints the transport stream id of the first PAT of a file.
#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

#include "mpegcore/BaseMpegParser.h"
#include "mpegcore/PAT.h"

struct pat_reader : mpegcore::CBaseMpegParser {
    pat_reader() : CBaseMpegParser(true) {}
    void OnPAT(mpegcore::CPAT* pat) override {
        if (!found)
            std::printf("transport_stream_id %u\n", static_cast<unsigned>(pat->transport_stream_id));
        found = true;
    }
    bool found = false;
};

int main(int argc, char** argv) {
    if (argc != 2)
        return 2;
    std::ifstream in(argv[1], std::ios::binary);
    std::vector<unsigned char> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    pat_reader reader;
    reader.Process(data.data(), data.size());
    return reader.found ? 0 : 1;
}
EOF
flags=$(as_user pkg-config --cflags --libs mpegcore vqasicapture)
# shellcheck disable=SC2086
as_user c++ -std=c++17 -o "$work/pat_id" "$work/pat_id.cpp" $flags
as_user "$work/pat_id" tests/data/live-025.ts
# shellcheck disable=SC2086
as_user c++ -std=c++17 -o "$work/asi_capture_example" examples/asi_capture_example.cpp $flags
as_user vqasi-sim -i tests/data/live-025.ts -- "$work/asi_capture_example" /dev/video0 3 > "$work/example.txt" 2>&1
grep -qE '^ *Raw data counter +[1-9]' "$work/example.txt" || {
  cat "$work/example.txt"
  echo "check-debian: the example captured no data" >&2
  exit 1
}
echo "the example captured data on the simulated board"

echo "=== apt-get purge"
apt_get purge "${packages[@]}" >/dev/null
left=$(installed_packages)
[ -z "$left" ] || { echo "check-debian: still known to dpkg after the purge: $left" >&2; exit 1; }
remaining=0
while read -r path; do
  # Folders such as /usr/bin belong to other packages too; ours must be gone.
  if [ -e "$path" ] && { [ ! -d "$path" ] || [ -z "$(dpkg -S "$path" 2>/dev/null)" ]; }; then
    echo "check-debian: left behind: $path" >&2
    remaining=1
  fi
done < "$work/files.txt"
[ "$remaining" -eq 0 ] || exit 1
echo "check-debian: OK"
