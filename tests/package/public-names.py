#!/usr/bin/env python3
"""Every name the library exports is declared in one of its public headers:
an internal function or class that leaks out fails here, by name.

Usage: public-names.py EXPORTS HEADER... (EXPORTS: the demangled names, one a line)
"""
import re
import sys


def identifiers(symbol):
    """The names a demangled symbol is made of: scopes and the function."""
    for prefix in ("typeinfo name for ", "typeinfo for ", "vtable for ", "VTT for ", "guard variable for "):
        if symbol.startswith(prefix):
            symbol = symbol[len(prefix):]
    symbol = re.sub(r"\[abi:[^\]]*\]", "", symbol)
    name = symbol.split("(", 1)[0]
    while "<" in name:  # template arguments are not names of ours
        name = re.sub(r"<[^<>]*>", "", name)
    parts = [p.strip().lstrip("~") for p in name.split("::") if p.strip()]
    return [p for p in parts if not p.startswith("operator") and re.fullmatch(r"[A-Za-z_]\w*", p)]


def main():
    exports, headers = sys.argv[1], sys.argv[2:]
    declared = set()
    for header in headers:
        with open(header) as f:
            declared.update(re.findall(r"[A-Za-z_]\w*", f.read()))
    leaks = []
    with open(exports) as f:
        for symbol in f.read().splitlines():
            missing = [n for n in identifiers(symbol) if n not in declared]
            if missing:
                leaks.append("%s (%s)" % (symbol, ", ".join(missing)))
    if leaks:
        print("exported, but declared in no public header:")
        print("\n".join(leaks))
        return 1
    print("public names: every export is declared in a public header")
    return 0


sys.exit(main())
