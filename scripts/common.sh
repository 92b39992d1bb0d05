# Shared by the project's scripts: package installation and the build.
# shellcheck shell=bash

KESTOR_ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

# Debian packages the build and the tests need.
KESTOR_PACKAGES=(
    cmake ninja-build g++ pkg-config
    libsqlite3-dev libcli11-dev libtinyxml2-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    # GigE Vision and USB3 Vision cameras (the GenICam driver and its fake camera for tests)
    libaravis-dev libusb-1.0-0-dev aravis-tools-cli
)

# Installs whatever is missing: as root with apt-get, otherwise prints the line to run.
kestor_install_packages() {
    local missing=() p
    for p in "${KESTOR_PACKAGES[@]}" "$@"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    if [ "$(id -u)" -eq 0 ]; then
        echo "Installing: ${missing[*]}"
        export DEBIAN_FRONTEND=noninteractive
        apt-get update -qq
        apt-get install -y -qq --no-install-recommends "${missing[@]}"
    else
        echo "Missing Debian packages. Run:"
        echo "  sudo apt-get install -y ${missing[*]}"
        exit 1
    fi
}

# kestor_build DIR [cmake options...]: configures (once) and builds into DIR.
kestor_build() {
    local dir="$1"
    shift
    cmake -S "$KESTOR_ROOT" -B "$dir" -G Ninja "$@" >/dev/null
    cmake --build "$dir" -j "$(nproc)"
}
