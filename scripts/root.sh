# Sourced by ./dev: the Debian 13 system that everything is built and run in, and running a command
# there.
#
# Where the machine is Debian 13 itself, that is the machine; elsewhere it is a folder that
# bubblewrap enters.

# What builds the program is installed first, so that the build begins while the rest is on its way.
kBuildPackages=(
    g++-mingw-w64-x86-64-posix cmake ninja-build
    directx-headers-dev libboost-dev libcli11-dev libz-mingw-w64-dev nlohmann-json3-dev
)
kRunPackages=(
    # Windows programs, a display, software drivers and their validation
    wine64 xvfb libgl1 libgl1-mesa-dri libglx-mesa0 libvulkan1 mesa-vulkan-drivers vulkan-validationlayers
    # a second Direct3D 11, and the display that it needs
    dxvk-wine64 xserver-xorg-core xserver-xorg-video-dummy
    # clips to encode, and a judge of what comes out
    ffmpeg
)
kTestPackages=(
    # GoogleTest as sources, to be cross-built
    googletest
    # compiling and libraries for the machine itself, for the sanitizers
    g++ libgtest-dev libfmt-dev
)
kLaterPackages=("${kRunPackages[@]}" "${kTestPackages[@]}")
kSuite=trixie
kCanBuild=.can-build # in the system's folder, when there is something to build with

rootMaker='' # the process that makes the system

os_release() { sed -n "s/^$1=\"\?\([^\"]*\)\"\?$/\1/p" /etc/os-release; }

# Sets native (empty or 1) and root (the folder; empty when native).
find_root() {
    local id codename
    id=$(os_release ID)
    codename=$(os_release VERSION_CODENAME)
    [ "$id" = debian ] || fail "This needs a Debian 12 or 13 machine; this one calls itself ${id:-nothing}."
    [ "$(uname -m)" = x86_64 ] || fail "This needs a 64-bit x86 machine."
    native=''
    root=''
    if [ "$codename" = "$kSuite" ] && [ -z "${NORVEXDX_FORCE_ROOT:-}" ]; then
        native=1
        rootKey=native
    else
        rootKey=$(hash_of "${kBuildPackages[*]}" "${kLaterPackages[*]}" "$kSuite" "$(declare -f make_root)")
        root=$cache/root-$rootKey
    fi
}

# is_installed PACKAGE [DPKG-OPTION...]
is_installed() { [ "$(dpkg-query "${@:2}" -W -f '${db:Status-Status}' "$1" 2>/dev/null)" = installed ]; }

missing_packages() {
    local package
    for package; do
        is_installed "$package" || echo "$package"
    done
}

as_root() {
    [ "$(id -u)" -eq 0 ] || fail "This must be done as root: $*"
    "$@"
}

