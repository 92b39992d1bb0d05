#!/usr/bin/env bash
# Installs what is missing, builds Kestor and runs the main job: grabs a sequence from the
# built-in simulated camera through its driver plugin, checks every frame from its pixels, and
# shows what the file holds.
set -euo pipefail
source "$(dirname "$0")/common.sh"

kestor_install_packages
kestor_build "$KESTOR_ROOT/build/release" -DCMAKE_BUILD_TYPE=RelWithDebInfo

kestor="$KESTOR_ROOT/build/release/tools/kestor"
sequence="$KESTOR_ROOT/build/demo.seq"
"$kestor" drivers
"$kestor" grab "$sequence" --driver simulated --reset --frames 300 --rate 100 --width 640 --height 480
"$kestor" info "$sequence"
