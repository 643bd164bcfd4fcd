#!/usr/bin/env python3
"""layers.py: compares the includes of the sources with docs/layers.txt. Prints what is wrong; silent when nothing is."""

import os
import re
import sys

INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.M)
ENDS = (".h", ".cpp", ".hpp", ".c")


def read_layers(path):
    folders, libraries = {}, {}
    with open(path) as file:
        for line in file:
            line = line.split("#")[0].strip()
            if line:
                name, _, rest = line.partition(":")
                (libraries if name.startswith("<") else folders)[name.strip()] = rest.split()
    return folders, libraries


def sources(folders):
    tops = sorted({name.split("/")[0] for name in folders if os.path.isdir(name)})
    for top in tops:
        for folder, _, names in os.walk(top):
            for name in names:
                if name.endswith(ENDS):
                    yield os.path.join(folder, name)


def layer_of(path, folders):
    """The longest folder with a line that the path lies in; None: it has none."""
    fitting = [name for name in folders if path.startswith(name + "/")]
    return max(fitting, key=len) if fitting else None


def resolve(source, name):
    """The file that an include in quotes means; None when it is not one of ours."""
    for root in [os.path.dirname(source), "src", "include", "tools", "platform", "bench", "tests", "."]:
        path = os.path.normpath(os.path.join(root, name))
        if os.path.isfile(path):
            return path
    return None


def circles(edges):
    """The circles that a walk through a graph meets, each as a path that begins and ends with its first name."""
    found, done = [], set()

    def walk(node, way):
        if node in way:
            circle = way[way.index(node):]
            first = circle.index(min(circle))
            found.append(circle[first:] + circle[:first + 1])
            return
        if node in done:
            return
        for other in sorted(edges.get(node, ())):
            walk(other, way + [node])
        done.add(node)

    for node in sorted(edges):
        walk(node, [])
    return found


def main():
    folders, libraries = read_layers("docs/layers.txt")
    trouble, files, between, included = [], {}, {}, set()
    for source in sources(folders):
        layer = layer_of(source, folders)
        with open(source, encoding="utf-8") as file:
            text = file.read()
        if layer is None:
            trouble.append("%s: its folder has no line in docs/layers.txt" % source)
            continue
        for kind, name in INCLUDE.findall(text):
            for prefix, users in libraries.items():
                if name.startswith(prefix[1:]) and kind == "<" and layer not in users:
                    trouble.append("%s: %s may not include <%s>" % (source, layer, name))
            path = resolve(source, name) if kind == '"' else None
            if path is None:
                continue
            included.add(path)
            files.setdefault(source, set()).add(path)
            other = layer_of(path, folders) or os.path.dirname(path)
            if other != layer:
                between.setdefault(layer, set()).add(other)
                if other not in folders[layer]:
                    trouble.append("%s: %s may not include %s, which is of %s" % (source, layer, name, other))
    for way in circles(files) + circles(between):
        trouble.append("a circle of includes: " + " > ".join(way))
    for source in sources(folders):
        if source.startswith("src/") and source.endswith(".h") and source not in included:
            trouble.append("%s: nobody includes it" % source)
    for line in sorted(trouble):
        print(line)
    sys.exit(1 if trouble else 0)


main()
