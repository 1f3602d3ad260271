"""Console entry point: runs the kaviro_cl program installed inside the package."""

import os
import sys


def main():
    """Replaces this process with the kaviro_cl program, passing the arguments on."""
    exe = os.path.join(os.path.dirname(os.path.abspath(__file__)), "bin", "kaviro_cl")
    os.execv(exe, [exe] + sys.argv[1:])
