#!/usr/bin/env bash
# Builds the library and the extension with AddressSanitizer and UndefinedBehaviorSanitizer into a
# virtual environment of their own, and runs the tests there; any report fails the run.
#   scripts/sanitize.sh [pytest arguments]      venv: ../venvs/<checkout name>-sanitize
# Slow (a separate full build, then tests several times slower than usual): not part of CI.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
venv="${KAVIRO_SANITIZE_VENV:-$(dirname "$here")/venvs/$(basename "$here")-sanitize}"
if [ ! -x "$venv/bin/python" ]; then
  python3 -m venv --system-site-packages "$venv"
  "$venv/bin/pip" install -q --ignore-installed highsbox==1.15.1
fi
flags="-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined"
export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache CCACHE_BASEDIR=/work
"$venv/bin/pip" install -q --no-build-isolation -e "$here" \
  -C build-dir=build/sanitize -C cmake.build-type=RelWithDebInfo -C install.strip=false \
  -C "cmake.define.CMAKE_CXX_FLAGS=$flags" -C "cmake.define.CMAKE_C_FLAGS=$flags" \
  -C "cmake.define.CMAKE_SHARED_LINKER_FLAGS=-fsanitize=address,undefined" \
  -C "cmake.define.CMAKE_MODULE_LINKER_FLAGS=-fsanitize=address,undefined" \
  -C "cmake.define.CMAKE_EXE_LINKER_FLAGS=-fsanitize=address,undefined" \
  2>&1 | grep -v -E "^WARNING|Running pip as" || true

# The interpreter is not instrumented, so the runtime is preloaded. Python keeps memory to the end
# on purpose, which leak detection would report; invalid accesses and undefined behaviour abort.
cxx="${CXX:-c++}"
export LD_PRELOAD="$("$cxx" -print-file-name=libasan.so) $("$cxx" -print-file-name=libstdc++.so)"
export ASAN_OPTIONS="detect_leaks=0:abort_on_error=1:allocator_may_return_null=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
# Tests read this to leave out what cannot run under the sanitizers (valgrind, address-space
# limits: the sanitizer reserves terabytes of address space for its shadow memory).
export KAVIRO_SANITIZE=1
cd "$here"
exec "$venv/bin/python" -m pytest -q -p no:cacheprovider "$@"
