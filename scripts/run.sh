#!/usr/bin/env bash
# Installs what is missing, builds Kestor and runs the main job.
set -euo pipefail
source "$(dirname "$0")/common.sh"

kestor_install_packages
kestor_build "$KESTOR_ROOT/build/release" -DCMAKE_BUILD_TYPE=RelWithDebInfo
"$KESTOR_ROOT/build/release/tools/kestor" demo
