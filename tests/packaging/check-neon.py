#!/usr/bin/env python3
"""No NEON instruction outside the source file that is chosen at run time.

check-neon.py OBJDUMP NM LIBRARY OBJECT-FILE

The oldest boards have no NEON. OBJECT-FILE is the one compiled for it; what it shares with other
files (weak symbols, of which the linker keeps one copy) must not use NEON either.
"""
import re
import subprocess
import sys

MNEMONIC = re.compile(
    r"v(ld|st)[1-4]\."  # structure loads and stores
    r"|v(and|orr|orn|eor|bic|mvn|bsl|bit|bif|swp)\b"  # bitwise
    r"|v\w+\.[isup]?(8|16)\b"  # lanes of bytes and half words
    r"|v\w+\.i(32|64)\b"
    r"|v(?!cvt)\w+\.[su](32|64)\b"
    r"|v(?!mov)\w+\.(32|64)\b")
QUAD = re.compile(r"\bq\d+\b")
# VFPv3-D16 has d0 to d15, and single-precision arithmetic on s registers only.
UPPER = re.compile(r"\bd(1[6-9]|2\d|3[01])\b")
DOUBLE = re.compile(r"\bd\d+\b")


def is_neon(mnemonic, operands):
    if not mnemonic.startswith("v"):
        return False
    return bool(MNEMONIC.match(mnemonic) or QUAD.search(operands) or UPPER.search(operands)
                or (re.match(r"v(add|sub|mul|mla|mls|neg|abs|max|min)\.f32", mnemonic)
                    and DOUBLE.search(operands)))


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def main():
    objdump, nm, library, object_file = sys.argv[1:]
    own = {fields[-1] for fields in map(str.split, run(nm, "--defined-only", object_file).splitlines())
           if fields[-2] in "tT"}
    symbol, inside, outside = "", 0, {}
    for line in run(objdump, "-d", "--no-show-raw-insn", library).splitlines():
        if head := re.match(r"[0-9a-f]+ <(.+)>:$", line):
            symbol = head[1]
        elif len(fields := line.split("\t")) >= 2:
            operands = " ".join(fields[2:]).split("@")[0]
            if is_neon(fields[1].strip(), operands):
                if symbol in own:
                    inside += 1
                else:
                    outside.setdefault(symbol, f"{fields[1]} {operands}")
    print(f"{inside} NEON instructions in the {len(own)} functions of {object_file}")
    for name, instruction in outside.items():
        print(f"outside: {instruction.strip()}  in {name}")
    # Finding none at all would mean that the search is blind.
    return 1 if outside or inside == 0 else 0


sys.exit(main())
