#!/usr/bin/env python3
"""Checks that the solver library's folders include each other in one direction only.

The folders are layered, lowest first:
    util -> params -> env -> model -> attrs -> reform, io -> engine -> analysis
A file may include headers of its own folder and of folders strictly below it (reform and io
share a layer and stay independent of each other). capi/ (the C entry points) and tools/ sit on
top and may include anything; include/ is the public header, usable by all and including none.
Headers that do not resolve inside the library (the engine's, the standard library's) are not
checked. A folder missing from the list fails the check until it is given a layer.
Calls go downward too: a file below the top layer may not call a C entry point (KVR...) that is
defined in capi/; it calls the core function that entry point wraps.
Declarations follow their definitions: a header below the top layer may not declare a function
that only a higher folder defines (the header belongs beside the definition). Names are matched
by text, so a function defined under the same name in the header's folder or below passes.

    python3 scripts/check_layers.py [library-dir]     default: src/kaviro100
Exit status 1 lists every offending include as file:line: #include "...", every such call as
file:line: KVRname(...), every such declaration as file:line: name(...) declared, and files in
folders without a layer.
"""
import pathlib
import re
import sys

LAYERS = [["include"], ["util"], ["params"], ["env"], ["model"], ["attrs"], ["reform", "io"],
          ["engine"], ["analysis"], ["capi", "tools"]]
TOP = {"capi", "tools"}
RANK = {folder: rank for rank, group in enumerate(LAYERS) for folder in group}
SOURCES = {".h", ".hpp", ".cpp", ".cc", ".inc"}
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"')
# A function definition or declaration at the start of a line: the name before the parenthesis.
ENTRY_POINT = re.compile(r"^[A-Za-z_][\w\s*]*?\b(KVR\w+)\s*\(", re.M)
CALL = re.compile(r"\b(KVR\w+)\s*\(")
# Comments and string literals, which may name entry points without calling them.
NOT_CODE = re.compile(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"', re.S)
# A parameter list: no statement or block inside, one level of nested parentheses.
PARAMS = r"\((?:[^;{}()]|\([^;{}()]*\))*\)"
QUALIFIERS = r"(?:\s*(?:const|noexcept|override|final))*"
# `name(params) ... {`: a function body (a constructor's initializer list allowed).
DEFINITION = re.compile(rf"\b([A-Za-z_]\w*)\s*{PARAMS}{QUALIFIERS}\s*(?:->[^;{{}}]*|:[^;{{}}]*)?\{{")
# `type name(params);`: a declaration (the type is what tells it from a call statement).
DECLARATION = re.compile(rf"([\w>*&]+)\s+[*&]*([A-Za-z_]\w*)\s*{PARAMS}{QUALIFIERS}\s*(?:=\s*\w+\s*)?;")
KEYWORDS = {"if", "for", "while", "switch", "catch", "return", "sizeof", "decltype", "alignof",
            "static_assert", "defined", "else", "new", "delete", "throw", "case"}


def folder_of(path, root):
    """The top folder of the library that holds `path`, or None for a file outside it."""
    try:
        rel = path.resolve().relative_to(root)
    except ValueError:
        return None
    return rel.parts[0] if len(rel.parts) > 1 else ""


def resolve(name, source, root):
    """The library file an include names (searched as the compiler does), or None."""
    for base in (source.parent, root, root / "include"):
        candidate = base / name
        if candidate.is_file():
            return candidate
    return None


def allowed(src_folder, dst_folder):
    if src_folder == dst_folder or src_folder in TOP:
        return True
    if dst_folder == "include":
        return True
    return RANK[dst_folder] < RANK[src_folder]


def sources(root):
    for source in sorted(root.rglob("*")):
        if source.suffix in SOURCES and source.is_file():
            yield source


def capi_entry_points(root):
    """Names of the C entry points defined (or declared) in capi/."""
    names = set()
    for source in sources(root / "capi") if (root / "capi").is_dir() else ():
        names.update(ENTRY_POINT.findall(source.read_text(errors="replace")))
    return names


def upward_calls(text, entry_points):
    """(line, name) of every call in `text` to one of `entry_points`, outside comments."""
    code = code_of(text)
    return [(code.count("\n", 0, m.start()) + 1, m.group(1)) for m in CALL.finditer(code)
            if m.group(1) in entry_points]


def code_of(text):
    """`text` with comments and string literals blanked, lines kept."""
    return NOT_CODE.sub(lambda m: re.sub(r"[^\n]", " ", m.group(0)), text)


def defining_folders(root):
    """For each function name defined in the library, the folders that define it."""
    found = {}
    for source in sources(root):
        folder = folder_of(source, root)
        for m in DEFINITION.finditer(code_of(source.read_text(errors="replace"))):
            if m.group(1) not in KEYWORDS:
                found.setdefault(m.group(1), set()).add(folder)
    return found


def declared_above(source, code, folder, defined):
    """(line, name) of the functions the header declares that only higher folders define."""
    out = []
    for m in DECLARATION.finditer(code):
        name = m.group(2)
        where = {f for f in defined.get(name, ()) if f in RANK}
        if name in KEYWORDS or m.group(1) in KEYWORDS or not where or any(RANK[f] <= RANK[folder] for f in where):
            continue
        out.append((code.count("\n", 0, m.start(2)) + 1, name))
    return out


def violations(root):
    """(file, line, include or call, reason) for everything that breaks the layering."""
    root = root.resolve()
    entry_points = capi_entry_points(root)
    defined = defining_folders(root)
    found = []
    for source in sources(root):
        src_folder = folder_of(source, root)
        rel = source.relative_to(root)
        if src_folder not in RANK:
            found.append((rel, 0, "", f"folder '{src_folder}' has no layer"))
            continue
        text = source.read_text(errors="replace")
        if src_folder not in TOP and src_folder != "include":
            for number, name in upward_calls(text, entry_points):
                found.append((rel, number, f"{name}(...)", f"{src_folder}/ may not call capi/"))
            if source.suffix in (".h", ".hpp"):
                for number, name in declared_above(source, code_of(text), src_folder, defined):
                    found.append((rel, number, f"{name}(...) declared",
                                  f"defined only above {src_folder}/"))
        for number, text in enumerate(text.splitlines(), 1):
            match = INCLUDE.match(text)
            if not match:
                continue
            target = resolve(match.group(1), source, root)
            if target is None:
                continue
            dst_folder = folder_of(target, root)
            if dst_folder not in RANK:
                found.append((rel, number, match.group(1), f"folder '{dst_folder}' has no layer"))
            elif not allowed(src_folder, dst_folder):
                found.append((rel, number, match.group(1),
                              f"{src_folder}/ may not include {dst_folder}/"))
    return found


def main(argv):
    default = pathlib.Path(__file__).resolve().parent.parent / "src" / "kaviro100"
    root = pathlib.Path(argv[1]) if len(argv) > 1 else default
    if not root.is_dir():
        print(f"no such directory: {root}", file=sys.stderr)
        return 2
    found = violations(root)
    found.sort(key=lambda f: (str(f[0]), f[1]))
    for rel, number, name, reason in found:
        what = name if "(...)" in name else f'#include "{name}"'
        print(f"{rel}:{number}: {what} ({reason})" if number else f"{rel}: {reason}")
    if found:
        print(f"{len(found)} include(s), call(s) or declaration(s) against the layering",
              file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
