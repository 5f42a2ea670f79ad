#!/usr/bin/env bash
# Installs what building and testing PDFSealmark needs on Debian 12 (as root,
# or through sudo when not root).
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git
  g++ clang libclang-rt-14-dev llvm
  libssl-dev openssl
  libicu-dev
  libqpdf-dev qpdf
  libcurl4-openssl-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  nlohmann-json3-dev libcli11-dev libnss3-dev
  poppler-utils python3 chromium
  slapd ldap-utils
  libnss3-tools softhsm2
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: everything is installed"
  exit 0
fi

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
# The tests run their own slapd with a throw-away configuration: the
# package must not ask for, or set up, a directory of its own.
echo "slapd slapd/no_configuration boolean true" | $sudo debconf-set-selections
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
