#!/usr/bin/env python3
"""Regenerates the parameter and attribute tables of the solver library from their TSV sources.

Run after editing src/kaviro100/params/params.tsv or src/kaviro100/model/attrs.tsv:
    python3 scripts/gen_tables.py            writes the tables
    python3 scripts/gen_tables.py --check    exit status 1 (naming the stale files) when a table
                                             differs from what its source gives; writes nothing

attrs.tsv has one row per attribute. Besides name, type, class, settable and meaning:
  store        where the value lives:
                 model:F          field F of the model data
                 column:F         array F of the element kind, one entry per element
                 item:F           field F of each element's record (quadratic, general constraints)
                 names:P          the element kind's names; unnamed elements read as P<index>
                 extra            a column of the element kind's extra attributes (first write
                                  allocates it, filled with `default`)
                 basis:F          solution vector F of the last solve, else the extra column
                 objective:F      field F of the objective that ObjNumber selects
                 scenario:F       field F of the scenario that ScenarioNumber selects
                 solution:F       value or vector F of the last solve (NaN / empty: none)
                 sensitivity:F    vector F of the LP sensitivity ranges, computed on first use
                 computed:NAME    read by read_NAME (and has_NAME, apply_NAME where needed),
                                  declared in attrs/attr_computed.inc
                 batch            read through the batch interface only
  select       the parameter selecting which objective, scenario, start or pool solution
  available    conditions joined by '+', checked in order: always, solved (a solve finished),
               iis (an IIS was computed), continuous (no discrete elements), selected (the
               selector picks an existing one), value (the store holds a value)
  unavailable  CODE[: reason] reported when solved, iis or continuous fails (empty: plain
               DATA_NOT_AVAILABLE); a missing value always reports the plain message
  values       accepted values of settable attributes, alternatives joined by '|': numbers,
               ranges [lo,hi] or [lo,hi) (inf allowed), and the words undefined (KVR_UNDEFINED
               kept as it is), bound (infinities clipped), finite (infinities fail with NUMERIC),
               vtype and sense (the type and sense codes)
  invalid      the reason given for a value outside `values`
  default      value of a new extra column entry (number or undefined; empty: 0)
  compared     1 when a write changes what the engine keeps of the element between solves: the
               update lists the element (a variable or linear constraint) for the engine to
               compare; empty: a write the engine never needs to see element by element
"""
import csv
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent / "src" / "kaviro100"

TYPES = {"char": "Char", "int": "Int", "double": "Dbl", "string": "Str"}
CLASSES = {"model": "Model", "var": "Var", "constr": "Constr", "sos": "Sos",
           "qconstr": "QConstr", "genconstr": "GenConstr", "batch": "Batch"}
# Element class -> (member of ModelFields, record type of its items)
PARTS = {"var": ("vars", "VarData", None), "constr": ("constrs", "ConstrData", None),
         "sos": ("sos", "SosData", None), "qconstr": ("qconstrs", "QConstrData", "QConstr"),
         "genconstr": ("gens", "GenConstrData", "GenConstr")}
STORES = {"model", "column", "item", "names", "extra", "basis", "objective", "scenario",
          "solution", "sensitivity", "computed", "batch"}
SELECTORS = {"": "None", "ObjNumber": "ObjNumber", "ScenarioNumber": "ScenarioNumber",
             "StartNumber": "StartNumber", "SolutionNumber": "SolutionNumber"}
NEEDS = {"solved": "kNeedsSolved", "iis": "kNeedsIis", "continuous": "kNeedsContinuous",
         "selected": "kNeedsSelected", "value": "kNeedsValue"}
CODES = {"DATA_NOT_AVAILABLE", "NOT_FOR_MIP"}
WORDS = {"undefined": "kUndefined", "bound": "kBound", "finite": "kFinite", "vtype": "kVType",
         "sense": "kSense"}
MAX_POINTS = 4
NUMBER = r"-?(?:\d+(?:\.\d*)?|\.\d+)(?:e[-+]?\d+)?|-?inf"
RANGE = re.compile(rf"\[({NUMBER}),({NUMBER})([\])])$")


class TableError(ValueError):
    pass


def rows(path):
    with open(path, newline="") as fh:
        return list(csv.DictReader(fh, delimiter="\t"))


