#!/usr/bin/env python3
"""Mutation testing: do the tests notice a small fault in the code?

Applies one mutation at a time to the given source files, rebuilds the
debug build incrementally, runs the tests, restores the file, and prints
for each mutant whether the tests killed it (failed), let it survive
(passed) or ran out of time. Mutants listed in equivalent.txt beside this
script (no input can tell them apart from the original) are not counted.

    tests/mutation/mutate.py vdutils/vdpostrestore/rules/file_rules.cpp ...
    tests/mutation/mutate.py --list kxdmapi/kxdmapi_attributes.cpp

Run it from the source tree with a configured debug build (the test
workflow makes one). It leaves the tree as it found it, also when
interrupted: the original of the file being mutated is kept in
.mutation-journal until it is back, and a later run puts it back first.
Only the Python standard library is needed.
"""

import argparse
import os
import re
import signal
import subprocess
import sys
import time
from dataclasses import dataclass
from pathlib import Path

HERE = Path(__file__).resolve().parent
ROOT = HERE.parent.parent
JOURNAL = ROOT / ".mutation-journal"
EQUIVALENT = HERE / "equivalent.txt"


@dataclass
class Mutant:
    path: str
    line: int
    col: int
    op: str
    before: str
    after: str
    start: int  # offset of `before` in the file
    end: int

    @property
    def ident(self):
        return f"{self.path}:{self.line}:{self.col}:{self.op}:{self.before}->{self.after}"


def mask_comments_and_literals(text):
    """The text with comments, string and character literals and
    preprocessor lines blanked (same length), so that operators are only
    found in code."""
    out = list(text)
    i, n = 0, len(text)

    def blank(a, b):
        for k in range(a, b):
            if out[k] != "\n":
                out[k] = " "

    at_line_start = True
    while i < n:
        c = text[i]
        if at_line_start and c == "#":
            j = text.find("\n", i)
            j = n if j < 0 else j
            while j > 0 and text[j - 1] == "\\" and j < n:  # continued lines
                j = text.find("\n", j + 1)
                j = n if j < 0 else j
            blank(i, j)
            i = j
            continue
        if c == "\n":
            at_line_start = True
            i += 1
            continue
        if not c.isspace():
            at_line_start = False
        if text.startswith("//", i):
            j = text.find("\n", i)
            j = n if j < 0 else j
            blank(i, j)
            i = j
        elif text.startswith("/*", i):
            j = text.find("*/", i + 2)
            j = n if j < 0 else j + 2
            blank(i, j)
            i = j
        elif c in "\"'":
            j = i + 1
            while j < n and text[j] != c:
                j += 2 if text[j] == "\\" else 1
            blank(i + 1, j)  # keep the quotes so that tokens stay apart
            i = j + 1
        else:
            i += 1
    return "".join(out)


# Relational and equality operators and their bounds. The lookarounds keep
# shifts, arrows, templates' closing brackets and compound operators out.
SWAPS = [
    ("relational", r"(?<![<>=!-])<(?![<=])", "<="),
    ("relational", r"(?<![<>=!-])<=", "<"),
    ("relational", r"(?<![<>=-])>(?![>=])", ">="),
    ("relational", r"(?<![<>=-])>=", ">"),
    ("equality", r"(?<![<>=!])==(?!=)", "!="),
    ("equality", r"!=", "=="),
    ("logical", r"&&", "||"),
    ("logical", r"\|\|", "&&"),
]
CALL_STATEMENT = re.compile(
    r"^[ \t]*(?:\(void\)\s*)?(?:[A-Za-z_][\w:]*(?:\.|->))*[A-Za-z_][\w:]*\s*\([^;{}]*\);[ \t]*$",
    re.M)
NOT_CALLS = re.compile(r"^\s*(?:return|if|while|for|switch|case|delete|throw|else|KX_ASSERT|EXPECT|ASSERT)\b")
OPEN_CALL = re.compile(r"\bopen(?:at)?\s*\(")
FLAG = re.compile(r"\|\s*O_[A-Z]+|O_[A-Z]+\s*\|")
INTEGER = re.compile(r"(?<![\w.])(\d+)(?![\w.])")
LOGICAL_NOT = re.compile(r"!(?!=)")


def line_col(text, offset):
    line = text.count("\n", 0, offset) + 1
    return line, offset - (text.rfind("\n", 0, offset) + 1) + 1


def looks_like_template(code, start):
    """A '<' or '>' that belongs to a template argument list rather than a
    comparison: conservatively, one next to a type-ish word without spaces
    around the operator (std::vector<int>, static_cast<size_t>(x))."""
    before = code[start - 1] if start > 0 else " "
    after = code[start + 1] if start + 1 < len(code) else " "
    return not (before == " " and after in " =")


def find_mutants(path):
    text = Path(path).read_text()
    code = mask_comments_and_literals(text)
    found = []

    def add(op, start, end, after):
        line, col = line_col(text, start)
        found.append(Mutant(path, line, col, op, text[start:end], after, start, end))

    for op, pattern, replacement in SWAPS:
        for m in re.finditer(pattern, code):
            if op == "relational" and looks_like_template(code, m.start()):
                continue
            add(op, m.start(), m.end(), replacement)
    for m in LOGICAL_NOT.finditer(code):
        add("not-removed", m.start(), m.end(), "")
    for m in INTEGER.finditer(code):
        value = int(m.group(1), 10) if not m.group(1).startswith("0") or m.group(1) == "0" else None
        if value is None:
            continue
        add("constant", m.start(), m.end(), str(value + 1))
        if value > 0:
            add("constant", m.start(), m.end(), str(value - 1))
    for m in OPEN_CALL.finditer(code):
        close = code.find(";", m.end())
        for f in FLAG.finditer(code, m.end(), close):
            add("open-flag", f.start(), f.end(), "")
    for m in CALL_STATEMENT.finditer(code):
        if NOT_CALLS.match(m.group(0)):
            continue
        stripped = m.group(0).lstrip()
        start = m.start() + (len(m.group(0)) - len(stripped))
        add("call-deleted", start, m.end(), ";")
    found.sort(key=lambda mu: (mu.start, mu.op, mu.after))
    return found


