#!/usr/bin/env python3
"""Counts instructions and peak heap, and compares them with the checked-in
figures: a rise of more than 10 % fails. Another release's compiler and
libraries give other figures, which are shown and not compared.

Usage: budget.py DRIVE PACKAGE_DIRECTORY FIGURES [--update]

Runs inside the simulated BMC. Instructions are those of the library and of
the program that drives it; other libraries' are not ours to budget.
"""

import json
import os
import platform
import re
import subprocess
import sys
import tempfile

ALLOWED_RISE = 1.10
# What Meson takes for a skipped test.
NOT_COMPARED = 77
OURS = re.compile(r"(^|/)(libvelmora\.so|velmora-drive)")


def own_instructions(path):
    """Sum of self costs of our objects in a callgrind profile."""
    names = {}
    ours = after_call = False
    total = 0
    with open(path, encoding="utf-8", errors="replace") as file:
        for line in file:
            if line.startswith("ob="):
                number, name = re.match(r"ob=\((\d+)\)(?: (.*))?", line).groups()
                names.setdefault(number, name)
                ours = bool(OURS.search(names[number]))
            elif line.startswith("cob="):
                number, name = re.match(r"cob=\((\d+)\)(?: (.*))?",
                                        line).groups()
                names.setdefault(number, name)
            elif line.startswith("calls="):
                after_call = True
            elif line[:1] in "0123456789+-*":
                # callgrind puts the cost of a call on the line after it.
                if ours and not after_call:
                    total += int(line.split()[1])
                after_call = False
    return total


def peak_heap(path):
    with open(path, encoding="ascii") as file:
        return max(int(size) for size in
                   re.findall(r"^mem_heap_B=(\d+)", file.read(), re.MULTILINE))


def valgrind(tool, output, command):
    subprocess.run(["valgrind", f"--tool={tool}", f"--{tool}-out-file={output}",
                    "--log-file=/dev/null", *command],
                   check=True, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL)


def measure(drive, package):
    figures = {}
    with tempfile.TemporaryDirectory() as directory:
        output = os.path.join(directory, "out")
        for name, arguments in (("validateExtractedQOR",
                                 ["validate", "1", package]),
                                ("extract_meta_data", ["metadata", "1"])):
            valgrind("callgrind", output, [drive, *arguments])
            figures[f"{name} instructions"] = own_instructions(output)
            valgrind("massif", output, [drive, *arguments])
            figures[f"{name} peak heap bytes"] = peak_heap(output)
    return figures


def main():
    drive, package, path = sys.argv[1:4]
    measured = measure(drive, package)
    release = platform.freedesktop_os_release().get("VERSION_CODENAME")
    if "--update" in sys.argv:
        with open(path, "w", encoding="ascii") as file:
            json.dump({"release": release, **measured}, file, indent=2)
            file.write("\n")
        return 0
    with open(path, encoding="ascii") as file:
        allowed = json.load(file)
    comparable = allowed["release"] == release
    failed = False
    for name, value in measured.items():
        over = comparable and value > allowed[name] * ALLOWED_RISE
        failed |= over
        print(f"{name}: {value:,} of {allowed[name]:,}"
              + (" MORE than 10 % above" if over else ""))
    if not comparable:
        print(f"not compared: the figures are those of {allowed['release']}")
        return NOT_COMPARED
    return 1 if failed else 0


sys.exit(main())
