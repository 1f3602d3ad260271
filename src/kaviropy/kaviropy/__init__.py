"""Kaviro: build and solve mathematical optimization models with Python operators."""

from . import _core
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
