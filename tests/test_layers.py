"""The solver library's folders include each other in one direction only (scripts/check_layers.py)."""

import pathlib
import subprocess
import sys

import pytest

REPO = pathlib.Path(__file__).resolve().parent.parent
CHECK = REPO / "scripts" / "check_layers.py"


def run_check(root=None):
    args = [sys.executable, str(CHECK)] + ([str(root)] if root else [])
    return subprocess.run(args, capture_output=True, text=True, timeout=60)


def test_library_includes_only_downward():
    result = run_check()
    assert (result.returncode, result.stdout) == (0, ""), result.stdout + result.stderr


def make_tree(tmp_path, files):
    for rel, text in files.items():
        path = tmp_path / rel
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)
    return tmp_path


BASE = {"include/pub.h": "", "util/u.h": "", "model/m.h": '#include "util/u.h"\n',
        "engine/e.h": "", "reform/r.h": "", "io/i.h": ""}


@pytest.mark.parametrize("files, offending", [
    # Downward, own folder, the public header, external headers, the top layer: all fine.
    ({"model/m.cpp": '#include "model/m.h"\n#include "pub.h"\n#include <vector>\n'
                     '#include "interfaces/engine_api.h"\n',
      "capi/c.cpp": '#include "engine/e.h"\n', "tools/t.cpp": '#include "capi/c.cpp"\n'}, []),
    # Upward, from a header and a source, with the same-folder spelling resolved.
    ({"util/x.h": '// x\n#include "model/m.h"\n', "model/y.cpp": '#include "m.h"\n'
                                                                 '  #  include "engine/e.h"\n'},
     ['model/y.cpp:2: #include "engine/e.h"', 'util/x.h:2: #include "model/m.h"']),
    # reform/ and io/ share a layer and stay apart; nothing below the top includes capi/.
    ({"reform/a.cpp": '#include "io/i.h"\n', "engine/b.cpp": '#include "capi/c.h"\n',
      "capi/c.h": ""},
     ['engine/b.cpp:1: #include "capi/c.h"', 'reform/a.cpp:1: #include "io/i.h"']),
    # Calls go downward too: a core file may not call an entry point of capi/ (comments and
    # strings may name one; capi/ itself and entry points defined in core files are fine).
    ({"capi/a_api.cpp": "int KVRsetattr(KVRmodel *m,\n               int v) { return 0; }\n"
                        "const char *KVRname(void) { return KVRsetattr(0, 1) ? \"\" : 0; }\n",
      "engine/run.cpp": "int KVRoptimize(KVRmodel *m) { return 0; }\n",
      "analysis/t.cpp": "// calls KVRsetattr(m, 1)\nint f() { return KVRoptimize(0); }\n",
      "io/d.cpp": 'const char *s = "KVRname()";\nint g(KVRmodel *m) {\n'
                  "  return KVRsetattr (m, 2) + !KVRname();\n}\n"},
     ["io/d.cpp:3: KVRsetattr(...)", "io/d.cpp:3: KVRname(...)"]),
    # A header below the top declares only what its folder or a lower one defines: not a function
    # defined only above it (the public header declares the entry points; a call in an inline
    # body is no declaration; a name also defined in the header's folder passes).
    ({"model/b.h": "void grow(int n);\nint kept(const char *s,\n         int k) const;\n"
                   "inline int use() { return shrink(1); }\n",
      "model/b.cpp": "int Store::kept(const char *s, int k) const {\n  return k;\n}\n",
      "capi/b_api.cpp": "void grow(int n) {}\nint kept(const char *s, int k) { return k; }\n"
                        "int shrink(int v) { return v; }\nint KVRgrow(int n) { grow(n); }\n",
      "include/pub3.h": "int KVRgrow(int n);\n",
      "reform/r2.h": "// scale(2.0);\nstd::vector<double> &\nscale(double v);\n",
      "engine/s.cpp": "std::vector<double> &scale(double v)\n{\n  return {};\n}\n"},
     ["model/b.h:1: grow(...) declared", "reform/r2.h:3: scale(...) declared"]),
    # The public header includes nothing of the library; a folder without a layer fails.
    ({"include/pub2.h": '#include "util/u.h"\n', "extra/z.cpp": ""},
     ["extra/z.cpp: folder 'extra' has no layer", 'include/pub2.h:1: #include "util/u.h"']),
])
def test_check_reports_each_upward_include(tmp_path, files, offending):
    result = run_check(make_tree(tmp_path, {**BASE, **files}))
    listed = [line.split(" (")[0] for line in result.stdout.splitlines()]
    assert listed == offending
    assert result.returncode == (1 if offending else 0)
