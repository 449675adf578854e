#!/usr/bin/python3
"""cogc: compiles one schema unit (schema/<Unit>.cog) into <out>/<Unit>.h and
<out>/<Unit>.cpp.

  cogc.py schema/FecBasicTypes.cog -o build/generated [--depfile F] [-I dir]
          [--headers dir]
  cogc.py schema/FecBasicTypes.cog --dump-model

Errors are printed as `file:line: error: message`, all of them; on any error
nothing is written and the exit status is 1.
"""

import argparse
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from cogclib.diag import Diagnostics  # noqa: E402
from cogclib.model import Model  # noqa: E402


def main(argv=None):
    ap = argparse.ArgumentParser(prog="cogc", description=__doc__.splitlines()[0])
    ap.add_argument("schema")
    ap.add_argument("-o", "--output", help="directory for <Unit>.h and <Unit>.cpp")
    ap.add_argument("-I", dest="include", action="append", default=[],
                    help="also look for imported units here")
    ap.add_argument("--headers", action="append", default=[],
                    help="look for external types' headers under this include root "
                         "(default: <root>/platform and <root>/src-includes)")
    ap.add_argument("--depfile", help="write a make-style depfile for the outputs")
    ap.add_argument("--dump-model", action="store_true", help="print the resolved model")
    ap.add_argument("--root", default=None,
                    help="paths in messages and stamps are relative to this directory")
    args = ap.parse_args(argv)

    diags = Diagnostics()
    root = args.root or os.getcwd()
    # the include roots of the build: external types' headers are found there
    header_roots = args.headers or [os.path.join(root, "platform"),
                                    os.path.join(root, "src-includes")]
    model = Model(diags, args.include, header_roots)
    display = os.path.relpath(os.path.abspath(args.schema), root)
    unit = model.load(args.schema, display)
    if unit is not None:
        model.resolve()
    if diags:
        for line in diags.render():
            print(line, file=sys.stderr)
        print("cogc: %d error%s, nothing written" % (len(diags.errors),
              "" if len(diags.errors) == 1 else "s"), file=sys.stderr)
        return 1
    if args.dump_model:
        sys.stdout.write(model.dump(unit))
    if args.output:
        from cogclib.emit import Emitter
        emitter = Emitter(model, unit, root)
        files = emitter.render()
        os.makedirs(args.output, exist_ok=True)
        outputs = []
        for name, text in files.items():
            path = os.path.join(args.output, name)
            outputs.append(path)
            old = None
            if os.path.exists(path):
                with open(path, encoding="utf-8") as f:
                    old = f.read()
            # An unchanged output keeps its timestamp: the build (which
            # re-stats cogc's outputs) then recompiles nothing that includes it.
            if old != text:
                with open(path, "w", encoding="utf-8") as f:
                    f.write(text)
        if args.depfile:
            deps = [os.path.abspath(p) for p in model.files] + emitter.inputs()
            with open(args.depfile, "w", encoding="utf-8") as f:
                f.write("%s: %s\n" % (" ".join(o.replace(" ", "\\ ") for o in outputs),
                                      " \\\n  ".join(d.replace(" ", "\\ ") for d in deps)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
