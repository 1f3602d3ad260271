"""Kaviro: build and solve mathematical optimization models with Python operators."""

from . import _core
from ._core import *  # noqa: F401,F403

# The private helpers of the extension are part of the module's namespace too.
globals().update({k: v for k, v in vars(_core).items() if not k.startswith("__") or k in (
    "__stringtobytes", "__bytestostring", "__isscalar", "__geterrormsg", "__modelmap",
    "__getattrinfo", "__getattr", "__setattr", "__prefetchattr", "__gettypedattrlist",
    "__settypedattrlist", "__attrlist")})

__version__ = "0.1.0"
