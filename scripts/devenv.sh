#!/usr/bin/env bash
# Creates (once) a virtual environment for developing this checkout and installs the checkout into
# it in editable mode; run again after changing C++ sources to rebuild incrementally.
#   scripts/devenv.sh [venv-dir]        default: ../venvs/<checkout name>
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
venv="${1:-$(dirname "$here")/venvs/$(basename "$here")}"
if [ ! -x "$venv/bin/python" ]; then
  python3 -m venv --system-site-packages "$venv"
  # The engine library must sit beside the installed package, so highsbox goes into the venv.
  "$venv/bin/pip" install -q --ignore-installed highsbox==1.15.1
fi
export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache CCACHE_BASEDIR=/work
"$venv/bin/pip" install -q --no-build-isolation -e "$here" 2>&1 | grep -v -E "^WARNING|Running pip as" || true
echo "ready: $venv/bin/python"
