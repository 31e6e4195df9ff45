#!/usr/bin/env python3
"""Checks that the library's folders include one another only downward.

Each folder of src/kelpimage has a rank; a file may include headers of its
own folder and of folders of lower rank, never of a higher one. With --dot
it prints the folder graph (who includes whom) for Graphviz instead.
"""
import pathlib
import re
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


def main() -> int:
    paths = [a for a in sys.argv[1:] if not a.startswith("--")]
    root = pathlib.Path(paths[0]) if paths else pathlib.Path(__file__).resolve().parent.parent / "src" / "kelpimage"
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
