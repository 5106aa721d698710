# Sourced by the scripts in this folder: installs the Debian packages the
# build needs, but only when one of them is missing (a machine that has them
# all does not touch the package lists). As root it runs apt-get itself;
# otherwise through sudo when sudo may run without a password prompt or
# from a terminal; otherwise it says exactly what to install and fails.
LAPI_DEPS=(cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libgmock-dev
           libssl-dev clang-format openssl valgrind strace scdoc man-db pkgconf systemd)
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
    # A mirror caught in the middle of a sync fails one index or another:
    # what is there is still used, and the install says what it cannot find.
    "${sudo[@]}" apt-get update -q ||
        echo "warning: some package indexes could not be read; installing from the others" >&2
    DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -q --no-install-recommends \
        "${missing[@]}"
}

# lapi_arm_openssl DIR: OpenSSL for the handset build (the host stand-ins of
# the TLS and certificate libraries are built on it), unpacked from Debian's
# armhf packages into DIR without installing them, so that the host's own
# OpenSSL version does not have to match. Prints nothing on success; DIR ends
# up with usr/include/openssl (the target's configuration headers included)
# and usr/lib/arm-linux-gnueabihf/libssl.so and libcrypto.so.
lapi_arm_openssl() {
    local dir=$1
    if [ -f "$dir/usr/lib/arm-linux-gnueabihf/libssl.so" ]; then
        return 0
    fi
    local sudo=()
    [ "$(id -u)" -ne 0 ] && sudo=(sudo)
    if ! dpkg --print-foreign-architectures | grep -qx armhf; then
        echo "Adding the armhf architecture to the package indexes (for the target's OpenSSL)"
        "${sudo[@]}" dpkg --add-architecture armhf
        "${sudo[@]}" apt-get update -q ||
            echo "warning: some package indexes could not be read; going on with the others" >&2
    fi
    local debs
    debs=$(mktemp -d)
    # apt-get download runs as the unprivileged _apt user where it can.
    chmod 0777 "$debs"
    if ! (cd "$debs" && apt-get download -q libssl3:armhf libssl-dev:armhf); then
        echo "arm: could not download the armhf OpenSSL packages" >&2
        rm -rf "$debs"
        return 1
    fi
    mkdir -p "$dir"
    local deb
    for deb in "$debs"/*.deb; do
        dpkg-deb -x "$deb" "$dir"
    done
    rm -rf "$debs"
    # The target's configuration headers sit beside the common ones, so that
    # one include folder serves.
    cp "$dir"/usr/include/arm-linux-gnueabihf/openssl/*.h "$dir/usr/include/openssl/"
}
