#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and `make run` need, when missing.
set -euo pipefail

packages=(
    build-essential cmake pkg-config
    qtbase5-dev
    libavcodec-dev libavformat-dev libavutil-dev libswscale-dev
    libsrt-gnutls-dev srt-tools
    libxcb1-dev libxcb-shm0-dev libxcb-damage0-dev
    libpulse-dev pulseaudio pulseaudio-utils
    ffmpeg
    xvfb xauth xdotool
    libyuv-dev
    g++-mingw-w64-x86-64-posix wine64
    xserver-xorg-video-dummy x11-xserver-utils
)

missing=()
for package in "${packages[@]}"; do
    status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
    [[ "$status" == "install ok installed" ]] || missing+=("$package")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

sudo=""
[[ $(id -u) -eq 0 ]] || sudo="sudo"
echo "Installing: ${missing[*]}"
$sudo apt-get update
$sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"