class Journal:
    """Keeps the original of the file under mutation until it is back."""

    def __init__(self):
        self.path = None
        self.original = None

    def mutate(self, mutant, original):
        JOURNAL.write_text(mutant.path + "\n" + original)
        self.path, self.original = mutant.path, original
        text = original[:mutant.start] + mutant.after + original[mutant.end:]
        Path(ROOT / mutant.path).write_text(text)

    def restore(self):
        if self.path is not None:
            Path(ROOT / self.path).write_text(self.original)
            self.path = self.original = None
        if JOURNAL.exists():
            JOURNAL.unlink()

    @staticmethod
    def recover():
        """Puts back a file that an interrupted run left mutated."""
        if not JOURNAL.exists():
            return
        name, _, original = JOURNAL.read_text().partition("\n")
        Path(ROOT / name).write_text(original)
        JOURNAL.unlink()
        print(f"restored {name} left mutated by an interrupted run")


def run(cmd, timeout):
    """0 on success, 1 on failure, None on time-out."""
    try:
        done = subprocess.run(cmd, cwd=ROOT, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, timeout=timeout,
                              start_new_session=True)
    except subprocess.TimeoutExpired:
        return None
    return 0 if done.returncode == 0 else 1


def load_equivalents():
    if not EQUIVALENT.exists():
        return set()
    idents = set()
    for line in EQUIVALENT.read_text().splitlines():
        line = line.strip()
        if line and not line.startswith("#"):
            idents.add(line.split(" #")[0].strip())
    return idents


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("files", nargs="+", help="source files, relative to the source tree")
    parser.add_argument("--build-dir", default="build/debug")
    parser.add_argument("--timeout", type=int, default=600, help="seconds per mutant")
    parser.add_argument("--tests", default="", help="ctest -R regex (default: every test)")
    parser.add_argument("--exclude", default="", help="ctest -E regex: tests left out")
    parser.add_argument("--list", action="store_true", help="list the mutants, run nothing")
    parser.add_argument("--lines", default="", help="only mutants on lines A-B")
    parser.add_argument("--survivors", default="",
                        help="only the mutants an earlier run's output says SURVIVED")
    args = parser.parse_args()

    Journal.recover()
    mutants = [m for f in args.files for m in find_mutants(f)]
    if args.lines:
        first, _, last = args.lines.partition("-")
        mutants = [m for m in mutants if int(first) <= m.line <= int(last or first)]
    if args.survivors:
        survived = {line.split(None, 1)[1].strip()
                    for line in Path(args.survivors).read_text().splitlines()
                    if line.startswith("SURVIVED ")}
        # A deleted call that spans lines is printed on several: its first
        # line names it.
        mutants = [m for m in mutants if m.ident.split("\n")[0] in survived]
    equivalent = load_equivalents()
    if args.list:
        for m in mutants:
            print(("EQUIVALENT " if m.ident in equivalent else "") + m.ident)
        print(f"{len(mutants)} mutants")
        return 0

    build = ["cmake", "--build", args.build_dir]
    test = ["ctest", "--test-dir", args.build_dir, "-j2", "--stop-on-failure",
            "-LE", "demo", "--timeout", str(args.timeout)]
    if args.tests:
        test += ["-R", args.tests]
    if args.exclude:
        test += ["-E", args.exclude]
    if run(build, args.timeout) != 0 or run(test, args.timeout) != 0:
        print("the unmutated tree does not build or pass its tests", file=sys.stderr)
        return 2

    journal = Journal()

    def stop(signum, _frame):
        journal.restore()
        run(build, args.timeout)
        sys.exit(128 + signum)

    for sig in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(sig, stop)

    counts = {"killed": 0, "survived": 0, "timeout": 0, "equivalent": 0, "uncompilable": 0}
    per_file = {}
    started = time.monotonic()
    try:
        for m in mutants:
            if m.ident in equivalent:
                verdict = "equivalent"
            else:
                original = Path(ROOT / m.path).read_text()
                journal.mutate(m, original)
                try:
                    built = run(build, args.timeout)
                    if built is None:
                        verdict = "timeout"
                    elif built != 0:
                        verdict = "uncompilable"
                    else:
                        tested = run(test, args.timeout)
                        verdict = {0: "survived", 1: "killed", None: "timeout"}[tested]
                finally:
                    journal.restore()
            counts[verdict] += 1
            per_file.setdefault(m.path, {}).setdefault(verdict, 0)
            per_file[m.path][verdict] += 1
            print(f"{verdict.upper():12} {m.ident}", flush=True)
    finally:
        journal.restore()
        run(build, args.timeout)

    for path, c in per_file.items():
        print(f"{path}: " + ", ".join(f"{k} {v}" for k, v in sorted(c.items())))
    counted = counts["killed"] + counts["survived"] + counts["timeout"]
    score = 100.0 * (counts["killed"] + counts["timeout"]) / counted if counted else 100.0
    print(", ".join(f"{k} {v}" for k, v in counts.items()))
    print(f"score {score:.1f}% of {counted} non-equivalent mutants "
          f"in {time.monotonic() - started:.0f} s")
    return 0


if __name__ == "__main__":
    sys.exit(main())
