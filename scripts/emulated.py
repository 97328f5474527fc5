#!/usr/bin/env python3
"""Runs the suite of a build for another processor on an emulator.

Usage: emulated.py BUILD NATIVE_BUILD TEST EMULATOR...

The tests are those that Meson knows of BUILD, or the one that is named in
place of "all". Each program of BUILD is
replaced in their commands by a script that starts it on the emulator; bmc-sim
with what it starts by that of NATIVE_BUILD.
"""

import json
import os
import pathlib
import re
import shlex
import shutil
import subprocess
import sys
import time

# What does not run on an emulator, by its name or suite.
NOT_RUN = {
    "bmc-sim": "it is a script; the other tests run in that of the native build",
    "valgrind": "it cannot run under the emulator",
}
# An emulated processor takes its time.
TIMEOUT_FACTOR = 20


def introspect(build, what):
    return json.loads(subprocess.run(
        ["meson", "introspect", what, build],
        check=True, capture_output=True, text=True).stdout)


def write_scripts(build, native, emulator):
    """Gives the directory of the scripts and which program each starts."""
    tree = build / "emulated"
    shutil.rmtree(tree, ignore_errors=True)
    scripts = {}
    for target in introspect(build, "--targets"):
        if target["type"] != "executable":
            continue
        program = pathlib.Path(target["filename"][0])
        script = tree / program.relative_to(build)
        script.parent.mkdir(parents=True, exist_ok=True)
        script.write_text(
            f'#!/bin/sh\nexec {shlex.join(map(str, [*emulator, program]))} "$@"\n')
        script.chmod(0o755)
        scripts[program] = script
    simulator = pathlib.Path("tools/bmc-sim/bmc-sim")
    (tree / simulator).unlink(missing_ok=True)
    (tree / simulator).symlink_to(native / simulator)
    scripts[build / simulator] = tree / simulator
    return tree, scripts


def run(test, build, tree, scripts):
    """Gives whether it passed, and the output."""
    def replaced(text):
        if test["name"] == "demo" and text == str(build):
            return str(tree)
        return str(scripts.get(build / text, text))

    environment = os.environ | {
        name: replaced(value) for name, value in test["env"].items()}
    try:
        done = subprocess.run(
            [replaced(text) for text in test["cmd"]], cwd=build,
            env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, timeout=TIMEOUT_FACTOR * test["timeout"])
    except subprocess.TimeoutExpired as late:
        return False, (late.output or b"") + b"\ntimed out\n"
    return done.returncode == 0, done.stdout


def summary(output):
    """What a test says of itself in its last line, colours and marks aside."""
    lines = output.decode(errors="replace").split("\n")
    lines = [re.sub(r"\x1b\[[0-9;]*m|^\[ +PASSED +\] ", "", line)
             for line in lines if line.strip()]
    return lines[-1] if lines else ""


def main():
    build, native = (pathlib.Path(name).resolve() for name in sys.argv[1:3])
    only = sys.argv[3]
    # A test may have a PATH of its own.
    emulator = [shutil.which(sys.argv[4]) or sys.argv[4], *sys.argv[5:]]
    tree, scripts = write_scripts(build, native, emulator)
    logs = build / "emulated-logs"
    logs.mkdir(exist_ok=True)
    counts = {"passed": 0, "failed": 0, "not run": 0}
    for test in introspect(build, "--tests"):
        name = test["name"]
        if only not in ("all", name):
            continue
        suites = [suite.split(":")[-1] for suite in test["suite"]]
        reason = next((NOT_RUN[key] for key in [name, *suites]
                       if key in NOT_RUN), None)
        if reason:
            counts["not run"] += 1
            print(f"not run  {name}: {reason}", flush=True)
            continue
        begin = time.monotonic()
        passed, output = run(test, build, tree, scripts)
        (logs / f"{name}.txt").write_bytes(output)
        counts["passed" if passed else "failed"] += 1
        if not passed:
            sys.stdout.flush()
            sys.stdout.buffer.write(output)
        print(f"{'passed ' if passed else 'FAILED '}  {name}, "
              f"{time.monotonic() - begin:.0f} s: {summary(output)}",
              flush=True)
    print(", ".join(f"{count} {what}" for what, count in counts.items()))
    return 1 if counts["failed"] else 0


sys.exit(main())
