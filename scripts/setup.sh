#!/usr/bin/env bash
# Installs every Debian package Parlune needs to build, run and test. Safe to run again.
set -euo pipefail

packages=(
  # toolchain
  build-essential cmake ninja-build pkg-config git clang-format
  # core and shell
  qt6-base-dev qcoro-qt6-dev libsecret-1-dev
  # update signatures
  libsodium-dev
  # X11 ports
  libxcb1-dev libxcb-xtest0-dev libxcb-keysyms1-dev libxcb-xfixes0-dev libxcb-xinput-dev
  libxtst-dev libatspi2.0-dev
  # Wayland ports
  libwayland-dev libxkbcommon-dev
  # the application on a Wayland session (Qt's Wayland platform)
  qt6-wayland
  # tests: unit, engine oracle, real desktop
  libgtest-dev libgmock-dev python3 python3-numpy openssl
  xvfb openbox xdotool xclip x11-utils dbus-x11 dbus-daemon at-spi2-core mousepad
  # desktop tests: a terminal, a Qt 5 editor and a browser as real targets
  xterm featherpad chromium
  # portal ports (key names) and the KWin desktop tests: the compositor with its shortcut daemon,
  # the portal frontend and KDE's backend (a Qt 5 Wayland client), KWin's fake-input protocol,
  # KDE's terminal
  libxkbcommon-dev libwayland-dev kwin-wayland libkf5globalaccel-bin xdg-desktop-portal
  xdg-desktop-portal-kde qtwayland5 plasma-wayland-protocols qt6-wayland wl-clipboard konsole
  # Wayland desktop tests: a headless wlroots compositor and a Wayland terminal
  sway foot
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "setup: missing packages: ${missing[*]}" >&2
    echo "setup: run this script as root (or install them with sudo apt-get install)." >&2
    exit 1
  fi
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q
  apt-get install -y -q --no-install-recommends "${missing[@]}"
fi
echo "setup: all packages present"
