"""Console entry point: runs the kaviro_cl program installed inside the package."""

import importlib.util
import os
import sys


def _program():
    """kaviro_cl beside the package, or (editable installs) beside the compiled extension."""
    dirs = [os.path.dirname(os.path.abspath(__file__))]
    spec = importlib.util.find_spec("kaviropy._core")
    if spec is not None and spec.origin:
        dirs.append(os.path.dirname(spec.origin))
    for d in dirs:
        exe = os.path.join(d, "bin", "kaviro_cl")
        if os.path.exists(exe):
            return exe
    sys.exit("kaviro_cl: the program is not installed in %s" % " or ".join(dirs))


def main():
    """Replaces this process with the kaviro_cl program, passing the arguments on."""
    exe = _program()
    os.execv(exe, [exe] + sys.argv[1:])
