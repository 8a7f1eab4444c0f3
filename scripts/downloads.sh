# Sourced by ./dev: what is downloaded besides the packages of the Debian 13 system, each pinned by
# its hash.

kSourcePackages=(google-glog fmtlib libpng1.6)
kSourceFiles=(google-glog_0.6.0.orig.tar.gz fmtlib_10.1.1+ds1.orig.tar.gz libpng1.6_1.6.48.orig.tar.gz)
kSourceHashes=(
    8a83bf982f37bb70825df71a9709fa90ea9f4447fb3c099e1d720a439d88bad6
    7000f214d2628f04174822f8048c573f1608194408d7931121595a03f1c18a17
    b17e99026055727e8cba99160c3a9a7f9af788e9f786daeadded5a42243f1dd0
)
# A photograph of 3840 x 2160 under CC0-1.0, for the demo.
kPhotoPackage=budgie-backgrounds
kPhotoFile=usr/share/backgrounds/budgie/lake-sherburne.jpg
# The package that carries Microsoft's HLSL compiler.
kCompilerPackage=webgpu@0.6.2
kCompilerFile=package/dist/win32-x64/d3dcompiler_47.dll
kCompilerHash=289767b49dc8525bce262ea06fee4ef9fced2e131a55b25654ce871c1f0498b2

# debian_apt FOLDER STATUS-FILE: prepares an apt configuration of its own for Debian 13, whatever
# the machine runs, with the machine's own mirror and proxy settings; used by setting APT_CONFIG to
# FOLDER/apt.conf
debian_apt() {
    local folder=$1 status=$2 mirror
    mirror=$(mirror)
    mkdir -p "$folder/lists/partial" "$folder/cache/archives/partial"
    printf '%s %s %s main\n' deb "$mirror" "$kSuite" deb-src "$mirror" "$kSuite" >"$folder/sources.list"
    cat >"$folder/apt.conf" <<END
Dir::Etc::sourcelist "$folder/sources.list";
Dir::Etc::sourceparts "-";
Dir::State::lists "$folder/lists";
Dir::State::status "$status";
Dir::Cache "$folder/cache";
APT::Sandbox::User "root";
APT::Install-Recommends "false";
Acquire::Languages "none";
END
    APT_CONFIG=$folder/apt.conf apt-get update
}

check_hash() {
    echo "$1  $2" | sha256sum --check --quiet || fail "$2 is not the file that was expected."
}

download() {
    local target=$1 apt index
    mkdir -p "$target"
    apt=$(mktemp -d)
    : >"$apt/status"
    debian_apt "$apt" "$apt/status"
    export APT_CONFIG=$apt/apt.conf
    # --tar-only: only the authors' own archives; Debian's changes to them are for Debian.
    (cd "$target" && apt-get source --tar-only "${kSourcePackages[@]}")
    for index in "${!kSourceFiles[@]}"; do
        check_hash "${kSourceHashes[index]}" "$target/${kSourceFiles[index]}"
    done
    (cd "$apt" && apt-get download "$kPhotoPackage")
    dpkg-deb --fsys-tarfile "$apt/$kPhotoPackage"_*.deb | tar -x -O "./$kPhotoFile" >"$target/photo.jpg"
    rm -rf "$apt"
}

# The second HLSL compiler. A chain, because its failure is no reason to stop and so is asked for in
# a condition.
download_compiler() {
    local target=$1
    mkdir -p "$target" &&
        (cd "$target" && npm pack --silent "$kCompilerPackage") &&
        tar -xzf "$target"/*.tgz -O "$kCompilerFile" >"$target/d3dcompiler_47.dll" &&
        rm -f "$target"/*.tgz &&
        check_hash "$kCompilerHash" "$target/d3dcompiler_47.dll"
}
