#!/usr/bin/env bash
# Creates the virtual environment of the peer packages that bench_build.py compares against
# (benchmarks/requirements.txt). It is separate from the package's own environment.
#   benchmarks/setup_peers.sh [venv-dir]     default: ../venvs/bench-peers beside the checkout
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
venv="${1:-$(dirname "$here")/venvs/bench-peers}"
[ -x "$venv/bin/python" ] || python3 -m venv "$venv"
"$venv/bin/pip" install -q -r "$here/benchmarks/requirements.txt"
echo "peers ready: $venv/bin/python"