def cstr(s):
    return '"' + s.replace("\\", "\\\\").replace('"', '\\"') + '"'


def num(s):
    return s if s else "0"


def cnum(text):
    """A number of the table as a C++ double literal."""
    if text in ("inf", "-inf"):
        return ("-" if text.startswith("-") else "") + "KVR_INFINITY"
    if text == "undefined":
        return "KVR_UNDEFINED"
    value = float(text)
    return repr(value) if value != int(value) or "e" in text else f"{int(value)}.0"


def value_rule(r):
    """The C++ initializer of an attribute's value rule."""
    words, points, ranges = [], [], []
    text = r["values"]
    for alt in text.split("|") if text else []:
        if alt in WORDS:
            words.append("AttrValueRule::" + WORDS[alt])
        elif RANGE.match(alt):
            lo, hi, close = RANGE.match(alt).groups()
            ranges.append((cnum(lo), cnum(hi), "true" if close == ")" else "false"))
        elif re.fullmatch(NUMBER, alt):
            points.append(cnum(alt))
        else:
            raise TableError(f"{r['name']}: cannot read value alternative '{alt}'")
    if len(points) > MAX_POINTS or len(ranges) > 1:
        raise TableError(f"{r['name']}: at most {MAX_POINTS} values and one range")
    if (points or ranges) and not r["invalid"]:
        raise TableError(f"{r['name']}: values with a list or range need an 'invalid' reason")
    if text and r["settable"] != "1":
        raise TableError(f"{r['name']}: only settable attributes have accepted values")
    lo, hi, open_ = ranges[0] if ranges else ("0.0", "0.0", "false")
    pts = "{" + ", ".join(points) + "}"
    return (f"{{{' | '.join(words) or '0'}, {len(points)}, {pts}, {'true' if ranges else 'false'}, "
            f"{lo}, {hi}, {open_}, {cstr(r['invalid']) if r['invalid'] else 'nullptr'}}}")


def split_store(r):
    kind, _, arg = r["store"].partition(":")
    if kind not in STORES:
        raise TableError(f"{r['name']}: unknown store '{r['store']}'")
    needs_arg = kind not in ("extra", "batch")
    if needs_arg != bool(arg) or (arg and not re.fullmatch(r"\w+", arg)):
        raise TableError(f"{r['name']}: store '{r['store']}' needs {'a' if needs_arg else 'no'} "
                         "field or name")
    element = r["class"] not in ("model", "batch")
    if kind in ("column", "item", "names", "extra", "basis", "sensitivity") and not element:
        raise TableError(f"{r['name']}: store '{kind}' is for element attributes")
    if kind == "item" and PARTS[r["class"]][2] is None:
        raise TableError(f"{r['name']}: class '{r['class']}' has no item records")
    if kind in ("model", "objective") and element:
        raise TableError(f"{r['name']}: store '{kind}' is for model attributes")
    if (kind == "batch") != (r["class"] == "batch"):
        raise TableError(f"{r['name']}: batch attributes and only they use store 'batch'")
    wanted = {"objective": "ObjNumber", "scenario": "ScenarioNumber"}.get(kind)
    if wanted and r["select"] != wanted:
        raise TableError(f"{r['name']}: store '{kind}' is selected by {wanted}")
    return kind, arg, element


def needs(r):
    conds = [c for c in r["available"].split("+") if c != "always"] if r["available"] else []
    for c in conds:
        if c not in NEEDS:
            raise TableError(f"{r['name']}: unknown availability condition '{c}'")
    if ("selected" in conds) != bool(r["select"]):
        raise TableError(f"{r['name']}: 'selected' goes with a selector and a selector with it")
    return conds


def unavailable(r):
    code, _, why = r["unavailable"].partition(":")
    code = code.strip() or "DATA_NOT_AVAILABLE"
    if code not in CODES:
        raise TableError(f"{r['name']}: unknown error code '{code}'")
    return f"KVR_ERROR_{code}", cstr(why.strip()) if why.strip() else "nullptr"


