#!/usr/bin/env python3
"""Compares what a built library exports with the checked-in list.

Usage: abi.py LIBRARY LIST [--update]

The list has the dynamic symbols, as nm shows them, and, where libabigail is
installed, the signatures of the functions behind them, the types of the
variables and the layout of the project's own types. Without libabigail the
symbols alone are compared.
"""

import difflib
import shutil
import subprocess
import sys
import xml.etree.ElementTree as ElementTree

OWN_TYPES = ("manifestHeader", "VersionPurpose", "ReleaseType")


def symbols(library):
    output = subprocess.run(["nm", "-D", "--defined-only", library],
                            check=True, capture_output=True, text=True).stdout
    # Whether a variable begins as zero is no part of what is exported.
    return sorted(f"symbol {'D' if kind == 'B' else kind} {name}"
                  for _, kind, name in map(str.split, output.splitlines()))


class Types:
    """Types of an abidw document by their identifiers."""

    def __init__(self, corpus):
        self.by_id = {node.get("id"): node for node in corpus.iter()
                      if node.get("id")}

    def name(self, identifier):
        node = self.by_id[identifier]
        inner = node.get("type-id")
        if node.tag == "pointer-type-def":
            return self.name(inner) + "*"
        if node.tag == "reference-type-def":
            return self.name(inner) + "&"
        if node.tag == "qualified-type-def":
            # As libabigail writes it for both a value and a pointee.
            return self.name(inner) + " const"
        if node.tag == "array-type-def":
            return f"{self.name(inner)}[{node.find('subrange').get('length')}]"
        name = node.get("name", node.tag)
        # Releases differ in the spaces of templates.
        return name.replace(" ", "") if "<" in name else name


def own_types(corpus, types):
    for node in corpus.iter():
        if node.get("name") not in OWN_TYPES or node.get("is-anonymous"):
            continue
        if node.tag == "enum-decl":
            for value in node.iter("enumerator"):
                yield (f"enumerator {node.get('name')}::{value.get('name')} "
                       f"= {value.get('value')}")
        elif node.tag == "class-decl" and node.get("size-in-bits"):
            yield f"type {node.get('name')} {node.get('size-in-bits')} bits"
            for member in node.findall("data-member"):
                variable = member.find("var-decl")
                yield (f"member {node.get('name')}::{variable.get('name')} "
                       f"{types.name(variable.get('type-id'))} at "
                       f"{member.get('layout-offset-in-bits')}")


def signatures(library):
    document = subprocess.run(
        ["abidw", "--exported-interfaces-only", library],
        check=True, capture_output=True, text=True).stdout
    corpus = ElementTree.fromstring(document)
    types = Types(corpus)
    lines = set(own_types(corpus, types))
    exported = {node.get("name")
                for node in corpus.find("elf-function-symbols")}
    for node in corpus.iter("function-decl"):
        if node.get("mangled-name") in exported:
            # Newer releases keep parameters and result in a type of their own,
            # and leave a result out that is void.
            if node.find("return") is None and node.get("type-id"):
                declared = types.by_id[node.get("type-id")]
            else:
                declared = node
            parameters = ", ".join(types.name(parameter.get("type-id"))
                                   for parameter in declared.findall("parameter"))
            returned = declared.find("return")
            result = "void" if returned is None else types.name(
                returned.get("type-id"))
            lines.add(f"function {result} {node.get('name')}({parameters})")
    variables = {node.get("name")
                 for node in corpus.find("elf-variable-symbols")}
    for node in corpus.iter("var-decl"):
        if node.get("mangled-name") in variables:
            lines.add(f"variable {types.name(node.get('type-id'))} "
                      f"{node.get('name')}")
    return sorted(lines)


def main():
    library, path = sys.argv[1:3]
    lines = symbols(library)
    with_types = shutil.which("abidw") is not None
    if with_types:
        lines += signatures(library)
    if "--update" in sys.argv:
        with open(path, "w", encoding="ascii") as file:
            file.writelines(line + "\n" for line in lines)
        return 0
    with open(path, encoding="ascii") as file:
        expected = [line for line in file.read().splitlines()
                    if with_types or line.startswith("symbol ")]
    changes = list(difflib.unified_diff(expected, lines, path, library,
                                        lineterm="", n=0))
    print("\n".join(changes) if changes else
          f"the ABI is as listed: {len(lines)} lines"
          + ("" if with_types else ", symbols alone"))
    return 1 if changes else 0


sys.exit(main())
