#!/usr/bin/env python3
"""Fails when an #include runs against the layering of the policy library, of
kxsim or of the tool: each folder may include only itself and the folders below it, so a
change that makes a low layer call a high one is caught at review time
instead of growing into a cycle.

usage: check_layers.py <source root>
"""
import pathlib
import re
import sys

# Folder -> the project folders its files may include. Libraries below the
# policy library (libutil, kxdmapi) are always allowed.
ALLOWED = {
    "vdpolicy/include": {"vdpolicy/include"},
    "vdpolicy/lib/config": {"vdpolicy/include", "vdpolicy/lib/config"},
    "vdpolicy/lib/parse": {"vdpolicy/include", "vdpolicy/lib/config", "vdpolicy/lib/parse"},
    "vdpolicy/lib/check": {"vdpolicy/include", "vdpolicy/lib/config", "vdpolicy/lib/check"},
    "vdpolicy/lib/store": {"vdpolicy/include", "vdpolicy/lib/config", "vdpolicy/lib/parse",
                           "vdpolicy/lib/check", "vdpolicy/lib/store"},
    "vdpolicy/lib/summary": {"vdpolicy/include", "vdpolicy/lib/config", "vdpolicy/lib/store",
                             "vdpolicy/lib/summary"},
    "kxsim/core": {"kxsim/core"},
    "kxsim/populate": {"kxsim/core", "kxsim/populate"},
    "kxsim/cli": {"kxsim/core", "kxsim/populate", "kxsim/cli"},
    "kxsim/preload": {"kxsim/core", "kxsim/preload"},
    "kxsim/preload/driver": {"kxsim/core", "kxsim/preload", "kxsim/preload/driver"},
    "kxsim/preload/wrap": {"kxsim/core", "kxsim/preload", "kxsim/preload/driver"},
    # The tool: the walk calls the rules, never the reverse.
    "vdutils/vdpostrestore": {"extapi", "vdpolicy/include", "walk", "rules"},
    "vdutils/vdpostrestore/walk": {"extapi", "vdpolicy/include", "walk", "rules"},
    "vdutils/vdpostrestore/rules": {"extapi", "vdpolicy/include", "rules"},
}
ALWAYS = ("libutil/", "kxdmapi/")
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)
MAX_MODULES = 15


def folder_of(include):
    """The layer folder an include names ("vdpolicy/x.h" is the public one)."""
    if include.startswith("vdpolicy/") and not include.startswith("vdpolicy/lib/"):
        return "vdpolicy/include"
    return str(pathlib.PurePosixPath(include).parent)


def main(root):
    root = pathlib.Path(root)
    errors = []
    for folder, allowed in ALLOWED.items():
        files = [p for p in (root / folder).iterdir() if p.suffix in (".h", ".cpp")]
        if folder == "vdpolicy/include":
            files = list((root / folder / "vdpolicy").iterdir())
        modules = {p.stem for p in files}
        if len(modules) > MAX_MODULES:
            errors.append(f"{folder}: {len(modules)} modules, more than {MAX_MODULES}")
        for path in files:
            for name in INCLUDE.findall(path.read_text()):
                if name.startswith(ALWAYS) or "/" not in name:
                    continue
                if folder_of(name) not in allowed:
                    errors.append(f"{path.relative_to(root)}: includes {name}, a layer above")
    for e in errors:
        print(e, file=sys.stderr)
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