def attr_line(r):
    kind, _, _ = split_store(r)
    if r["select"] not in SELECTORS:
        raise TableError(f"{r['name']}: unknown selector '{r['select']}'")
    conds = needs(r)
    code, why = unavailable(r)
    default = r["default"]
    if default and kind not in ("extra", "basis", "computed"):
        raise TableError(f"{r['name']}: only extra columns have a default")
    mask = " | ".join(NEEDS[c] for c in conds) or "0"
    compared = r.get("compared") or "0"
    if compared not in ("0", "1"):
        raise TableError(f"{r['name']}: compared is 1 or empty")
    if compared == "1" and (r["settable"] != "1" or r["class"] not in ("var", "constr")):
        raise TableError(f"{r['name']}: only settable variable and constraint attributes are "
                         "compared")
    return (f"KVR_ATTR({r['name']}, {TYPES[r['type']]}, {CLASSES[r['class']]}, {r['settable']}, "
            f"{cstr(r['meaning'])}, AttrStore::{kind.capitalize()}, "
            f"AttrSelector::{SELECTORS[r['select']]}, {mask}, {code}, {why}, {value_rule(r)}, "
            f"{cnum(default) if default else '0.0'}, {'true' if compared == '1' else 'false'})")


def reader_line(r):
    """Designated initializer of the attribute's reader (attrs/attr_read.inc)."""
    kind, arg, element = split_store(r)
    text = r["type"] == "string"
    value = "value" in needs(r)
    f = {}
    if element and r["class"] in PARTS:
        part, data, item = PARTS[r["class"]]
        part = f"&ModelFields::{part}"
    if kind == "model":
        f["text" if text else "model"] = f"model_{'text' if text else 'field'}<&ModelFields::{arg}>"
    elif kind == "column":
        f["elems"] = f"column<{part}, &{data}::{arg}>"
    elif kind == "item":
        f["elems"] = f"item_field<{part}, &{item}::{arg}>"
    elif kind == "names":
        f["names"], f["prefix"] = f"names<{part}>", cstr(arg)
    elif kind == "extra":
        f["names" if text else "elems"] = f"extra_{'text' if text else 'column'}<{part}>"
    elif kind == "basis":
        f["elems"] = f"basis<{part}, &Solution::{arg}>"
        f["has_value"] = f"has_basis<{part}, &Solution::{arg}>"
    elif kind == "objective":
        f["text" if text else "model"] = f"objective_{'text' if text else 'field'}<&ObjectiveN::{arg}>"
    elif kind == "scenario":
        if element:
            f["elems"] = f"scenario_map<&Scenario::{arg}>"
        else:
            f["text" if text else "model"] = f"scenario_{'text' if text else 'field'}<&Scenario::{arg}>"
    elif kind == "solution":
        if element:
            f["elems"] = f"solution_vector<&Solution::{arg}>"
            f["has_value"] = f"has_vector<&Solution::{arg}>"
        else:
            f["model"] = f"solution_scalar<&Solution::{arg}>"
            f["has_value"] = f"has_scalar<&Solution::{arg}>"
    elif kind == "sensitivity":
        f["elems"] = f"solution_vector<&Solution::{arg}>"
        f["has_value"] = f"has_sensitivity<&Solution::{arg}>"
    elif kind == "computed":
        f["elems" if element else "model"] = f"read_{arg}"
        f["has_value"] = f"has_{arg}"
    if not value:
        f.pop("has_value", None)
    elif "has_value" not in f:
        raise TableError(f"{r['name']}: store '{kind}' cannot tell whether it holds a value")
    order = ["model", "elems", "text", "names", "prefix", "has_value"]
    body = ", ".join(f".{k} = {f[k]}" for k in order if k in f)
    return f"    {{{body}}},  // {r['name']}"


def applier_line(r):
    """The function applying a queued write of the attribute (model/attr_apply.inc)."""
    kind, arg, element = split_store(r)
    text = r["type"] == "string"
    if r["settable"] != "1":
        return f"    nullptr,  // {r['name']}"
    if element and r["class"] in PARTS:
        part, data, item = PARTS[r["class"]]
        part = f"&ModelFields::{part}"
    if kind == "model":
        fn = f"apply_model_{'text' if text else 'field'}<&ModelFields::{arg}>"
    elif kind == "column":
        fn = f"apply_column<{part}, &{data}::{arg}>"
    elif kind == "item":
        fn = f"apply_item<{part}, &{item}::{arg}>"
    elif kind == "names":
        fn = f"apply_name<{part}>"
    elif kind in ("extra", "basis"):
        fn = f"apply_extra_{'text' if text else 'column'}<{part}>"
    elif kind == "objective":
        fn = f"apply_objective_{'text' if text else 'field'}<&ObjectiveN::{arg}>"
    elif kind == "scenario":
        fn = (f"apply_scenario_map<&Scenario::{arg}>" if element
              else f"apply_scenario_{'text' if text else 'field'}<&Scenario::{arg}>")
    elif kind == "computed":
        fn = f"apply_{arg}"
    else:
        raise TableError(f"{r['name']}: a settable attribute cannot live in store '{kind}'")
    return f"    {fn},  // {r['name']}"


