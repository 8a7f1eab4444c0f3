# Sourced by ./dev: what ./dev lint and ./dev docs run, unpacked beside the Debian 13 system on its first
# use, and not part of it.

kLintPackages=(
    clang-format clang-tidy
    # the sources as MSVC would read them, with a C++ library and Windows headers fit for that
    clang-19 libc++-19-dev libwine-dev
    shellcheck
)
kDocsPackages=(doxygen)

# download_tools PACKAGE... TARGET: an apt that knows what the system has downloads what else they need.
download_tools() {
    local target=${*: -1} apt package
    apt=$(mktemp -d)
    debian_apt "$apt" "$root/var/lib/dpkg/status"
    APT_CONFIG=$apt/apt.conf apt-get install --yes --download-only -o Debug::NoLocking=1 "${@:1:$#-1}"
    mkdir -p "$target"
    for package in "$apt"/cache/archives/*.deb; do
        dpkg-deb -x "$package" "$target"
    done
    rm -rf "$apt"
}

ensure_lint_tools() {
    lintTools=$cache/lint-tools-$(hash_of "${kLintPackages[*]}" "$rootKey")
    locked "$cache/lock" make_once "$lintTools" "Downloading clang, clang-format, clang-tidy and shellcheck" \
        download_tools "${kLintPackages[@]}"
}

ensure_docs_tools() {
    docsTools=$cache/docs-tools-$(hash_of "${kDocsPackages[*]}" "$rootKey")
    locked "$cache/lock" make_once "$docsTools" "Downloading Doxygen, 50 MB" download_tools "${kDocsPackages[@]}"
}
