"""The attribute table: the generated descriptors match attrs.tsv, and the generator refuses rows
whose description the library could not carry out."""

import csv
import pathlib
import shutil
import subprocess
import sys

import pytest

REPO = pathlib.Path(__file__).resolve().parent.parent
GEN = REPO / "scripts" / "gen_tables.py"
LIB = REPO / "src" / "kaviro100"
SHARED = pathlib.Path("/work/shared/attrs.tsv")
GENERATED = ["model/attr_table.inc", "attrs/attr_read.inc", "attrs/attr_computed.inc",
             "model/attr_apply.inc", "params/param_table.inc"]


def run_gen(root=None, check=False):
    args = [sys.executable, str(GEN)] + (["--check"] if check else []) + ([str(root)] if root else [])
    return subprocess.run(args, capture_output=True, text=True, timeout=60)


def read_tsv(path):
    with open(path, newline="") as fh:
        return list(csv.DictReader(fh, delimiter="\t"))


def write_tsv(path, rows):
    with open(path, "w", newline="") as fh:
        w = csv.DictWriter(fh, fieldnames=list(rows[0]), delimiter="\t", lineterminator="\n")
        w.writeheader()
        w.writerows(rows)


@pytest.fixture
def lib_copy(tmp_path):
    """The table sources and generated files in a scratch library tree."""
    for rel in GENERATED + ["model/attrs.tsv", "params/params.tsv"]:
        (tmp_path / rel).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(LIB / rel, tmp_path / rel)
    return tmp_path


def test_generated_tables_match_their_sources():
    result = run_gen(check=True)
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")


def test_edited_table_is_reported_stale_until_regenerated(lib_copy):
    rows = read_tsv(lib_copy / "model/attrs.tsv")
    lazy = next(r for r in rows if r["name"] == "Lazy")
    lazy["values"] = "[-1,5]"
    write_tsv(lib_copy / "model/attrs.tsv", rows)
    result = run_gen(lib_copy, check=True)
    assert result.returncode == 1
    assert result.stdout.split()[0] == "model/attr_table.inc"
    assert run_gen(lib_copy).returncode == 0
    assert run_gen(lib_copy, check=True).returncode == 0
    line = next(l for l in (lib_copy / "model/attr_table.inc").read_text().splitlines()
                if l.startswith("KVR_ATTR(Lazy,"))
    assert "true, -1.0, 5.0, false" in line
    # Only the changed table differs from the library's.
    for rel in GENERATED[1:]:
        assert (lib_copy / rel).read_text() == (LIB / rel).read_text()


@pytest.mark.skipif(not SHARED.is_file(), reason="the shared attribute list is not on this machine")
def test_every_shared_attribute_is_in_the_table():
    ours = {r["name"]: r for r in read_tsv(LIB / "model/attrs.tsv")}
    for r in read_tsv(SHARED):
        assert r["name"] in ours, r["name"]
        mine = ours[r["name"]]
        assert (mine["type"], mine["class"], mine["settable"]) == \
               (r["type"], r["class"], r["settable"]), r["name"]


