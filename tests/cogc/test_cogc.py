"""Tests of the schema compiler: diagnostics (every error, file:line, no
output on error), the resolved model's indexes and checks, the depfile."""

import os
import subprocess
import sys
import tempfile
import textwrap
import unittest

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
COGC = os.environ.get("COGC", os.path.join(ROOT, "tools", "cogc", "cogc.py"))


class Compiler(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()
        self.addCleanup(self.dir.cleanup)

    def write(self, name, text):
        path = os.path.join(self.dir.name, name)
        with open(path, "w") as f:
            f.write(textwrap.dedent(text))
        return path

    def run_cogc(self, path, *args):
        return subprocess.run([sys.executable, COGC, path, "--root", self.dir.name] + list(args),
                              capture_output=True, text=True)

    def errors(self, text, name="Bad.cog"):
        path = self.write(name, text)
        out = os.path.join(self.dir.name, "out")
        r = self.run_cogc(path, "-o", out)
        self.assertEqual(r.returncode, 1, r.stderr)
        self.assertFalse(os.path.exists(out), "no output on error")
        return [l for l in r.stderr.splitlines() if ": error: " in l]

    def model(self, text, name="Good.cog"):
        path = self.write(name, text)
        r = self.run_cogc(path, "--dump-model")
        self.assertEqual(r.returncode, 0, r.stderr)
        return r.stdout

    def test_reports_every_error_with_file_and_line(self):
        errs = self.errors("""\
            namespace A {
              enum E: u8 { a = 0, b = 0, c = 300 }
              value V {
                x: u8 = 256;
                y: Nope;
                x: u16;
                z: u32 in [lo, 5];
              }
              entity N(name: Name) : V { }
              value W { w: u32 = }
            }
            """)
        self.assertEqual(errs, [
            "Bad.cog:2: error: enumerators a and b have the same value 0",
            "Bad.cog:2: error: enumerator c = 300 does not fit in u8",
            "Bad.cog:4: error: 256 does not fit in u8 (attribute x)",
            "Bad.cog:5: error: unknown type Nope",
            "Bad.cog:6: error: x is already declared in V at Bad.cog:4",
            "Bad.cog:7: error: unknown constant lo in the bounds of z",
            "Bad.cog:9: error: N derives from A::V, which is not an entity",
            "Bad.cog:10: error: expected an expression, found '}'",
        ])

    def test_syntax_errors_recover(self):
        errs = self.errors("""\
            namespace A {
              value V { x u8; y: u8; }
              value V2 { z: ; }
              entity E { q: map<u8>; }
            }
            """)
        self.assertEqual(errs, [
            "Bad.cog:2: error: expected ':', found 'u8'",
            "Bad.cog:3: error: expected a type, found ';'",
            "Bad.cog:4: error: map takes 2 type arguments, not 1",
        ])

    def test_value_indexes_stored_then_constants_then_functions(self):
        m = self.model("""\
            namespace A {
              value T {
                fn hash;
                const k: u16 = 7;
                v: u16 in [1, k];
                fn f(a: u8) -> T const;
              }
            }
            """)
        self.assertIn("    2 attr v: U16 in [1, T::k]\n"
                      "    3 const k: U16 = 7\n"
                      "    4 hash hash: U32\n"
                      "    5 func f(a: U8) -> A::T const\n", m)

    def test_entity_blocks_per_inheritance_level(self):
        m = self.model("""\
            namespace A {
              entity B(name: Name) { x: u8; c: ordered<u32, bool>; }
              entity D : B { y: bool = true; }
              entity E : D { z: String; }
            }
            """)
        self.assertIn("  entity A::B\n    258 attr x: U8\n    259 collection c: ordered<U32, bool>\n", m)
        self.assertIn("  entity A::D : A::B\n    386 attr y: bool = true\n", m)
        self.assertIn("  entity A::E : A::D\n    514 attr z: Cog::String\n", m)

    def test_fourth_level_and_bad_links_are_refused(self):
        errs = self.errors("""\
            namespace A {
              entity B(name: Name) { }
              entity C : B { }
              entity D : C { }
              entity E : D { }
              value V { n: B; }
              reactor R { input i: V; output o: B; }
            }
            """)
        self.assertEqual(errs, [
            "Bad.cog:5: error: E is 4 levels deep; at most 3 levels of inheritance have "
            "attribute-id blocks",
            "Bad.cog:6: error: attribute n holds the entity A::B; use owned, input or output for "
            "entity pointers",
            "Bad.cog:7: error: input i must point at an entity, not A::V",
        ])

    def test_bound_texts(self):
        m = self.model("""\
            namespace A {
              value Status {
                len: u32 = 1 in [1, (1 << 20)];
                t: s32 in [-1, 100];
              }
            }
            """, name="Routing.cog")
        self.assertIn("len: U32 = 1 in [1, Expr @Routing.cog:3]", m)
        self.assertIn("t: S32 in [-1, 100]", m)

    def test_imports_and_depfile(self):
        self.write("Base.cog", """\
            namespace A { enum E { x, y } }
            """)
        top = self.write("Top.cog", """\
            import Base;
            namespace A::B { value V { e: E = y; } }
            """)
        out = os.path.join(self.dir.name, "gen")
        dep = os.path.join(self.dir.name, "Top.d")
        r = self.run_cogc(top, "-o", out, "--depfile", dep)
        self.assertEqual(r.returncode, 0, r.stderr)
        with open(os.path.join(out, "Top.h")) as f:
            header = f.read()
        self.assertIn("// generated by cogc from Top.cog; do not edit", header)
        self.assertIn("#include <Base.h>", header)
        with open(dep) as f:
            deps = f.read()
        self.assertIn(os.path.join(self.dir.name, "Base.cog"), deps)
        self.assertIn("value.h.j2", deps)

    def test_memtab_and_cpp_members(self):
        m = self.model("""\
            namespace A {
              value K { v: u32; }
              value E { key: K; cpp "std::size_t serializeLen() const;"; }
              entity T(name: Name) { t: memtab<E>; n: u8; }
            }
            """)
        self.assertIn("  entity A::T\n    258 memtab t: memtab<A::E>\n    259 attr n: U8\n", m)
        errs = self.errors("""\
            namespace A {
              value E { x: u8; }
              value V { t: memtab<E>; }
              entity T(name: Name) { t: memtab<u8>; }
            }
            """)
        self.assertEqual(errs, [
            "Bad.cog:3: error: a shared-memory table belongs to an entity, not to value type V",
            "Bad.cog:4: error: a shared-memory table holds value types, not U8",
        ])

    def test_missing_import(self):
        errs = self.errors("import Nowhere;\nnamespace A { value V { x: u8; } }\n")
        self.assertEqual(errs, ["Bad.cog:1: error: cannot find schema unit Nowhere "
                                "(looked for Nowhere.cog)"])


if __name__ == "__main__":
    unittest.main()
