#!/usr/bin/env bash
# Prepares 32-bit execution under Debian's wine64 (its WoW64 mode): Wine's own 32-bit PE DLLs,
# which Debian ships in libwine:i386, are fetched for exactly the installed wine64 version
# without adding the i386 architecture to dpkg, and unpacked into a folder of their own.
# wine-env.sh points WINEDLLPATH at that folder. Fast when the folder is already there.
set -euo pipefail
source "$(dirname "$0")/wine-env.sh"

version="$(dpkg-query -W -f='${Version}' wine64)"
dest="$TAVRIN_WINE32_DIR"
if [ -f "$dest/i386-windows/kernel32.dll" ] && [ -L "$dest/x86_64-unix" ]; then
  exit 0
fi

echo "setup: fetching Wine's 32-bit DLLs (libwine:i386 $version) into $dest"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/state/lists/partial" "$work/cache/archives/partial" "$work/parts"

# A private apt state whose sources are the machine's own Debian sources, restricted to i386.
n=0
for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
  [ -f "$f" ] || continue
  grep -E '^[[:space:]]*deb[[:space:]].*debian' "$f" \
    | sed -E 's/^[[:space:]]*deb[[:space:]]+(\[([^]]*)\][[:space:]]+)?/deb [arch=i386 \2] /' \
    | sed -E 's/arch=i386 ([^]]*)arch=[^ \]]*/arch=i386 \1/' >> "$work/parts/sources.list" || true
done
for f in /etc/apt/sources.list.d/*.sources; do
  [ -f "$f" ] || continue
  n=$((n + 1))
  # deb822 stanzas: drop any architecture restriction and ask for i386 only.
  awk 'BEGIN{RS=""; ORS="\n\n"} /debian/ { gsub(/\n[Aa]rchitectures:[^\n]*/, ""); print $0 "\nArchitectures: i386" }' \
    "$f" > "$work/parts/src$n.sources"
done
apt_opts=(-o APT::Architecture=amd64 -o APT::Architectures::=i386
          -o Dir::State="$work/state" -o Dir::State::status=/var/lib/dpkg/status
          -o Dir::Cache="$work/cache" -o Dir::Etc::SourceList="$work/parts/sources.list"
          -o Dir::Etc::SourceParts="$work/parts" -o Debug::NoLocking=1)
touch "$work/parts/sources.list"
# Sources this machine cannot reach only cost a warning: the package comes from Debian's archive.
apt-get "${apt_opts[@]}" update -q >/dev/null 2>&1 || true
chmod 777 "$work"
( cd "$work" && apt-get "${apt_opts[@]}" download -q "libwine:i386=$version" >/dev/null 2>&1 ) || true
deb="$(ls "$work"/libwine_*_i386.deb 2>/dev/null || true)"
if [ -z "$deb" ]; then
  echo "setup: libwine:i386 $version could not be downloaded from the machine's Debian sources" >&2
  exit 1
fi
dpkg-deb -x "$deb" "$work/x"

rm -rf "$dest.tmp"
mkdir -p "$dest.tmp"
mv "$work/x/usr/lib/i386-linux-gnu/wine/i386-windows" "$dest.tmp/i386-windows"
# Wine loads each DLL's Linux half from beside the folder where it found the PE half.
ln -s /usr/lib/x86_64-linux-gnu/wine/x86_64-unix "$dest.tmp/x86_64-unix"
rm -rf "$dest"
mv "$dest.tmp" "$dest"
echo "setup: 32-bit Wine DLLs ready"
