# Sourced by scripts that make Debian packages, with a folder of their own in out: how packages are called and checked,
# and root file systems to try them in.
cache=${KES_PACKAGE_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/kes-package}
maintainer=${KES_MAINTAINER:-kestrace maintainers <maintainers@example.org>}
root_under=(env)  # what stands in front of commands that run programs of a root

version=$(sed -n 's/^project(kes VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)
revision=$version-0kes1  # older than any that a distribution makes of the same version
if [ -z "${SOURCE_DATE_EPOCH-}" ]; then
  SOURCE_DATE_EPOCH=$(git log -1 --format=%ct 2>/dev/null || stat -c %Y CMakeLists.txt)
fi
export SOURCE_DATE_EPOCH

# One check: its name, then the command.
check() {
  local name=$1 log=$out/log began=$SECONDS
  shift
  if "$@" >"$log" 2>&1; then
    passed=$((passed + 1))
    echo "ok: $name ($((SECONDS - began)) s)"
  else
    failed=$((failed + 1))
    tail -n 60 "$log"
    echo "FAILED: $name"
    return 1
  fi
}

# The packaging of the sources below a folder, with what depends on the version, the date and the machine's owner.
write_debian() {
  local debian=$1/debian
  cp -r packaging/debian "$debian"
  sed -i "s/@MAINTAINER@/$maintainer/" "$debian/control"
  {
    printf 'kestrace (%s) unstable; urgency=medium\n\n' "$revision"
    printf '  * New version; the change log of the project says what is new in it.\n\n'
    printf ' -- %s  %s\n' "$maintainer" "$(LC_ALL=C date -u -R -d "@$SOURCE_DATE_EPOCH")"
  } >"$debian/changelog"
}

# A root file system from the cache: make_root NAME ARCHITECTURES PACKAGE...
make_root() {
  local name=$1 architectures=$2 suite
  shift 2
  mkdir -p "$cache"
  find "$cache" -name "$name.tar" -mtime +7 -delete
  [ -e "$cache/$name.tar" ] && return 0
  suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
  local IFS=,
  "${root_under[@]}" mmdebstrap --quiet --variant=minbase --architectures="$architectures" --include="$*" "$suite" \
    "$cache/$name.new.tar" &&
    mv "$cache/$name.new.tar" "$cache/$name.tar"
}

unpack_root() {
  rm -rf "$out/$1"
  mkdir -p "$out/$1"
  tar -xf "$cache/$1.tar" -C "$out/$1"
}

# Runs a script of tests/package in a root, as its first process.
in_root() {
  local root=$out/$1
  shift
  "${root_under[@]}" unshare --mount --pid --net --fork --mount-proc --root="$root" /usr/bin/env -i \
    PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"
}

# The same packages under an older version.
make_older() {
  local package folder
  mkdir -p "$out/older"
  for package in "$out"/one/*.deb; do
    [[ $package != *-dbgsym_* ]] || continue
    folder=$(mktemp -d)
    dpkg-deb -R "$package" "$folder" &&
      sed -i "s/$revision/0.0.1-0kes1/g; s/(>= $version)/(>= 0.0.1)/g" "$folder/DEBIAN/control" &&
      dpkg-deb --root-owner-group -Znone -b "$folder" "$out/older/$(basename "$package")" || return 1
    rm -rf "$folder"
  done
}

# The packages in the folder one, in the root NAME: installed, used, upgraded, purged.
lives() {
  local root=$out/$1
  unpack_root "$1" && make_older || return 1
  mkdir "$root/packages"
  cp -r "$out/older" "$root/packages/older"
  mkdir "$root/packages/new"
  cp "$out"/one/*.deb "$root/packages/new"
  cp tests/package/life samples/loopback.pcap "$root/packages"
  in_root "$1" sh /packages/life "$revision"
}
