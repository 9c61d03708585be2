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

# install_packages WORD...: the packages that script/packages.txt lists under these words.
install_packages() {
  local installed missing=() words=" $* " word package program
  # shellcheck disable=SC2016  # the braces are dpkg-query's
  installed=$(dpkg-query --show --showformat '${db:Status-Status} ${Package} \n' | sed -n 's/^installed / /p')
  while read -r word package program; do
    if [[ $words != *" $word "* || $installed == *" $package "* ]]; then continue; fi
    if [ -n "$program" ] && command -v "$program" >/dev/null; then continue; fi
    missing+=("$package")
  done < <(grep -v '^#' script/packages.txt)
  if [ ${#missing[@]} -gt 0 ]; then apt_install "${missing[@]}"; fi
}

apt_install() {
  local log=build/install.log tries=0
  step "Installing $* (log: $log)"
  mkdir -p build
  # apt waits for the lock of an installation under way, but not for the one of another update.
  until as_root apt-get update >$log 2>&1; do
    tries=$((tries + 1))
    if [ $tries -eq 10 ]; then
      cat $log >&2
      fail "apt-get update does not succeed"
    fi
    sleep 6
  done
  as_root env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 -o Dpkg::Use-Pty=0 install -y \
    --no-install-recommends "$@" >>$log 2>&1 || {
    tail -n 30 $log >&2
    fail "apt-get install does not succeed"
  }
}

# The npm packages, anew when the lock file has changed.
install_npm_packages() {
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
