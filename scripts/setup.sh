#!/usr/bin/env bash
# Installs what is missing (Debian 12, as root), builds Brindle, then either
# starts the main program or runs the whole test suite.
#
#   scripts/setup.sh run [ARGS...]   build and start the editor (ARGS go to it,
#                                    so `run FILE.loomwick` opens a document)
#   scripts/setup.sh test            build and run the test suite (under
#                                    xvfb-run when there is no X display)
#
# Environment: BRINDLE_PRESET (default "default") picks the CMake preset;
# BRINDLE_CTEST_ARGS adds arguments to ctest (for example "-LE gui").
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
top=$(cd "$here/.." && pwd)
mode=${1:-test}
shift || true
preset=${BRINDLE_PRESET:-default}

install_missing_packages() {
    local wanted=() missing=()
    mapfile -t wanted < <(grep -vE '^\s*(#|$)' "$here/debian-packages.txt")
    for package in "${wanted[@]}"; do
        if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
            missing+=("$package")
        fi
    done
    if [ ${#missing[@]} -eq 0 ]; then
        return
    fi
    echo "Installing: ${missing[*]}"
    local sudo=""
    if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

build() {
    cmake --preset "$preset" -S "$top" >/dev/null
    cmake --build --preset "$preset"
}

install_missing_packages
build

case "$mode" in
    run)
        exec "$top/build/$preset/src/app/brindle" "$@"
        ;;
    test)
        cd "$top"
        # The editor's tests draw with Mesa's software GL on an X display; one
        # virtual display serves the whole run.
        export LIBGL_ALWAYS_SOFTWARE=1
        read -r -a extra <<< "${BRINDLE_CTEST_ARGS:-}"
        if [ -z "${DISPLAY:-}" ]; then
            exec xvfb-run -a -s "-screen 0 1600x1000x24" ctest --preset "$preset" --no-tests=error "${extra[@]}"
        fi
        ctest --preset "$preset" --no-tests=error "${extra[@]}"
        ;;
    *)
        echo "usage: $0 run|test" >&2
        exit 2
        ;;
esac
