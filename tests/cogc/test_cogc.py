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

    def test_made_outputs_are_no_constructor_arguments(self):
        m = self.model("""\
            namespace A {
              entity S(name: Name) { n: u32; }
              entity L { n: u32; }
              reactor R { input i: S reacts n; output o: L; output p: S made "Previous"; }
            }
            """)
        self.assertIn("    260 output p: A::S made 'Previous'\n", m)
        out = os.path.join(self.dir.name, "gen")
        r = self.run_cogc(os.path.join(self.dir.name, "Good.cog"), "-o", out)
        self.assertEqual(r.returncode, 0, r.stderr)
        with open(os.path.join(out, "Good.cpp")) as f:
            cpp = f.read()
        self.assertIn("R::R(const Cog::Ptr<const A::S>& i, const Cog::Ptr<A::L>& o) {", cpp)
        self.assertIn('  pIs(A::sFactory(Cog::Name("Previous")));\n  initializedIs(true);', cpp)
        self.assertIn(" takes 2 constructor arguments", cpp)
        errs = self.errors("""\
            namespace A {
              entity L { n: u32; }
              reactor R { output o: L made "x"; }
              reactor Q {
                output q: L made 3;
              }
            }
            """)
        self.assertEqual(errs, [
            "Bad.cog:3: error: a made output is created by name; A::L is not constructed from "
            "(name: Name)",
            "Bad.cog:5: error: expected the name of the made output, found '3'",
        ])

    def test_a_reactor_on_a_table_is_handed_the_key(self):
        self.write("Good.cog", """\
            namespace A {
              value K { k: u32; }
              value E { key: K; w: u32; }
              entity S(name: Name) { e: memtab<E>; }
              reactor R { input s: S reacts e; }
            }
            """)
        out = os.path.join(self.dir.name, "gen")
        r = self.run_cogc(os.path.join(self.dir.name, "Good.cog"), "-o", out)
        self.assertEqual(r.returncode, 0, r.stderr)
        with open(os.path.join(out, "Good.cpp")) as f:
            cpp = f.read()
        self.assertIn("void R::CogS::onE(const Memtab::KeyOf<A::E>& key) {", cpp)
        self.assertIn("  owner_->handleE(key);\n", cpp)
        # The initial sweep visits every key of the table.
        self.assertIn("for (const auto& value : s_->e()) handleE(Memtab::ValueTraits<A::E>::key(value));", cpp)

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

    def test_values_holding_an_extern_with_a_collection_have_no_text_parser(self):
        self.header("X/Key.h", "class Key { static constexpr bool cogHasCollection = true; };\n")
        self.header("X/Plain.h", "class Plain {};\n")
        src = """\
            extern value X::Key header "X/Key.h";
            extern value X::Plain header "X/Plain.h";
            namespace A {
              value E { code: u32; key: X::Key; }
              value P { code: u32; p: X::Plain; }
            }
            """
        path = self.write("Ext.cog", src)
        out = os.path.join(self.dir.name, "gen")
        r = self.run_cogc(path, "-o", out, "-I", self.dir.name)
        self.assertEqual(r.returncode, 0, r.stderr)
        with open(os.path.join(out, "Ext.cpp")) as f:
            cpp = f.read()
        self.assertNotIn("ValueGlue<E>::fromStrRep", cpp)
        self.assertIn("ValueGlue<P>::fromStrRep", cpp)

    def test_reacting_to_a_memtab_with_named_handlers(self):
        src = """\
            namespace A {
              value K { v: u32; }
              value E { key: K; cpp "std::size_t serializeLen() const;"; }
              entity T(name: Name) { t: memtab<E>; u: memtab<E>; n: u8; }
              entity O(name: Name) { }
              reactor R {
                input i: T reacts t -> handleRoute, u, n;
                output o: O;
                fn handleRoute(key: K);
              }
            }
            """
        m = self.model(src)
        self.assertIn("input i: A::T reacts t -> handleRoute, u, n", m)
        path = self.write("Gen.cog", src)
        out = os.path.join(self.dir.name, "gen")
        r = self.run_cogc(path, "-o", out)
        self.assertEqual(r.returncode, 0, r.stderr)
        with open(os.path.join(out, "Gen.h")) as f:
            h = f.read()
        with open(os.path.join(out, "Gen.cpp")) as f:
            cpp = f.read()
        # The named handler is the declared function; the others are implicit.
        self.assertIn("void handleU(const Memtab::KeyOf<A::E>& key);", h)
        self.assertIn("void handleN();", h)
        self.assertNotIn("handleT", h + cpp)
        # The nested notifiee forwards the key and keeps onT() visible.
        self.assertIn("using A::T::NotifieeConst::onT;", h)
        self.assertIn("owner_->handleRoute(key);", cpp)
        self.assertIn("owner_->handleU(key);", cpp)
        self.assertIn("owner_->handleN();", cpp)
        errs = self.errors("""\
            namespace A {
              entity T(name: Name) { n: u8; }
              reactor R { input i: T reacts n -> ; }
            }
            """)
        self.assertEqual(len(errs), 1)
        self.assertIn("Bad.cog:3:", errs[0])

    def header(self, path, text):
        full = os.path.join(self.dir.name, "platform", path)
        os.makedirs(os.path.dirname(full), exist_ok=True)
        with open(full, "w") as f:
            f.write(text)

    def test_extern_enum_as_attribute_key_and_element(self):
        self.header("Net/Mode.h", "namespace Net { enum class Mode : unsigned { a, b }; }\n")
        m = self.model("""\
            extern enum Net::Mode header "Net/Mode.h";
            namespace A {
              value V { mode: Net::Mode; modes: set<Net::Mode>; }
              entity E(mode: Net::Mode) { byMode: ordered<Net::Mode, V>; m: map<u32, Net::Mode>; }
            }
            """)
        self.assertIn("  extern enum Net::Mode header Net/Mode.h\n", m)
        self.assertIn("    2 attr mode: Net::Mode\n    3 collection modes: set<Net::Mode>\n", m)
        self.assertIn("    258 param mode: Net::Mode\n"
                      "    259 collection byMode: ordered<Net::Mode, A::V>\n"
                      "    260 collection m: map<U32, Net::Mode>\n", m)

    def test_extern_diagnostics(self):
        self.header("Net/Mode.h", "namespace Net { enum class Mode : unsigned { a, b }; }\n")
        self.header("Net/Other.h", "namespace Net { class Other {}; }\n")
        errs = self.errors("""\
            namespace A { value Early { m: Net::Mode; } }
            extern enum Net::Mode header "Net/Mode.h";
            extern enum Net::Missing header "Net/Missing.h";
            extern enum Net::Other header "Net/Other.h";
            extern value Net::Gone header "Net/Gone.h";
            extern struct Net::S header "Net/S.h";
            namespace A {
              const c: Net::Mode = a;
              enum Mode { x }
              value V {
                m: Net::Mode = a;
                n: Net::Mode in [0, 1];
                const k: Net::Mode = b;
              }
              entity T(name: Name) { t: memtab<Net::Mode>; }
            }
            """)
        self.assertEqual(errs, [
            "Bad.cog:1: error: Net::Mode is used before its extern declaration at Bad.cog:2",
            "Bad.cog:3: error: header Net/Missing.h of extern enum Net::Missing is not found "
            "under platform/ or src-includes/",
            "Bad.cog:4: error: header Net/Other.h declares no enumeration Other",
            "Bad.cog:5: error: header Net/Gone.h of extern value Net::Gone is not found under "
            "platform/ or src-includes/",
            "Bad.cog:6: error: expected 'value' or 'enum' after extern, found 'struct'",
            "Bad.cog:8: error: constant c: the enumerators of extern enum Net::Mode are not "
            "known here",
            "Bad.cog:11: error: attribute m of extern enum Net::Mode takes the enumeration's "
            "default value; its enumerators are not known here",
            "Bad.cog:12: error: bounds apply to numbers, not to Net::Mode",
            "Bad.cog:13: error: constant k: the enumerators of extern enum Net::Mode are not "
            "known here",
            "Bad.cog:15: error: a shared-memory table holds value types, not Net::Mode",
        ])

    def test_constants_of_value_types(self):
        m = self.model("""\
            namespace A {
              value K { prefix: u32; const metric: Metric = 0; const top: Metric = 0xFF; }
              value Metric { value: u32; }
              entity E(name: Name) { const none: Metric = 7; }
            }
            """)
        self.assertIn("    3 const metric: A::Metric = 0\n    4 const top: A::Metric = 0xFF\n", m)
        self.assertIn("    258 const none: A::Metric = 7\n", m)
        errs = self.errors("""\
            namespace A {
              value Pair { a: u8; b: u8; }
              value Small { v: u8; }
              value Ranged { v: u8 in [1, 9]; }
              value Text { s: String; }
              value Self { v: u8; const me: Self = 1; }
              value K {
                const p: Pair = 1;
                const s: Small = 256;
                const r: Ranged = 1;
                const t: Text = "x";
              }
            }
            """)
        self.assertEqual(errs, [
            "Bad.cog:6: error: constant me cannot be of its own type Self",
            "Bad.cog:8: error: constant p: value type A::Pair is not made from one literal "
            "(it needs a single unbounded number or bool attribute)",
            "Bad.cog:9: error: 256 does not fit in u8 (constant s)",
            "Bad.cog:10: error: constant r: value type A::Ranged is not made from one literal "
            "(it needs a single unbounded number or bool attribute)",
            "Bad.cog:11: error: constant t: value type A::Text is not made from one literal "
            "(it needs a single unbounded number or bool attribute)",
        ])

    def test_keyed_by(self):
        m = self.model("""\
            namespace A {
              value S { mode: u8; n: u32; }
              entity T(name: Name) { byMode: ordered<u8, S> keyedBy mode resync; }
            }
            """)
        self.assertIn("    258 collection byMode: ordered<U8, A::S> keyedBy mode resync\n", m)
        errs = self.errors("""\
            namespace A {
              value S { mode: u8; n: u32; }
              entity T(name: Name) {
                a: map<u8, S> keyedBy nope;
                b: map<u32, S> keyedBy mode;
                c: set<u8> keyedBy mode;
                d: u8 keyedBy mode;
              }
              value V { e: map<u8, S> keyedBy mode; }
            }
            """)
        self.assertEqual(errs, [
            "Bad.cog:4: error: A::S has no attribute nope to key a",
            "Bad.cog:5: error: S::mode is a U8, not the key type U32 of b",
            "Bad.cog:6: error: keyedBy applies to entity maps of value types, not to c",
            "Bad.cog:7: error: keyedBy applies to entity maps of value types, not to d",
            "Bad.cog:9: error: keyedBy applies to entity maps of value types, not to e",
        ])

    def emitted(self, text, name="Good.cog"):
        path = self.write(name, text)
        out = os.path.join(self.dir.name, "out")
        r = self.run_cogc(path, "-o", out)
        self.assertEqual(r.returncode, 0, r.stderr)
        unit = os.path.splitext(name)[0]
        with open(os.path.join(out, unit + ".h")) as h, open(os.path.join(out, unit + ".cpp")) as c:
            return h.read(), c.read()

    def test_collection_deletion_and_entry_types(self):
        h, c = self.emitted("""\
            namespace A {
              value V { n: u32; }
              entity T(name: Name) {
                byId: map<u32, V>;
                sorted: ordered<u32, u16>;
                tags: set<V>;
                list: array<u8>;
              }
            }
            """)
        # A value map's deletion hands back what it removed.
        self.assertIn("  A::V byIdDel(std::uint32_t key);\n", h)
        self.assertIn("  std::uint16_t sortedDel(std::uint32_t key);\n", h)
        self.assertIn("  void tagsDel(const A::V& key);\n", h)
        self.assertIn("  void listDel(std::uint64_t key);\n", h)
        self.assertIn("if (present == nullptr) return A::V();", c)
        # Every collection names its entry type after itself.
        self.assertIn("  using CogTags = Cog::HashSet2018<A::V>::value_type;\n", h)
        self.assertIn("  using CogById = Cog::HashMap2018<std::uint32_t, A::V>::value_type;\n", h)
        # Deleting all goes key by key through the single deletion.
        self.assertIn("Cog::Glue::keysOf<std::uint32_t>(*byId_)) byIdDel(key);", c)
        self.assertIn("Cog::Glue::keysOf<A::V>(*tags_)) tagsDel(key);", c)

    def test_missing_import(self):
        errs = self.errors("import Nowhere;\nnamespace A { value V { x: u8; } }\n")
        self.assertEqual(errs, ["Bad.cog:1: error: cannot find schema unit Nowhere "
                                "(looked for Nowhere.cog)"])


if __name__ == "__main__":
    unittest.main()
