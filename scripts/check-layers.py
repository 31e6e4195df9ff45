#!/usr/bin/env python3
"""Checks that the library's folders include and call one another only
downward.

Each folder of src/kelpimage has a rank; a file may include headers of its
own folder and of folders of lower rank, never of a higher one. With
--objects DIR (the build's object files of the library, a folder of them
for each source folder) it also reads the symbols each object file needs
and defines (nm) and fails on a call, or any other use, of a name that only
a higher folder defines. With --dot it prints the folder graph (who
includes whom) for Graphviz instead.
"""
import pathlib
import re
import subprocess
import sys

# Bottom first. The export macro stands at the root, below everything.
RANKS = [
    ".",
    "base",
    "il/chunk",
    "support",
    "il",
    "sgi",
    "photoshop",
    "plugin",
    "io",
    "convert",
    "image/host",
    "image",
    "naming",
    "loader",
    "movie",
]

INCLUDE = re.compile(r'^\s*#\s*include\s+[<"]kelpimage/([^">]+)[">]', re.M)


def folder(relative: str) -> str:
    return str(pathlib.PurePosixPath(relative).parent)


def symbols(obj: pathlib.Path):
    """(defined, needed): the global names an object file defines and those it needs."""
    out = subprocess.run(["nm", "-P", str(obj)], capture_output=True, text=True, check=True).stdout
    defined, needed = set(), set()
    for line in out.splitlines():
        fields = line.split()
        if len(fields) < 2:
            continue
        name, kind = fields[0], fields[1]
        if kind in ("U", "w", "v"):
            needed.add(name)
        elif kind in "TDBRWVGSu":
            defined.add(name)
    return defined, needed


def check_calls(root: pathlib.Path, objects: pathlib.Path) -> int:
    """Uses of names across folders, from the object files of the sources
    under root: only downward."""
    rank_of = {}  # a name -> the lowest rank of a folder that defines it
    needs = []
    for path in sorted(root.rglob("*.cpp")):
        relative = path.relative_to(root).as_posix()
        obj = objects / (relative + ".o")
        source = folder(relative)
        if not obj.exists():
            print(f"no object file {obj} for {relative}: build the library first")
            return 1
        if source not in RANKS:
            continue  # told by the include check
        defined, needed = symbols(obj)
        for name in defined:
            rank_of[name] = min(rank_of.get(name, len(RANKS)), RANKS.index(source))
        needs.append((source, obj.name, needed))
    bad = {}
    for source, name, needed in needs:
        for symbol in needed:
            if symbol in rank_of and rank_of[symbol] > RANKS.index(source):
                bad.setdefault((source, RANKS[rank_of[symbol]]), set()).add(f"{name}: {symbol}")
    for (a, b), uses in sorted(bad.items()):
        print(f"{a} uses the higher {b}: {', '.join(sorted(uses)[:5])}")
    if bad:
        return 1
    print(f"layers: {len(needs)} object files, every name they need defined in their folder or below")
    return 0


def main() -> int:
    args = sys.argv[1:]
    objects = None
    if "--objects" in args:
        at = args.index("--objects")
        objects = pathlib.Path(args[at + 1])
        del args[at:at + 2]
    paths = [a for a in args if not a.startswith("--")]
    root = pathlib.Path(paths[0]) if paths else pathlib.Path(__file__).resolve().parent.parent / "src" / "kelpimage"
    if objects and check_calls(root, objects):
        return 1
    edges = {}
    unknown = set()
    for path in sorted(root.rglob("*")):
        if path.suffix not in (".h", ".cpp"):
            continue
        source = folder(path.relative_to(root).as_posix())
        for target_file in INCLUDE.findall(path.read_text()):
            target = folder(target_file)
            if target != source:
                edges.setdefault((source, target), []).append(path.relative_to(root).as_posix())
            unknown.update(f for f in (source, target) if f not in RANKS)
    if "--dot" in sys.argv:
        print("digraph kelpimage {\n  rankdir=BT;")
        for (a, b), files in sorted(edges.items()):
            print(f'  "{a}" -> "{b}" [label="{len(files)}"];')
        print("}")
        return 0
    bad = 0
    for folder_name in sorted(unknown):
        print(f"folder {folder_name} has no rank in {__file__}")
        bad += 1
    for (a, b), files in sorted(edges.items()):
        if a in RANKS and b in RANKS and RANKS.index(b) > RANKS.index(a):
            print(f"{a} includes the higher {b}: {', '.join(files)}")
            bad += 1
    if bad:
        return 1
    print(f"layers: {len(edges)} include edges between folders, all downward")
    return 0


if __name__ == "__main__":
    sys.exit(main())
