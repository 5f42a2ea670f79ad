#!/bin/sh
# Renders a page as a person would see it, with headless Chromium: a
# screenshot to SHOT.png, the DOM after loading to stdout, and the browser's
# log, console messages included ("CONSOLE"), to stderr.
# Usage: render_report.sh PAGE.html SHOT.png [WIDTH,HEIGHT]
set -eu
profile=$(mktemp -d)
trap 'rm -rf "$profile"' EXIT
page="file://$(realpath "$1")"
size=${3:-1200,1500}
render() {
  timeout 120 chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run \
    --disable-background-networking --disable-component-update --disable-sync --user-data-dir="$profile" \
    --enable-logging=stderr --v=0 --window-size="$size" "$@"
}
render --screenshot="$2" "$page" >/dev/null
render --dump-dom "$page"
