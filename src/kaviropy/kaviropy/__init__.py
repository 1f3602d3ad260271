"""Kaviro: build and solve mathematical optimization models with Python operators."""

import importlib.util as _importlib_util
import os as _os


def _point_at_engine_library(variable, package, relative):
    """Tells the library where an engine's shared library is: the directory `relative` to where
    `package` is installed (the package itself is not imported)."""
    if _os.environ.get(variable):
        return
    try:
        spec = _importlib_util.find_spec(package)
    except (ImportError, ValueError):
        return
    if spec is None or not spec.origin:
        return
    libs = _os.path.normpath(_os.path.join(_os.path.dirname(spec.origin), relative))
    if _os.path.isdir(libs):
        _os.environ[variable] = libs


_point_at_engine_library("KAVIRO_HIGHS_LIBRARY", "highsbox", "highs_dist/lib")
_point_at_engine_library("KAVIRO_SCIP_LIBRARY", "pyscipopt", "../pyscipopt.libs")

from . import _core  # noqa: E402
from ._core import *  # noqa: F401,F403

# The private helpers of the extension are part of the module's namespace too.
globals().update({k: v for k, v in vars(_core).items() if not k.startswith("__") or k in (
    "__stringtobytes", "__bytestostring", "__isscalar", "__geterrormsg", "__modelmap",
    "__getattrinfo", "__getattr", "__setattr", "__prefetchattr", "__gettypedattrlist",
    "__settypedattrlist", "__attrlist")})

__version__ = "0.1.0"

# Batch optimization runs on Dask distributed (a Python engine), so its client is Python; the
# extension's namespace knows the class too, so that KaviroError(code, batch) finds its messages.
from ._batch import Batch  # noqa: E402

_core.Batch = Batch
