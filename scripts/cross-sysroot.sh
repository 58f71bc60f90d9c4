#!/usr/bin/env bash
# Makes a sysroot for a cross build of the hub from Debian's own packages and prints its path.
#
#   scripts/cross-sysroot.sh mipsel|s390x
#
# The -dev packages of every library the hub, its tests and its benchmarks link, with the
# runtime libraries they pull in (libc and libstdc++ among them), are downloaded for the target
# architecture by a private apt configuration (its own package lists, its own empty package
# database and the host's package sources) and unpacked with dpkg -x. Nothing is installed on
# the machine and its own package database never learns of the foreign architecture, so no
# multiarch version clash can touch it. The same folder is the compiler's --sysroot (cmake/
# toolchain-*.cmake) and qemu's library prefix (QEMU_LD_PREFIX) when the programs run.
#
# Everything is kept in a cache folder, TARVO_CROSS_CACHE (default ~/.cache/tarvo-cross):
#   apt-ARCH/       the private package lists and state
#   debs-ARCH/      the downloaded packages
#   sysroot-ARCH/   the unpacked sysroot, with a stamp naming the package set it holds
# A second run with the same package set returns at once. TARVO_CROSS_REFRESH=1 reads the
# package lists anew and unpacks again when a package has changed.
set -euo pipefail

arch=${1:?usage: cross-sysroot.sh mipsel|s390x}
case $arch in
  mipsel) triplet=mipsel-linux-gnu ;;
  s390x) triplet=s390x-linux-gnu ;;
  *) echo "cross-sysroot: unsupported architecture $arch" >&2; exit 2 ;;
esac

PACKAGES=(
  libc6 libc6-dev libstdc++6 libgcc-s1
  libev-dev libjson-c-dev libmosquitto-dev libcurl4-openssl-dev libsodium-dev libssl-dev
  libavformat-dev libavcodec-dev libavutil-dev libswscale-dev
  libgtest-dev libgmock-dev libbenchmark-dev
)

cache=${TARVO_CROSS_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/tarvo-cross}
aptdir=$cache/apt-$arch
debs=$cache/debs-$arch
sysroot=$cache/sysroot-$arch
stamp=$sysroot/.tarvo-sysroot
wanted="packages: ${PACKAGES[*]}"

if [ -f "$stamp" ] && [ "${TARVO_CROSS_REFRESH:-0}" != 1 ] && [ "$(head -n 1 "$stamp")" = "$wanted" ]; then
  echo "$sysroot"
  exit 0
fi

mkdir -p "$aptdir/lists/partial" "$aptdir/cache" "$debs/partial"
: >"$aptdir/status"
apt_opts=(
  -o "APT::Architecture=$arch" -o "APT::Architectures::=$arch"
  -o "Dir::State=$aptdir" -o "Dir::State::Lists=$aptdir/lists"
  -o "Dir::State::status=$aptdir/status" -o "Dir::State::extended_states=$aptdir/extended_states"
  -o "Dir::Cache=$aptdir/cache" -o "Dir::Cache::archives=$debs"
  -o "APT::Get::Download-Only=true" -o "APT::Install-Recommends=false"
  -o "Debug::NoLocking=true" -o "APT::Sandbox::User=root"
)

# Package lists: read once, and again only when asked or when a day old.
if [ "${TARVO_CROSS_REFRESH:-0}" = 1 ] || [ -z "$(find "$aptdir/lists" -maxdepth 1 -name '*Packages*' -mmin -1440 2>/dev/null | head -n 1)" ]; then
  echo "cross-sysroot: reading the $arch package lists" >&2
  apt-get "${apt_opts[@]}" -qq update >&2
fi

# The whole dependency closure, as apt would install it on an empty $arch system.
echo "cross-sysroot: downloading the $arch packages (cached in $debs)" >&2
apt-get "${apt_opts[@]}" -qq -y install "${PACKAGES[@]}" >&2
# The set to unpack is apt's own answer of what it would install on an empty system.
mapfile -t names < <(apt-get "${apt_opts[@]}" -s install "${PACKAGES[@]}" 2>/dev/null |
  sed -n 's/^Inst \([^ ]*\) (\([^ ]*\) .*/\1_\2/p')
if [ ${#names[@]} -eq 0 ]; then
  echo "cross-sysroot: apt resolved no packages for $arch" >&2
  exit 1
fi
selected=()
for nv in "${names[@]}"; do
  name=${nv%%_*}
  version=${nv#*_}
  version=${version//:/%3a}  # epochs appear as %3a in package file names
  deb=$(compgen -G "$debs/${name}_${version}_*.deb" | head -n 1 || true)
  if [ -z "$deb" ]; then
    echo "cross-sysroot: ${name} ${version} was not downloaded" >&2
    exit 1
  fi
  selected+=("$deb")
done

signature=$(printf '%s\n' "${selected[@]##*/}" | sort | sha256sum | cut -d' ' -f1)
if [ -f "$stamp" ] && [ "$(sed -n 2p "$stamp")" = "set: $signature" ]; then
  printf '%s\nset: %s\n' "$wanted" "$signature" >"$stamp"
  echo "$sysroot"
  exit 0
fi

echo "cross-sysroot: unpacking ${#selected[@]} packages into $sysroot" >&2
rm -rf "$sysroot.new"
mkdir -p "$sysroot.new"
for deb in "${selected[@]}"; do
  dpkg-deb -x "$deb" "$sysroot.new"
done

# Absolute symbolic links (libfoo.so -> /lib/TRIPLET/libfoo.so.1) would point into the host's
# own tree: make them relative to the sysroot.
while IFS= read -r link; do
  target=$(readlink "$link")
  case $target in
    /*) ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$sysroot.new$target")" "$link" ;;
  esac
done < <(find "$sysroot.new" -type l)

# Libraries that Debian places through the alternatives system (BLAS, LAPACK) live in
# subfolders; the loader in the emulator finds them through the usual library folder.
for alt in "$sysroot.new/usr/lib/$triplet"/*/lib*.so.*; do
  [ -e "$alt" ] || continue
  base=$(basename "$alt")
  [ -e "$sysroot.new/usr/lib/$triplet/$base" ] ||
    ln -s "$(basename "$(dirname "$alt")")/$base" "$sysroot.new/usr/lib/$triplet/$base"
done

# The target's programs are of no use here, and under qemu they would stand in front of the
# host's own (/bin/sh for the daemon's shell commands): keep only libraries and headers.
rm -rf "$sysroot.new/bin" "$sysroot.new/sbin" "$sysroot.new/usr/bin" "$sysroot.new/usr/sbin" \
  "$sysroot.new/usr/libexec"

printf '%s\nset: %s\n' "$wanted" "$signature" >"$sysroot.new/.tarvo-sysroot"
rm -rf "$sysroot"
mv "$sysroot.new" "$sysroot"
echo "$sysroot"