# install_here PACKAGE...: on the machine itself, what of them is missing
install_here() {
    local missing
    mapfile -t missing < <(missing_packages "$@")
    [ ${#missing[@]} -gt 0 ] || return 0
    say "Installing on this machine: ${missing[*]}"
    quietly "$cache/apt-update.log" as_root apt-get update
    quietly "$cache/apt-install.log" as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get install --yes --no-install-recommends "${missing[@]}"
}

# The address that the machine's own apt takes Debian from.
mirror() {
    local codename found
    codename=$(os_release VERSION_CODENAME)
    found=$(apt-get indextargets --no-release-info --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' |
        awk -v own="$codename" '$3 == "main" && ($2 == own || $2 ~ /^(old)?stable$/) && !found++ { print $1 }')
    [ -n "$found" ] || fail "apt on this machine names no source for Debian $codename main."
    echo "$found"
}

# Makes the system under its own name, not beside it, because the build uses it before it is whole.
make_root() {
    local package mirror lean
    mirror=$(mirror)
    # Told to dpkg by a file: as --dpkgopt they make mmdebstrap read each archive through a slow filter.
    lean="path-exclude='/usr/share/man/*' path-exclude='/usr/share/locale/*' path-exclude='/usr/share/doc/*'"
    lean+=" path-include='/usr/share/doc/*/copyright'"
    apt-config dump | grep -E '^Acquire::(http|https|Retries|ForceIPv)' >"$root.apt.conf" || true
    as_root rm -rf --one-file-system "$root"
    # What it mounts there ends with it.
    as_root unshare --mount mmdebstrap --variant=minbase --mode=root --include="$(IFS=, && echo "${kBuildPackages[*]}")" \
        --aptopt="$root.apt.conf" --aptopt='APT::Install-Recommends "false"' --aptopt='Acquire::Languages "none"' \
        --dpkgopt=force-unsafe-io --extract-hook="printf '%s\n' $lean >\"\$1/etc/dpkg/dpkg.cfg.d/lean\"" \
        --customize-hook="touch \"\$1/$kCanBuild\"" \
        --customize-hook="chroot \"\$1\" apt-get install --yes ${kLaterPackages[*]}" \
        "$kSuite" "$root" "deb $mirror $kSuite main"
    # An interrupted mmdebstrap ends as if all were well.
    for package in "${kBuildPackages[@]}" "${kLaterPackages[@]}"; do
        is_installed "$package" --admindir "$root/var/lib/dpkg" || fail "The package $package is missing."
    done
    as_root touch "$root/$kIsWhole"
}

root_is_whole() { [ -n "$native" ] || [ -e "$root/$kIsWhole" ]; }

ensure_root() {
    if [ -n "$native" ]; then
        install_here "${kBuildPackages[@]}" "${kLaterPackages[@]}"
    elif ! root_is_whole; then
        command -v mmdebstrap >/dev/null || install_here mmdebstrap
        command -v bwrap >/dev/null || install_here bubblewrap
        say "Making a Debian 13 system of 2.3 GB (about a minute)"
        goes_with_run "$root"
        goes_with_run "$root.apt.conf"
        quietly "$root.log" make_root
    fi
}

# Until there is something to build with.
wait_for_compilers() {
    while kill -0 "$rootMaker" 2>/dev/null; do
        [ ! -e "$root/$kCanBuild" ] || return 0
        sleep 0.2
    done
    wait "$rootMaker"
}

# Until all of the system is there; also in siblings of the maker, who says what fails.
wait_for_root() {
    [ -z "$rootMaker" ] || tail --pid="$rootMaker" -f /dev/null
    root_is_whole
}

# is_system FOLDER: whether it is a part of the machine's operating system
is_system() {
    case $1/ in
    /bin/* | /boot/* | /dev/* | /etc/* | /lib/* | /lib32/* | /lib64/* | /libx32/*) ;;
    /proc/* | /sbin/* | /sys/* | /usr/* | /run/ | /var/) ;;
    *) return 1 ;;
    esac
}

# Arguments of bwrap that show the machine's own folders, but not its system, at their own places.
shown_folders() {
    local folder
    for folder in /*/; do
        folder=${folder%/}
        is_system "$folder" || printf '%s\0' --bind "$folder" "$folder"
    done
    for folder in "$project" "$cache" "$PWD"; do
        case $folder in
        /run/* | /var/*) printf '%s\0' --bind "$folder" "$folder" ;;
        esac
    done
}

check_folders() {
    local folder
    [ -z "$native" ] || return 0
    for folder in "$project" "$cache" "$PWD"; do
        if is_system "$folder"; then
            fail "The programs do not see this machine's own system: use another folder than $folder."
        fi
    done
}

# The environment inside: little of the user's, so that results do not depend on it.
root_environment() {
    printf '%s\0' "HOME=$cache/home" PATH=/usr/bin:/usr/sbin:/usr/lib/wine LC_ALL=C.UTF-8 "TERM=${TERM:-dumb}" \
        "NORVEXDX_CACHE=$cache" "NORVEX_SESSIONS=$sessions" "NORVEX_SDK=${sdk:-}" "NORVEX_WINE_PREFIX=${winePrefix:-}"
    [ -z "${microsoftCompiler:-}" ] || printf '%s\0' "NORVEX_TEST_D3DCOMPILER_FILE=$microsoftCompiler" \
        "NORVEX_TEST_D3DCOMPILER=Z:${microsoftCompiler//\//\\}"
    local name
    for name in $(compgen -e); do
        case $name in
        COLUMNS | LINES | CTEST_* | GTEST_* | LP_NUM_THREADS | NORVEX_RUN_TIMEOUT | NORVEX_SECONDS | NORVEX_SEED | \
            NORVEX_STEPS | NORVEX_SWEEP | VKD3D_* | VK_* | WINEDEBUG | WINEDLLOVERRIDES) printf '%s\0' "$name=${!name}" ;;
        esac
    done
}

# in_root COMMAND...: runs it in the Debian 13 system, in the current folder
in_root() {
    local environment folders
    mapfile -d '' -t environment < <(root_environment)
    mkdir -p "$cache/home" "$cache/shaders"
    if [ -n "$native" ]; then
        env -i "${environment[@]}" "$@"
        return
    fi
    mapfile -d '' -t folders < <(shown_folders)
    # Its own X sockets; the folder is made beforehand, because the mount would make it with the
    # wrong mode.
    [ -d /tmp/.X11-unix ] || mkdir -m 1777 /tmp/.X11-unix
    bwrap --ro-bind "$root/usr" /usr --symlink usr/bin /bin --symlink usr/sbin /sbin \
        --symlink usr/lib /lib --symlink usr/lib64 /lib64 --ro-bind "$root/etc" /etc \
        --tmpfs /run --tmpfs /var --dir /var/tmp "${folders[@]}" --dev /dev --proc /proc \
        --perms 1777 --tmpfs /tmp/.X11-unix --unshare-pid --unshare-net --die-with-parent \
        -- env -i "${environment[@]}" "$@"
}