def computed_declarations(attrs):
    """Declarations of the functions that computed attributes name (attrs/attr_computed.inc)."""
    out, seen = [], set()
    for r in attrs:
        kind, arg, element = split_store(r)
        if kind != "computed":
            continue
        decls = [f"void read_{arg}(kvr_model &m, AttrId id, IndexSet ix, double *out);" if element
                 else f"double read_{arg}(kvr_model &m, AttrId id);"]
        if "value" in needs(r):
            decls.append(f"bool has_{arg}(kvr_model &m, AttrId id);")
        for d in decls:
            if d not in seen:
                seen.add(d)
                out.append(d)
    return out


def param_table(params):
    out = ["// Generated by scripts/gen_tables.py from params.tsv; do not edit.",
           "// KVR_PARAM(name, type, default, min, max, string default, group, effect)"]
    for r in params:
        t = {"int": "Int", "double": "Dbl", "string": "Str"}[r["type"]]
        if t == "Str":
            out.append(f"KVR_PARAM({r['name']}, Str, 0, 0, 0, {cstr(r['default'])}, "
                       f"{cstr(r['group'])}, {cstr(r['effect'])})")
        else:
            out.append(f"KVR_PARAM({r['name']}, {t}, {num(r['default'])}, {num(r['min'])}, "
                       f"{num(r['max'])}, \"\", {cstr(r['group'])}, {cstr(r['effect'])})")
    return "\n".join(out) + "\n"


def attr_tables(attrs):
    """The three generated attribute files: {relative path: text}."""
    names = [r["name"] for r in attrs]
    dup = sorted({n for n in names if names.count(n) > 1})
    if dup:
        raise TableError(f"attributes listed twice: {', '.join(dup)}")
    for r in attrs:
        if r["type"] not in TYPES or r["class"] not in CLASSES or r["settable"] not in ("0", "1"):
            raise TableError(f"{r['name']}: bad type, class or settable")
    head = "// Generated by scripts/gen_tables.py from model/attrs.tsv; do not edit."
    table = [head,
             "// KVR_ATTR(name, type, class, settable, meaning, store, selector, needs, missing code,",
             "//          missing reason, value rule, extra default, compared)"]
    table += [attr_line(r) for r in attrs]
    read = [head, "// One reader per attribute, in table order (see attrs/attr_access.cpp)."]
    read += [reader_line(r) for r in attrs]
    apply = [head, "// One applier per attribute, in table order (see model/attr_apply.cpp)."]
    apply += [applier_line(r) for r in attrs]
    computed = [head, "// The functions of computed attributes (defined in attrs/computed.cpp)."]
    computed += computed_declarations(attrs)
    return {"model/attr_table.inc": "\n".join(table) + "\n",
            "attrs/attr_read.inc": "\n".join(read) + "\n",
            "attrs/attr_computed.inc": "\n".join(computed) + "\n",
            "model/attr_apply.inc": "\n".join(apply) + "\n"}


def generated(root):
    out = {"params/param_table.inc": param_table(rows(root / "params" / "params.tsv"))}
    out.update(attr_tables(rows(root / "model" / "attrs.tsv")))
    return out


def main(argv):
    check = "--check" in argv[1:]
    args = [a for a in argv[1:] if a != "--check"]
    root = pathlib.Path(args[0]) if args else ROOT
    try:
        files = generated(root)
    except TableError as e:
        print(f"gen_tables: {e}", file=sys.stderr)
        return 2
    stale = []
    for rel, text in files.items():
        path = root / rel
        if check:
            if not path.is_file() or path.read_text() != text:
                stale.append(rel)
        else:
            path.write_text(text)
    for rel in stale:
        print(f"{rel} is out of date: run scripts/gen_tables.py")
    return 1 if stale else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
