#!/usr/bin/env bash
# Fails when a layer reaches past its boundary: the core must stay free of X11, AT-SPI, widgets
# and the engine, and core test programs must not link a GUI library.
set -u
source_dir=$1
binary_dir=$2
status=0

forbidden='^[[:space:]]*#[[:space:]]*include[[:space:]]*[<"](X11/|xcb/|atspi|QtWidgets|QWidget|QApplication|QtGui|QGuiApplication|llm/|platform/x11/|app/)'
if hits=$(grep -rnE "$forbidden" "$source_dir/src/core"); then
    echo "src/core includes what it must not:"
    echo "$hits"
    status=1
fi
if hits=$(grep -rnE '^[[:space:]]*#[[:space:]]*include[[:space:]]*[<"](Q[A-Za-z]+|app/|platform/)' "$source_dir/src/llm"); then
    echo "src/llm must stay free of Qt and of the application:"
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
[ $status -eq 0 ] && echo "layers respected"
exit $status
