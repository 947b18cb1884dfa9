#!/usr/bin/env bash
# Renders the PNGs under icons/ from the SVG sources in icons/src/, each at 1x and at 2x
# ("name@2x.png"). For developers only: the PNGs are committed, the build never runs this.
# Needs rsvg-convert (Debian: librsvg2-bin) and the DejaVu Sans font (fonts-dejavu-core).
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
src="$root/icons/src"
out="$root/icons"
command -v rsvg-convert >/dev/null || { echo "rsvg-convert missing (apt-get install librsvg2-bin)" >&2; exit 1; }

tmp="$(mktemp -d)"
trap 'rm -rf "$tmp"' EXIT

# render OUTPUT SOURCE WIDTH HEIGHT [sed expression for the source's @PLACEHOLDERS@]
render() {
    local name="$1" svg="$2" w="$3" h="$4" subst="${5:-}"
    sed -e "${subst:-s/^//}" "$src/$svg" >"$tmp/$name.svg"
    rsvg-convert -w "$w" -h "$h" -o "$out/$name.png" "$tmp/$name.svg"
    rsvg-convert -w $((w * 2)) -h $((h * 2)) -o "$out/$name@2x.png" "$tmp/$name.svg"
}

render Brindlewave Brindlewave.svg 758 320 's/@MARKX@/233/; s/@TEXTX@/284/'
render bkg bkg.svg 16 16
# Off is white; on is the error red lifted so that it stays bright on the dark-teal column.
render WHITE_LIVE live.svg 32 32 's/@COLOR@/#FFFFFF/g'
render RED_LIVE live.svg 32 32 's/@COLOR@/#FF5147/g'
# The blue arrow doubles as the marker over arbitrary screen content, hence its dark rim.
render GMS_BLUE_POINTER pointer.svg 32 32 's/@COLOR@/#43B4FF/; s/@HALO@/0.45/'
render GMS_WHITE_POINTER pointer.svg 32 32 's/@COLOR@/#FFFFFF/; s/@HALO@/0/'
render pin pin.svg 32 32
render move move.svg 32 32
render resize resize.svg 16 16
