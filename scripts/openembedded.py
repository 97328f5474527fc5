#!/usr/bin/env python3
"""What can be told of the recipe where there is no bitbake. Argument: the top
directory."""

import pathlib
import re
import sys

TOP = pathlib.Path(sys.argv[1])
LAYER = TOP / "packaging/openembedded"
RECIPE = LAYER / "recipes-velmora/velmora/velmora_git.bb"
ASSIGNMENT = re.compile(r'[\w:${}-]+(\[\w+\])? (\?\?=|\?=|\.=|\+=|=) "[^"]*"')
PYTHON = re.compile(r"^python \(\) \{\n(.*?)^\}$", re.DOTALL | re.MULTILINE)


def statements(path):
    """The lines that are no comments, those that go on joined; Python's must
    compile and are left out."""
    text = path.read_text()
    for code in PYTHON.findall(text):
        compile("if True:\n" + code, path, "exec")
    lines = PYTHON.sub("", text).replace("\\\n", "").split("\n")
    return [line for line in lines if line and not line.startswith("#")]


names = set()
for file in RECIPE, LAYER / "conf/layer.conf", *LAYER.glob("*/*.bbappend"):
    for line in statements(file):
        assert ASSIGNMENT.fullmatch(line) or line.startswith("inherit "), line
        names.add(line.split(" ")[0])
recipe = RECIPE.read_text()
# What the text to copy sets, the recipe asks.
for name in re.findall(r"^VELMORA_\w+", "\n".join(names), re.MULTILINE):
    assert f"${{{name}}}" in recipe, name
options = re.findall(r"^option\('(\w+)'", (TOP / "meson.options").read_text(),
                     re.MULTILINE)
for option in re.findall(r"-D(\w+)=", recipe):
    assert option in options, option
assert re.search(r'^SRCREV \?\?= "[0-9a-f]{40}"$', recipe, re.MULTILINE)
print("all as expected")
