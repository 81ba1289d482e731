#!/usr/bin/env bash
# Fails when a layer reaches past its boundary. Dependencies point down only:
#   app → core, inference, platform;  platform → core (platform/wayland → platform/x11, linux);
#   inference → core, llm;  llm → nothing of ours.
# The core never sees a display server, accessibility bus or widgets; nothing but the application's
# own programs, its tests and the benchmarks that drive it includes src/app. Each library also
# exposes only its own folder to the compiler (cmake/ParluneLayers.cmake), so most wrong includes
# already fail to build; this check covers headers nobody compiles and the test programs' links.
set -u
source_dir=$1
binary_dir=$2
status=0

include='^[[:space:]]*#[[:space:]]*include[[:space:]]*[<"]'

# forbid FOLDER... -- PATTERN DESCRIPTION: every include in FOLDERs matching PATTERN is a fault.
forbid() {
    local folders=()
    while [ "$1" != "--" ]; do
        folders+=("$source_dir/$1")
        shift
    done
    local pattern=$2 description=$3 hits
    if hits=$(grep -rnE "$include($pattern)" "${folders[@]}"); then
        echo "$description:"
        echo "$hits"
        status=1
    fi
}

desktop='X11/|xcb/|wayland-|xkbcommon|atspi|gio/|glib|QtWidgets|QWidget|QApplication|QtGui|QGuiApplication|QScreen|QWindow'
forbid src/core tests/core tests/support -- "inference/|platform/|llm/|app/|cli/|$desktop" \
    "src/core includes src/inference, src/llm, a platform, the application or a desktop library"
forbid src/llm tests/llm -- 'Q[A-Za-z]+|qcoro|core/|inference/|platform/|app/|cli/' \
    "src/llm includes Qt or something of ours from outside src/llm"
forbid src/inference tests/inference -- 'platform/|app/|cli/' \
    "src/inference includes a platform or the application"
forbid src/platform tests/platform -- 'inference/|llm/|app/|cli/' \
    "src/platform includes src/inference, src/llm or the application"
forbid src/platform/linux tests/platform/linux -- 'platform/x11/|X11/|xcb/|atspi' \
    "src/platform/linux, for any Linux desktop, includes X11"
forbid src/platform/atspi -- 'platform/x11/|platform/wayland/|X11/|xcb/|wayland-' \
    "src/platform/atspi, for either session, includes a display server's ports or libraries"
forbid src/platform/x11 src/platform/linux tests/platform/x11 tests/platform/linux -- 'platform/wayland/|wayland-' \
    "the X11 and common Linux ports include the Wayland ports, which build on them"
if hits=$(grep -rnE --exclude-dir=app "${include}app/" "$source_dir/src" "$source_dir/tests"); then
    echo "only the application's programs and tests include src/app:"
    echo "$hits"
    status=1
fi

shopt -s nullglob
for program in "$binary_dir"/tests/core/core_*_tests; do
    if ldd "$program" | grep -qE 'libQt6(Gui|Widgets)'; then
        echo "$(basename "$program") links a GUI library"
        status=1
    fi
done
for program in "$binary_dir"/tests/llm/llm_*_tests; do
    if ldd "$program" | grep -qE 'libQt6'; then
        echo "$(basename "$program") links Qt"
        status=1
    fi
done
[ $status -eq 0 ] && echo "layers respected"
exit $status