@pytest.mark.parametrize("name, change, message", [
    ("X", {"store": "solution:x", "settable": "1"}, "X: a settable attribute cannot live in store"),
    ("LB", {"store": "colum:lb"}, "LB: unknown store 'colum:lb'"),
    ("LB", {"store": "extra:lb"}, "LB: store 'extra:lb' needs no field"),
    ("ObjVal", {"store": "column:objval"}, "ObjVal: store 'column' is for element attributes"),
    ("RHS", {"store": "item:rhs"}, "RHS: class 'constr' has no item records"),
    ("ObjNName", {"select": ""}, "ObjNName: store 'objective' is selected by ObjNumber"),
    ("Xn", {"available": "value"}, "Xn: 'selected' goes with a selector"),
    ("LB", {"available": "value"}, "LB: store 'column' cannot tell whether it holds a value"),
    ("X", {"available": "solved+valu"}, "X: unknown availability condition 'valu'"),
    ("IISLB", {"unavailable": "NOT_AVAILABLE: x"}, "IISLB: unknown error code 'NOT_AVAILABLE'"),
    ("Lazy", {"values": "[-1;3]"}, "Lazy: cannot read value alternative '[-1;3]'"),
    ("Lazy", {"invalid": ""}, "Lazy: values with a list or range need an 'invalid' reason"),
    ("Status", {"values": "finite"}, "Status: only settable attributes have accepted values"),
    ("LB", {"default": "1"}, "LB: only extra columns have a default"),
    ("UB", {"name": "LB"}, "attributes listed twice: LB"),
    ("LB", {"compared": "yes"}, "LB: compared is 1 or empty"),
    ("X", {"compared": "1"}, "X: only settable variable and constraint attributes are compared"),
    ("ModelSense", {"compared": "1"}, "ModelSense: only settable variable and constraint"),
])
def test_generator_refuses_rows_it_cannot_carry_out(lib_copy, name, change, message):
    rows = read_tsv(lib_copy / "model/attrs.tsv")
    next(r for r in rows if r["name"] == name).update(change)
    write_tsv(lib_copy / "model/attrs.tsv", rows)
    before = (lib_copy / "model/attr_table.inc").read_text()
    result = run_gen(lib_copy)
    assert result.returncode == 2
    assert result.stderr.startswith("gen_tables: " + message), result.stderr
    assert (lib_copy / "model/attr_table.inc").read_text() == before  # nothing written


def settable_model():
    import kaviropy as kp
    from kaviropy import KVR
    m = kp.Model("table")
    m.Params.OutputFlag = 0
    x = m.addVars(3, lb=0, ub=4, name="x")
    m.addConstr(x[0] + x[1] >= 1, name="a")
    m.addConstr(x[1] - x[2] <= 2, name="b")
    m.addSOS(KVR.SOS_TYPE1, [x[0], x[1]], [1, 2])
    m.addQConstr(x[0] * x[0] + x[1] <= 9, name="q")
    m.addGenConstrMax(x[2], [x[0], x[1]], name="g")
    m.update()
    m.NumObj, m.NumScenarios, m.NumStart = 2, 1, 1
    m.update()
    # Objective 1, not 0: objective 0's coefficients and constant are Obj and ObjCon.
    m.Params.ObjNumber = 1
    return m


def test_each_settable_attribute_writes_its_own_value():
    """Through the generated readers and appliers, a write changes its attribute and no other."""
    m = settable_model()
    rows = [r for r in read_tsv(LIB / "model/attrs.tsv") if r["settable"] == "1"]
    kinds = {"var": m.getVars, "constr": m.getConstrs, "sos": m.getSOSs,
             "qconstr": m.getQConstrs, "genconstr": m.getGenConstrs}

    def read(r):
        try:
            if r["class"] == "model":
                return m.getAttr(r["name"])
            return m.getAttr(r["name"], kinds[r["class"]]())
        except Exception as e:  # e.g. no warm-start basis yet: the message is the state
            return str(e)

    def write(r, value):
        if r["class"] == "model":
            m.setAttr(r["name"], value)
        else:
            m.setAttr(r["name"], kinds[r["class"]]()[:1], [value])
        m.update()

    candidates = {"string": ["t1"], "char": ["I", ">", "<"],
                  "int": [2, 3, 1, 0, -1], "double": [2.0, 3.0, 0.5, 1e-3, 0.0]}
    for r in rows:
        before = {o["name"]: read(o) for o in rows}
        old = before[r["name"]]
        for value in candidates[r["type"]]:
            try:
                write(r, value)
            except Exception:
                continue  # not a value this attribute accepts; the next one
            if read(r) != old:
                break
        after = {o["name"]: read(o) for o in rows}
        new = after[r["name"]]
        first = new if r["class"] == "model" else new[0]
        assert first == value, (r["name"], new)
        changed = sorted(n for n in after if after[n] != before[n])
        assert changed == [r["name"]], (r["name"], changed)
