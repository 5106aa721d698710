# Sourced by the scripts in this folder: installs the Debian packages the
# build needs, but only when one of them is missing (a machine that has them
# all does not touch the package lists).
LAPI_DEPS=(cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libgmock-dev
           libssl-dev clang-format scdoc man-db pkgconf)
# The handset build (scripts/test.sh --arm): the cross compiler, the user-mode
# emulator, and googletest's sources to build the test framework for the
# target.
LAPI_ARM_DEPS=(g++-arm-linux-gnueabihf qemu-user googletest)

# lapi_ensure_deps [EXTRA_PACKAGE...]: LAPI_DEPS and the extra packages.
lapi_ensure_deps() {
    local missing=()
    local pkg
    for pkg in "${LAPI_DEPS[@]}" "$@"; do
        dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" ||
            missing+=("$pkg")
    done
    if [ ${#missing[@]} -eq 0 ]; then
        return 0
    fi
    echo "Installing missing packages: ${missing[*]}"
    local sudo=""
    [ "$(id -u)" -eq 0 ] || sudo="sudo"
    $sudo apt-get update -q
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
}
