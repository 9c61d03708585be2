# Sourced by the scripts: where things are, installing what is missing, building.
# shellcheck shell=bash
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
root=$PWD

# A fresh clone next to a built one compiles nothing anew where ccache is at hand.
if command -v ccache >/dev/null; then
  export CMAKE_CXX_COMPILER_LAUNCHER=ccache CCACHE_BASEDIR=$root CCACHE_NOHASHDIR=1
fi

step() { printf '\n==> %s\n' "$*"; }

fail() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

as_root() {
  if [ "$(id -u)" -eq 0 ]; then
    "$@"
  else
    command -v sudo >/dev/null || fail "installing packages needs root or sudo: $*"
    sudo "$@"
  fi
}

# missing_packages WORD...: the packages that script/packages.txt lists under these words and that are not installed.
missing_packages() {
  local words=" $* " word package
  while read -r word package; do
    if [[ $words == *" $word "* && $installed != *" $package "* ]]; then echo "$package"; fi
  done <script/packages.txt
}

install_packages() {
  local installed missing
  # shellcheck disable=SC2016  # the braces are dpkg-query's
  installed=" $(dpkg-query --show --showformat '${db:Status-Status} ${Package}\n' | sed -n 's/^installed //p' | tr '\n' ' ')"
  mapfile -t missing < <(missing_packages "$@")
  apt_install "${missing[@]}"
}

apt_install() {
  [ $# -gt 0 ] || return 0
  step "Installing $*"
  local tries=0
  # apt waits for the lock of an installation under way, but not for the one of another update.
  until as_root apt-get -qq update; do
    tries=$((tries + 1))
    [ $tries -lt 10 ] || fail "apt-get update does not succeed"
    sleep 6
  done
  as_root env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 -o Dpkg::Use-Pty=0 -qq install -y \
    --no-install-recommends "$@" >/dev/null
}

# Node.js and npm may come from elsewhere, in versions that Debian's packages conflict with.
install_node() {
  local missing=()
  command -v node >/dev/null || missing+=(nodejs)
  command -v npm >/dev/null || missing+=(npm)
  apt_install "${missing[@]}"
  [ "$(node -p 'process.versions.node.split(".")[0]')" -ge 18 ] || fail "Node.js 18 or later is needed: $(command -v node)"
  if ! cmp -s package-lock.json node_modules/.installed-lock; then
    step "Installing the npm packages"
    npm ci --no-audit --no-fund --loglevel=error
    cp package-lock.json node_modules/.installed-lock
  fi
}

# configure PRESET [CMAKE-OPTION...]: quiet unless it fails.
configure() {
  local log=build/$1/configure.log
  mkdir -p "build/$1"
  cmake --preset "$@" >"$log" 2>&1 || {
    cat "$log" >&2
    fail "cannot configure the preset $1"
  }
}

# build PRESET [TARGET...]
build() {
  local preset=$1
  shift
  cmake --build --preset "$preset" ${1:+--target "$@"}
}
