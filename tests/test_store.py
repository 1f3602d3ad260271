"""The model store keeps every element kind's arrays, names and extra columns in step: the store's
own check program (tests/c/store_test.cpp, compiled with the store's sources alone), and the
deletions seen from the module."""

import os
import pathlib
import shutil
import subprocess

import pytest

import kaviropy as kp
from clib import run_c_program

REPO = pathlib.Path(__file__).resolve().parent.parent
LIB = REPO / "src" / "kaviro100"
STORE_SOURCES = ["model/modeldata.cpp", "model/attrs.cpp", "util/error.cpp", "util/strings.cpp"]


def cxx():
    compiler = os.environ.get("CXX") or shutil.which("c++") or shutil.which("g++")
    if compiler is None:
        pytest.skip("no C++ compiler on this system")
    return compiler


def test_store_keeps_elements_in_step(tmp_path):
    exe = tmp_path / "store_test"
    cmd = [cxx(), "-std=c++20", "-Wall", "-Wextra", "-Werror", "-O0", "-g",
           "-I", str(LIB), "-I", str(LIB / "include"), str(REPO / "tests" / "c" / "store_test.cpp"),
           *[str(LIB / s) for s in STORE_SOURCES], "-o", str(exe)]
    build = subprocess.run(cmd, capture_output=True, text=True, timeout=300)
    assert build.returncode == 0, build.stderr
    run_c_program(exe)


def test_deleting_later_elements_keeps_the_earlier_ones_whole():
    m = kp.Model()
    m.Params.OutputFlag = 0
    x = m.addVars(3, name="x")
    y, z = m.addVar(name="y"), m.addVar(name="z")
    m.addGenConstrMax(y, [x[0], x[1]], constant=1.0, name="g1")
    g2 = m.addGenConstrMax(z, [x[2]], name="g2")
    m.addQConstr(x[0] * x[1] + x[2] <= 4, name="q1")
    q2 = m.addQConstr(x[1] * x[1] <= 1, name="q2")
    m.setPWLObj(x[0], [0, 1], [0, 2])
    m.setPWLObj(x[1], [0, 1], [1, 0])
    m.update()
    m.remove([g2, q2, x[1]])
    m.update()
    # Deleting x[1] drops it from the kept constraints; everything else they hold stays.
    (g1,) = m.getGenConstrs()
    assert m.getGenConstrMax(g1) == (y, [x[0]], 1.0)
    (q1,) = m.getQConstrs()
    row = m.getQCRow(q1)
    assert (row.size(), row.getLinExpr().size()) == (0, 1)
    assert str(row.getLinExpr().getVar(0).VarName) == "x[2]"
    assert m.getPWLObj(x[0]) == [(0.0, 0.0), (1.0, 2.0)]


# Each line writes to the store from outside it; every one must fail to compile.
WRITES_FROM_OUTSIDE = [
    "d.vars.lb[0] = 1.0;",
    "d.constrs.rhs[0] += 2.0;",
    "d.vars.append(0.0, 1.0, 0.0, 'C');",
    "d.constrs.rows.append_entries({});",
    "d.gens.names.set(0, \"g\");",
    "d.sos.add_member(0, 1.0);",
    "d.qconstrs.items.clear();",
    "d.vars.extra.num.clear();",
    "d.objcon = 1.0;",
    "d.objn.clear();",
    "std::swap(d.scenarios, other);",
]
READS = """
double reads(kvr::ModelData &d) {
  const kvr::ModelData copy = d;
  double s = d.vars.lb[0] + copy.constrs.rows.val[0] + d.q.value(d.vars.ub.data());
  for (const kvr::GenConstr &g : d.gens.items) s += g.constant;
  s += d.vars.extra.get(0, 0) + static_cast<double>(d.vars.names.find("x"));
  d.set_lb(0, s);
  return s + d.objcon + static_cast<double>(d.objn.size());
}
"""


def test_fields_are_read_only_outside_the_store(tmp_path):
    source = tmp_path / "outside.cpp"
    head = '#include <utility>\n#include "model/modeldata.h"\n' + READS
    body = "void writes(kvr::ModelData &d, std::vector<kvr::Scenario> &other) {\n"
    first = head.count("\n") + body.count("\n") + 1
    source.write_text(head + body + "\n".join(WRITES_FROM_OUTSIDE) + "\n}\n")
    result = subprocess.run([cxx(), "-std=c++20", "-fsyntax-only", "-fmax-errors=0",
                             "-I", str(LIB), "-I", str(LIB / "include"), str(source)],
                            capture_output=True, text=True, timeout=300)
    failing = {int(line.split(":")[1]) for line in result.stderr.splitlines()
               if line.startswith(str(source) + ":") and ": error:" in line}
    # The reads (and the change helper) compile; each write is refused on its own line.
    assert failing == set(range(first, first + len(WRITES_FROM_OUTSIDE))), result.stderr
