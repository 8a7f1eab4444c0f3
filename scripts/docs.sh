#!/bin/bash
# Makes the documentation site, build/docs/html; what is not documented, and a link to nowhere, is an
# error. Runs inside the root.
#   docs.sh TOOLS
# TOOLS is where Doxygen was unpacked.
set -euo pipefail

tools=$1
cd "$(dirname "$(readlink -f "$0")")/.."
export LD_LIBRARY_PATH=$tools/usr/lib/x86_64-linux-gnu:$tools/usr/lib/llvm-19/lib
rm -rf build/docs
mkdir -p build/docs

# The headers that are installed, but for those of Platform/, which are nobody's interface.
headers=$(for folder in Host Proc/DirectX/Manager; do
    sed -n "/FILE_SET HEADERS/,/)\|made/s|^ *\([A-Za-z0-9]*\.h\))\{0,1\}$|$folder/\1|p" $folder/CMakeLists.txt
done)
version=$(sed -n 's/^project(NorvexDX VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
{
    cat docs/Doxyfile
    echo "INPUT += ${headers//$'\n'/ }"
    echo "PROJECT_NUMBER = $version"
} | "$tools/usr/bin/doxygen" -

# Links within the site that Doxygen did not make.
cd build/docs/html
status=0
while read -r target; do
    [ -e "$target" ] || { echo "docs: no page has $target" >&2; status=1; }
done < <(grep -ohE '(href|src)="[^"#:?]+["#?]' -- *.html | sed 's/^[a-z]*="//; s/.$//' | sort -u)
exit $status
