#!/usr/bin/python3
"""Checks that every C++, CMake and schema block of docs/guide.md is a copy
of the file (or the region of it) named by the `<!-- snippet: PATH[#NAME] -->`
line above it. A region of a file runs from a line `// guide: NAME` to the
next `// end`, and is compared dedented. The examples themselves are built
and run by the package test, so a block that passes here compiles.

  check_guide.py <repository root>
"""
import re
import sys
import textwrap

CHECKED = {"cpp", "cmake", "cog"}


def region(root, ref):
    path, _, name = ref.partition("#")
    with open("%s/%s" % (root, path), encoding="utf-8") as f:
        text = f.read()
    if not name:
        return text.rstrip("\n")
    m = re.search(r"^[ \t]*// guide: %s\n(.*?)^[ \t]*// end\n" % re.escape(name), text,
                  re.S | re.M)
    if m is None:
        raise LookupError("%s has no region %s" % (path, name))
    return textwrap.dedent(m.group(1)).rstrip("\n")


def main(root):
    with open("%s/docs/guide.md" % root, encoding="utf-8") as f:
        lines = f.read().split("\n")
    errors = []
    checked = 0
    i = 0
    while i < len(lines):
        m = re.match(r"^```(\w*)$", lines[i])
        if not m:
            i += 1
            continue
        lang = m.group(1)
        end = lines.index("```", i + 1)
        block = "\n".join(lines[i + 1:end])
        marker = re.match(r"^<!-- snippet: (\S+) -->$", lines[i - 1]) if i > 0 else None
        if lang in CHECKED:
            if marker is None:
                errors.append("guide.md:%d: a %s block without a snippet line" % (i + 1, lang))
            else:
                try:
                    if region(root, marker.group(1)) != block:
                        errors.append("guide.md:%d: differs from %s" % (i + 1, marker.group(1)))
                    checked += 1
                except (OSError, LookupError) as e:
                    errors.append("guide.md:%d: %s" % (i + 1, e))
        i = end + 1
    for e in errors:
        print(e)
    print("%d snippets match their sources" % checked)
    return 1 if errors or checked == 0 else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
