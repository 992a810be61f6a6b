#!/usr/bin/env bash
# Installs what building and testing Tamix needs on a Debian machine, and
# generates the locales the tests run under. Quick when all is present.
set -euo pipefail

packages=(
  g++ cmake make pkg-config clang-format
  libexpat1-dev zlib1g-dev qtbase5-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libgiac-dev
  libreadline-dev
  locales
)
# Further packages a caller needs (scripts/fuzz.sh asks for clang).
packages+=("$@")

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q '^install ok installed$'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  echo "setup: installing ${missing[*]}"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# Locales used by the tests: a UTF-8 one and a Latin-1 one.
have_locale() { locale -a 2>/dev/null | tr 'A-Z' 'a-z' | sed 's/-//g' | grep -qx "$1"; }
gen_locale() {
  local name=$1 charmap=$2 norm=$3
  if ! have_locale "$norm"; then
    echo "setup: generating locale $name"
    sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    $sudo localedef -i en_US -f "$charmap" "$name" 2>/dev/null || true
    have_locale "$norm" || { echo "setup: could not generate $name" >&2; exit 1; }
  fi
}
gen_locale en_US.UTF-8 UTF-8 en_us.utf8
gen_locale en_US.ISO-8859-1 ISO-8859-1 en_us.iso88591
exit 0
