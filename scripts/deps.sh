# Sourced by the scripts in this folder: installs the Debian packages the
# build needs, but only when one of them is missing (a machine that has them
# all does not touch the package lists). As root it runs apt-get itself;
# otherwise through sudo when sudo may run without a password prompt or
# from a terminal; otherwise it says exactly what to install and fails.
LAPI_DEPS=(cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libgmock-dev
           libssl-dev clang-format openssl valgrind strace scdoc man-db pkgconf)
# The handset build (scripts/test.sh --arm): the cross compiler, the user-mode
# emulator, and googletest's sources to build the test framework for the
# target.
LAPI_ARM_DEPS=(g++-arm-linux-gnueabihf qemu-user googletest)

# lapi_missing_deps [EXTRA_PACKAGE...]: those of LAPI_DEPS and the extra
# packages that are not installed.
lapi_missing_deps() {
    local pkg
    for pkg in "${LAPI_DEPS[@]}" "$@"; do
        dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" ||
            echo "$pkg"
    done
}

# lapi_ensure_deps [EXTRA_PACKAGE...]: LAPI_DEPS and the extra packages.
lapi_ensure_deps() {
    local missing
    mapfile -t missing < <(lapi_missing_deps "$@")
    if [ ${#missing[@]} -eq 0 ]; then
        return 0
    fi
    local install="apt-get update && apt-get install -y --no-install-recommends ${missing[*]}"
    local sudo=()
    if [ "$(id -u)" -ne 0 ]; then
        if command -v sudo >/dev/null 2>&1 && { sudo -n true 2>/dev/null || [ -t 0 ]; }; then
            sudo=(sudo)
        else
            echo "Missing packages: ${missing[*]}" >&2
            echo "Installing them needs root; run as root (or with sudo):" >&2
            echo "    $install" >&2
            echo "then run this script again." >&2
            return 1
        fi
    fi
    if ! command -v apt-get >/dev/null 2>&1; then
        echo "Missing packages: ${missing[*]} (Debian names); this machine has no apt-get:" >&2
        echo "install their equivalents with its package manager, then run this script again." >&2
        return 1
    fi
    echo "Installing missing packages: ${missing[*]}"
    "${sudo[@]}" apt-get update -q
    DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -q --no-install-recommends \
        "${missing[@]}"
}
