# Sourced by the scripts of this folder: where the project is, and how what is missing gets installed.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
export DEBIAN_FRONTEND=noninteractive

say() { printf '%s\n' "$*" >&2; }

# Whether a Debian package is installed.
have_package() { dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null | grep -x installed >/dev/null; }

# Installs the packages that are missing, as root; anybody else is told which ones, and gets status 1.
need_packages() {
  command -v dpkg-query >/dev/null || return 0  # another system: its own packages have to be there
  local missing=() package
  for package; do have_package "$package" || missing+=("$package"); done
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$(id -u)" -ne 0 ]; then
    say "missing packages, and only root may install them: ${missing[*]}"
    return 1
  fi
  say "installing: ${missing[*]}"
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

build_packages="g++ cmake ninja-build libpcap-dev"
test_packages="gobjc++ libgnustep-base-dev libgtest-dev locales libgmock-dev tcpdump tshark mandoc groff-base doxygen python3 perl procps util-linux iproute2 strace pkg-config bash zsh fish"
package_packages="git binutils dpkg-dev debhelper fakeroot lintian mmdebstrap abigail-tools xz-utils pkg-config python3 clang"

# Builds with as many jobs as there are processors; a compiler cache is used where there is one.
if command -v ccache >/dev/null; then
  export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache
fi
jobs=$(getconf _NPROCESSORS_ONLN)

# build_preset PRESET [cmake arguments]: configures and builds quietly; says all when something fails.
build_preset() {
  local preset=$1 log
  shift
  log=$(mktemp)
  if ! { cmake --preset "$preset" "$@" && cmake --build --preset "$preset" -j "$jobs"; } >"$log" 2>&1; then
    cat "$log" >&2
    rm -f "$log"
    return 1
  fi
  rm -f "$log"
}
