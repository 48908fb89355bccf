# Shared by scripts/run and scripts/test: installs what is missing, then
# configures and builds incrementally.

packages=(cmake ninja-build g++ pkg-config libgtest-dev libgmock-dev libbenchmark-dev libyaml-cpp-dev nlohmann-json3-dev libcli11-dev rsync openssh-client openssh-server)

install_missing() {
  local missing=()
  for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$(id -u)" -ne 0 ]; then
    echo "missing packages: ${missing[*]}; run as root or install them first" >&2
    exit 1
  fi
  echo "installing: ${missing[*]}" >&2
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

build() {
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
  cmake --build "$dir" -j "$(nproc)"
}
