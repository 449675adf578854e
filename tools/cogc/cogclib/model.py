"""The resolved model: every name bound to its declaration, every default
and bound checked, every member given its stable reflection index and (for
stored attributes) its attribute-log id. The emitter reads only this.

Indexes:
  - value types number their members from 2: stored attributes first, then
    class constants, then functions, each group in schema order;
  - entities (and holders and reactors) number each inheritance level's own
    members in a block of their own: 258, then 386, then 514, with
    constructor parameters first, then stored attributes, constants,
    functions. Ids below 258 belong to the framework's entity base. The
    member's attribute-log id is its index.
"""

import os
import re

from . import syntax as S
from .diag import Position
from .parser import parse_file

VALUE_FIRST_INDEX = 2
ENTITY_BLOCKS = (258, 386, 514)
BLOCK_SIZE = 128

# schema name -> (C++ type, framework type name, bits, signed, kind)
BUILTINS = {
    "u8": ("std::uint8_t", "U8", 8, False, "int"),
    "u16": ("std::uint16_t", "U16", 16, False, "int"),
    "u32": ("std::uint32_t", "U32", 32, False, "int"),
    "u64": ("std::uint64_t", "U64", 64, False, "int"),
    "s8": ("std::int8_t", "S8", 8, True, "int"),
    "s16": ("std::int16_t", "S16", 16, True, "int"),
    "s32": ("std::int32_t", "S32", 32, True, "int"),
    "s64": ("std::int64_t", "S64", 64, True, "int"),
    "bool": ("bool", "bool", 8, False, "bool"),
    "float": ("float", "float", 32, True, "float"),
    "double": ("double", "double", 64, True, "float"),
    "String": ("Cog::String", "Cog::String", 0, False, "string"),
    "Name": ("Cog::Name", "Cog::Name", 0, False, "string"),
}

COLLECTIONS = {
    # schema name -> (number of type arguments, C++ container, ordered, is set)
    "map": (2, "Cog::HashMap2018", False, False),
    "ordered": (2, "Cog::RbTreeMap", True, False),
    "set": (1, "Cog::HashSet2018", False, True),
    "array": (1, "Cog::DynArray", True, False),
    # shared-memory keyed table of values that carry their own key
    "memtab": (1, "Memtab::Table", False, False),
}


class Type:
    kind = "?"
    full_name = ""
    cpp = ""

    @property
    def glue(self):
        """Prefix of the type's reflection glue: _cog_<namespace>_<Type>."""
        return "_cog_" + self.full_name.replace("::", "_")

    def is_valueish(self):
        """Storable by value: builtin, enumeration, value type, external."""
        return self.kind in ("builtin", "enum", "value", "extern", "extern_enum")

    def is_enumish(self):
        """An enumeration, declared here or outside (extern enum)."""
        return self.kind in ("enum", "extern_enum")

    def is_entityish(self):
        return self.kind in ("entity", "holder", "reactor")


class Builtin(Type):
    kind = "builtin"

    def __init__(self, name):
        self.name = name
        self.cpp, self.full_name, self.bits, self.signed, self.family = BUILTINS[name]

    def int_range(self):
        if self.family == "bool":
            return (0, 1)
        if self.signed:
            return (-(1 << (self.bits - 1)), (1 << (self.bits - 1)) - 1)
        return (0, (1 << self.bits) - 1)


class Extern(Type):
    """An external value type: a hand-written class with the value-type
    frame, whose type record the generated header defines."""
    kind = "extern"
    keyword = "value"

    def __init__(self, decl, unit):
        self.decl = decl
        self.full_name = decl.name
        self.cpp = decl.name
        self.header = decl.header
        self.unit = unit
        self.name = decl.name.split("::")[-1]
        self.pos = decl.pos
        # The header says `cogHasCollection`: the type holds a collection and
        # has no text form to parse, nor have the values that hold it.
        self.has_collection = False


class ExternEnum(Extern):
    """An external enumeration: a C++ enum whose header gives it the
    framework's enumeration frame (cogEnumType(E), EnumTraits) and registers
    its Cog::EnumType. Generated code treats it as an enumeration (passed by
    value, 32-bit in attribute logs, hashed and ordered by value); its
    enumerators are the header's, unknown here, so it has no defaults or
    constants of its own."""
    kind = "extern_enum"
    keyword = "enum"


class Enumerator:
    def __init__(self, name, value, pos):
        self.name = name
        self.value = value
        self.pos = pos


class Enum(Type):
    kind = "enum"

    def __init__(self, decl, unit):
        self.decl = decl
        self.unit = unit
        self.name = decl.name
        self.namespace = decl.namespace
        self.full_name = decl.namespace + "::" + decl.name
        self.cpp = self.full_name
        self.pos = decl.pos
        self.storage = None
        self.enumerators = []


class Member:
    """One member of a value type, entity, holder or reactor."""

    def __init__(self, kind, name, pos):
        self.kind = kind  # 'param', 'attr', 'collection', 'owned', 'input', 'output', 'const', 'func', 'hash'
        self.name = name
        self.pos = pos
        self.index = None
        self.type = None  # attribute type, function result (None: void)
        self.key = None  # collections: key type
        self.collection = None  # collections: 'map', 'ordered', 'set', 'array'
        self.default = None  # Value or None
        self.bounds = None  # Bounds or None
        self.flags = []
        self.params = []  # functions: list of (name, Type)
        self.is_const = False
        self.is_static = False
        self.reacts = []  # inputs: list of Member of the input's type
        self.made = None  # outputs the reactor makes itself: the name it gives them
        self.react_handlers = {}  # inputs: reacted name -> handler named with `->`
        self.keyed_by = None  # collections of values that carry their key: that attribute
        self.owner = None

    @property
    def cap(self):
        return self.name[0].upper() + self.name[1:]

    def is_stored(self):
        return self.kind in ("param", "attr", "collection", "owned", "input", "output", "memtab")


class Value:
    """A resolved literal or constant: `cpp` is its C++ spelling."""

    def __init__(self, cpp, text, python=None):
        self.cpp = cpp
        self.text = text  # as the schema names it (used in error texts)
        self.python = python


class Bounds:
    def __init__(self, lo, hi, message):
        self.lo = lo
        self.hi = hi
        self.message = message


class Record(Type):
    """A value type, entity, holder or reactor."""

    def __init__(self, decl, unit):
        self.decl = decl
        self.unit = unit
        self.kind = decl.kind
        self.name = decl.name
        self.namespace = decl.namespace
        self.full_name = decl.namespace + "::" + decl.name
        self.cpp = self.full_name
        self.pos = decl.pos
        self.base = None
        self.level = 0
        self.members = []  # own members in index order
        self.custom_hash = False
        self.custom_handle_initialized = False
        self.cpp_decls = []  # hand-written C++ member declarations, as written
        self.impl = decl.impl  # (hand-written derived class, its header) or None
        self.name_member = None  # the `name: Name` parameter: the framework entity's name
        self.params = []  # the other constructor parameters (resolved before any member)
        self.resolved = False

    def all_members(self):
        chain = []
        t = self
        while t is not None:
            chain.append(t)
            t = t.base
        out = []
        for t in reversed(chain):
            out.extend(t.members)
        return out

    def own(self, *kinds):
        return [m for m in self.members if m.kind in kinds]

    def stored(self):
        return [m for m in self.members if m.is_stored()]

    def is_literal(self):
        """A value type whose field constructor can be constexpr (so that
        class constants of the type can be spelled): every attribute a
        number, bool, enumeration or such a value type, none bounded."""
        if self.kind != "value":
            return False
        for m in self.stored():
            if m.kind != "attr" or m.bounds is not None:
                return False
            t = m.type
            if isinstance(t, Builtin):
                if t.family == "string":
                    return False
            elif isinstance(t, Record):
                if not t.is_literal():
                    return False
            elif not t.is_enumish():
                return False
        return True

    def has_collection(self):
        return any(m.kind == "collection" for m in self.all_members())

    def name_param(self):
        """The `name: Name` constructor parameter of a named entity."""
        return self.root().name_member

    def root(self):
        t = self
        while t.base is not None:
            t = t.base
        return t

    def ctor_params(self):
        """Constructor parameters, from the root's (a derived entity takes
        its root's)."""
        root = self.root()
        return ([root.name_member] if root.name_member is not None else []) + root.params


class NamespaceConstant:
    def __init__(self, decl, unit):
        self.decl = decl
        self.unit = unit
        self.name = decl.name
        self.namespace = decl.namespace
        self.type = None
        self.value = None
        self.pos = decl.pos


class Unit:
    def __init__(self, syntax_file, display):
        self.syntax = syntax_file
        self.name = syntax_file.unit
        self.path = syntax_file.path
        self.display = display
        self.imports = []
        self.externs = []
        self.enums = []
        self.records = []
        self.constants = []
        self.includes = list(syntax_file.includes)

    def types(self):
        return self.enums + self.records

    def namespaces(self):
        """Declarations grouped by namespace, in order of first appearance."""
        groups = []
        index = {}
        for d in self.decls_in_order:
            ns = d.namespace
            if ns not in index:
                index[ns] = len(groups)
                groups.append((ns, []))
            groups[index[ns]][1].append(d)
        return groups


class Model:
    def __init__(self, diags, search_path, header_roots=()):
        self.diags = diags
        self.search_path = search_path
        # where the headers of external types are looked for (include roots)
        self.header_roots = list(header_roots)
        self.units = {}  # name -> Unit
        self.symbols = {}  # full name -> Type or NamespaceConstant
        self.builtins = {n: Builtin(n) for n in BUILTINS}
        self.files = []  # every schema file read, for the depfile

    # ---------------------------------------------------------------- loading
    def load(self, path, display=None, pos=None):
        unit_name = os.path.splitext(os.path.basename(path))[0]
        if unit_name in self.units:
            return self.units[unit_name]
        if not os.path.exists(path):
            self.diags.error(pos or Position(path, 0), "cannot find schema unit %s" % unit_name)
            return None
        display = display or os.path.relpath(path)
        self.files.append(path)
        syn = parse_file(path, display, self.diags)
        unit = Unit(syn, display)
        self.units[unit_name] = unit
        for imp in syn.imports:
            found = self.find_unit(imp.unit, os.path.dirname(path))
            if found is None:
                self.diags.error(imp.pos, "cannot find schema unit %s (looked for %s.cog)"
                                 % (imp.unit, imp.unit))
                continue
            dep = self.load(found, pos=imp.pos)
            if dep is not None:
                unit.imports.append(dep)
        self.declare(unit)
        return unit

    def find_unit(self, name, here):
        for d in [here] + list(self.search_path):
            p = os.path.join(d, name + ".cog")
            if os.path.exists(p):
                return p
        return None

    def declare(self, unit):
        syn = unit.syntax
        unit.decls_in_order = []
        for e in syn.externs:
            t = (ExternEnum if e.kind == "enum" else Extern)(e, unit)
            self.check_extern_header(t)
            if self.add_symbol(e.name, t, e.pos):
                unit.externs.append(t)
        for d in syn.decls:
            if isinstance(d, S.EnumDecl):
                t = Enum(d, unit)
                if self.add_symbol(t.full_name, t, d.pos):
                    unit.enums.append(t)
                    unit.decls_in_order.append(t)
            elif isinstance(d, S.TypeDecl):
                t = Record(d, unit)
                if self.add_symbol(t.full_name, t, d.pos):
                    unit.records.append(t)
                    unit.decls_in_order.append(t)
            elif isinstance(d, S.NamespaceConst):
                c = NamespaceConstant(d, unit)
                if self.add_symbol(d.namespace + "::" + d.name, c, d.pos):
                    unit.constants.append(c)
                    unit.decls_in_order.append(c)

    def check_extern_header(self, t):
        if not self.header_roots:
            return
        pos = t.decl.header_pos or t.pos
        for root in self.header_roots:
            path = os.path.join(root, t.header)
            if os.path.isfile(path):
                break
        else:
            self.diags.error(pos, "header %s of extern %s %s is not found under %s"
                             % (t.header, t.keyword, t.full_name,
                                " or ".join(os.path.basename(r.rstrip("/")) + "/"
                                            for r in self.header_roots)))
            return
        with open(path, encoding="utf-8", errors="replace") as f:
            text = f.read()
        if not isinstance(t, ExternEnum):
            t.has_collection = re.search(r"\bcogHasCollection\b", text) is not None
        if isinstance(t, ExternEnum):
            if not re.search(r"\benum\s+(?:class\s+|struct\s+)?%s\b" % re.escape(t.name), text):
                self.diags.error(pos, "header %s declares no enumeration %s"
                                 % (t.header, t.name))

    def add_symbol(self, name, obj, pos):
        old = self.symbols.get(name)
        if old is not None:
            self.diags.error(pos, "%s is already declared at %s" % (name, old.pos))
            return False
        self.symbols[name] = obj
        return True

    # ---------------------------------------------------------------- lookup
    def lookup(self, name, namespace):
        """C++-like lookup: the enclosing namespaces from the innermost out,
        then the global namespace."""
        if name in self.builtins and "::" not in name:
            return self.builtins[name]
        parts = namespace.split("::") if namespace else []
        while True:
            full = "::".join(parts + [name])
            if full in self.symbols:
                return self.symbols[full]
            if not parts:
                return None
            parts.pop()

    def resolve_type(self, ref, namespace, allow_collection=False, context=""):
        if ref.name in COLLECTIONS:
            nargs = COLLECTIONS[ref.name][0]
            if not allow_collection:
                self.diags.error(ref.pos, "a %s is not allowed here%s" % (ref.name, context))
                return None
            if len(ref.args) != nargs:
                self.diags.error(ref.pos, "%s takes %d type argument%s, not %d"
                                 % (ref.name, nargs, "s" if nargs > 1 else "", len(ref.args)))
                return None
            args = [self.resolve_type(a, namespace) for a in ref.args]
            if any(a is None for a in args):
                return None
            return (ref.name, args)
        if ref.args:
            self.diags.error(ref.pos, "%s takes no type arguments" % ref.name)
            return None
        t = self.lookup(ref.name, namespace)
        if t is None:
            self.diags.error(ref.pos, "unknown type %s" % ref.name)
            return None
        if isinstance(t, NamespaceConstant):
            self.diags.error(ref.pos, "%s is a constant, not a type" % ref.name)
            return None
        if isinstance(t, Extern) and t.pos.file == ref.pos.file and \
                ref.pos.line < t.pos.line:
            self.diags.error(ref.pos, "%s is used before its extern declaration at %s"
                             % (t.full_name, t.pos))
            return None
        return t

    # ---------------------------------------------------------------- resolving
    def resolve(self):
        units = list(self.units.values())
        for u in units:
            for t in u.enums:
                self.resolve_enum(t)
        for u in units:
            for c in u.constants:
                self.resolve_namespace_constant(c)
        records = [r for u in units for r in u.records]
        for r in records:
            self.resolve_base(r)
        # Constructor parameters first: collections and owned members of
        # other entities check them.
        for r in records:
            self.resolve_params(r)
            level, t = 0, r.base
            while t is not None:
                level, t = level + 1, t.base
            r.level = level
        for r in sorted(records, key=lambda r: r.level):
            self.resolve_record(r)
        for r in records:
            self.resolve_reacts(r)

    def resolve_enum(self, t):
        d = t.decl
        storage = self.builtins["u32"]
        if d.storage is not None:
            s = self.resolve_type(d.storage, t.namespace)
            if s is not None and not (isinstance(s, Builtin) and s.name in ("u8", "u32")):
                self.diags.error(d.storage.pos, "an enumeration is stored in u8 or u32, not %s"
                                 % d.storage)
            elif s is not None:
                storage = s
        t.storage = storage
        if not d.enumerators:
            self.diags.error(d.pos, "enumeration %s has no enumerators" % t.name)
        nxt = 0
        names = {}
        values = {}
        lo, hi = storage.int_range()
        for e in d.enumerators:
            v = nxt
            if e.value is not None:
                v = self.int_literal(e.value)
                if v is None:
                    continue
            if e.name in names:
                self.diags.error(e.pos, "enumerator %s is already declared at %s"
                                 % (e.name, names[e.name].pos))
                continue
            if v in values:
                self.diags.error(e.pos, "enumerators %s and %s have the same value %d"
                                 % (values[v].name, e.name, v))
            if not lo <= v <= hi:
                self.diags.error(e.pos, "enumerator %s = %d does not fit in %s"
                                 % (e.name, v, storage.name))
            en = Enumerator(e.name, v, e.pos)
            names[e.name] = en
            values.setdefault(v, en)
            t.enumerators.append(en)
            nxt = v + 1

    def int_literal(self, expr):
        toks = expr.tokens
        neg = False
        if len(toks) == 2 and toks[0].text == "-":
            neg = True
            toks = toks[1:]
        if len(toks) == 1 and toks[0].kind == "int":
            v = int(toks[0].text, 0)
            return -v if neg else v
        self.diags.error(expr.pos, "expected an integer, found %s" % expr.text())
        return None

    def resolve_namespace_constant(self, c):
        t = self.resolve_type(c.decl.type, c.namespace)
        if t is None:
            return
        if isinstance(t, ExternEnum):
            self.diags.error(c.pos, "constant %s: the enumerators of extern enum %s are not "
                                    "known here" % (c.name, t.full_name))
            return
        if not (isinstance(t, Builtin) or isinstance(t, Enum)):
            self.diags.error(c.pos, "a namespace constant has a builtin or enumeration type")
            return
        c.type = t
        c.value = self.value_of(c.decl.value, t, c.namespace, None, "constant " + c.name)

    def resolve_base(self, r):
        d = r.decl
        if d.base is None:
            return
        if r.kind == "value":
            self.diags.error(d.base.pos, "a value type cannot derive from another type")
            return
        b = self.resolve_type(d.base, r.namespace)
        if b is None:
            return
        if not isinstance(b, Record) or not b.is_entityish():
            self.diags.error(d.base.pos, "%s derives from %s, which is not an entity"
                             % (r.name, b.full_name))
            return
        if b.kind != r.kind:
            self.diags.error(d.base.pos, "%s %s cannot derive from %s %s"
                             % (r.kind, r.name, b.kind, b.full_name))
            return
        # cycles
        seen = {r}
        t = b
        while t is not None:
            if t in seen:
                self.diags.error(d.base.pos, "%s derives from itself" % r.name)
                return
            seen.add(t)
            t = self.base_of(t)
        r.base = b
        if d.params is not None:
            self.diags.error(d.pos, "a derived entity takes its constructor parameters from %s"
                             % b.full_name)

    def base_of(self, r):
        if r.base is not None:
            return r.base
        d = r.decl
        if d.base is None:
            return None
        t = self.lookup(d.base.name, r.namespace)
        return t if isinstance(t, Record) else None

    def resolve_record(self, r):
        if r.resolved:
            return
        r.resolved = True
        level = 0
        t = r.base
        while t is not None:
            level += 1
            t = t.base
        r.level = level
        entityish = r.is_entityish()
        if entityish and level >= len(ENTITY_BLOCKS):
            self.diags.error(r.pos, "%s is %d levels deep; at most %d levels of inheritance "
                             "have attribute-id blocks" % (r.name, level + 1, len(ENTITY_BLOCKS)))
            level = len(ENTITY_BLOCKS) - 1
        inherited = {}
        t = r.base
        while t is not None:
            for m in t.members:
                inherited.setdefault(m.name, m)
            t = t.base
        names = {}
        params, stored, consts, funcs = [], [], [], []

        def add(m, group):
            if m.name in names:
                self.diags.error(m.pos, "%s is already declared in %s at %s"
                                 % (m.name, r.name, names[m.name].pos))
                return
            if m.name in inherited:
                self.diags.error(m.pos, "%s is already declared in base %s at %s"
                                 % (m.name, inherited[m.name].owner.full_name,
                                    inherited[m.name].pos))
                return
            m.owner = r
            names[m.name] = m
            group.append(m)

        d = r.decl
        for m in r.params:
            add(m, params)
        for syn in d.members:
            if isinstance(syn, S.Attr):
                m = self.resolve_attr(r, syn)
                if m is not None:
                    add(m, stored)
            elif isinstance(syn, S.Const):
                m = Member("const", syn.name, syn.pos)
                m.type = self.resolve_type(syn.type, r.namespace)
                if m.type is not None:
                    if isinstance(m.type, Record) and m.type.kind == "value":
                        m.default = self.value_constant(r, syn, m.type)
                    elif isinstance(m.type, ExternEnum):
                        self.diags.error(syn.pos, "constant %s: the enumerators of extern enum "
                                                  "%s are not known here"
                                         % (syn.name, m.type.full_name))
                    elif not isinstance(m.type, (Builtin, Enum)):
                        self.diags.error(syn.pos, "constant %s must be of a builtin, "
                                                  "enumeration or value type" % syn.name)
                    else:
                        m.default = self.value_of(syn.value, m.type, r.namespace, r,
                                                  "constant " + syn.name)
                add(m, consts)
            elif isinstance(syn, S.Func):
                m = self.resolve_func(r, syn)
                if m is not None:
                    add(m, funcs)
            elif isinstance(syn, S.Link):
                m = self.resolve_link(r, syn)
                if m is not None:
                    add(m, stored)
            elif isinstance(syn, S.CppDecl):
                r.cpp_decls.append(syn.text)
        r.members = params + stored + consts + funcs
        first = ENTITY_BLOCKS[level] if entityish else VALUE_FIRST_INDEX
        for i, m in enumerate(r.members):
            m.index = first + i
        if entityish and len(r.members) > BLOCK_SIZE:
            self.diags.error(r.pos, "%s has %d members; a block holds %d"
                             % (r.name, len(r.members), BLOCK_SIZE))
        if r.kind == "value" and not stored:
            pass  # a value type without attributes: every two instances are equal
        if r.kind == "reactor":
            has_init = any(m.name == "initialized" for m in r.all_members())
            if not has_init:
                m = Member("attr", "initialized", r.pos)
                m.type = self.builtins["bool"]
                m.default = Value("false", "false", False)
                m.owner = r
                # after the declared stored members, keeping indexes stable
                pos = len(params) + len(stored)
                r.members.insert(pos, m)
                for i, mm in enumerate(r.members):
                    mm.index = first + i

    def resolve_params(self, r):
        d = r.decl
        if d.impl is not None and r.kind not in ("entity", "holder"):
            self.diags.error(d.pos, "only entities and holders are implemented by a "
                                    "hand-written class")
            r.impl = None
        if d.params is None:
            return
        if r.kind == "value":
            self.diags.error(d.pos, "a value type has no constructor parameters; "
                                    "its attributes are its constructor's")
            return
        if r.kind == "reactor":
            self.diags.error(d.pos, "a reactor is constructed from its inputs and outputs")
            return
        for p in d.params:
            m = Member("param", p.name, p.pos)
            m.type = self.resolve_type(p.type, r.namespace)
            if m.type is not None and not m.type.is_valueish():
                self.diags.error(p.pos, "constructor parameter %s must be of a value "
                                        "type, not %s" % (p.name, m.type.full_name))
            if p.name == "name":
                if m.type is not None and m.type.full_name != "Cog::Name":
                    self.diags.error(p.pos, "parameter name is the entity's name, of type Name")
                elif p is not d.params[0]:
                    self.diags.error(p.pos, "the entity's name is its first parameter")
                else:
                    m.owner = r
                    r.name_member = m
                continue
            r.params.append(m)

    def resolve_attr(self, r, syn):
        tr = self.resolve_type(syn.type, r.namespace, allow_collection=True)
        if tr is None:
            return None
        if isinstance(tr, tuple) and tr[0] == "memtab":
            m = Member("memtab", syn.name, syn.pos)
            m.type = tr[1][0]
            if r.kind == "value":
                self.diags.error(syn.type.pos, "a shared-memory table belongs to an entity, not to "
                                 "value type %s" % r.name)
            if not (isinstance(m.type, Record) and m.type.kind == "value") and \
                    m.type.kind != "extern":
                self.diags.error(syn.type.pos, "a shared-memory table holds value types, not %s"
                                 % m.type.full_name)
            if syn.default is not None or syn.bounds is not None or syn.flags:
                self.diags.error(syn.pos, "shared-memory table %s takes no default, bounds or "
                                          "flags" % syn.name)
            return m
        if isinstance(tr, tuple):
            kind, args = tr
            m = Member("collection", syn.name, syn.pos)
            m.collection = kind
            if kind == "array":
                m.key = self.builtins["u64"]
                m.type = args[0]
            elif COLLECTIONS[kind][3]:
                m.key = args[0]
                m.type = None
            else:
                m.key, m.type = args
            if not m.key.is_valueish():
                self.diags.error(syn.type.pos, "the key of %s must be a value, not %s"
                                 % (syn.name, m.key.full_name))
            if m.type is not None and m.type.is_entityish():
                if r.kind == "value":
                    self.diags.error(syn.type.pos, "a value type cannot hold entities (%s)"
                                     % syn.name)
                elif kind not in ("map", "ordered"):
                    self.diags.error(syn.type.pos, "entities are held in map or ordered "
                                                   "collections, not %s" % kind)
                else:
                    params = m.type.ctor_params() if isinstance(m.type, Record) else []
                    if not params:
                        self.diags.error(syn.type.pos, "%s has no constructor parameter to "
                                         "key the collection %s" % (m.type.full_name, syn.name))
                    elif params[0].type is not None and params[0].type is not m.key:
                        self.diags.error(syn.type.pos, "collection %s is keyed by %s but %s's "
                                         "key parameter %s is a %s"
                                         % (syn.name, m.key.full_name, m.type.full_name,
                                            params[0].name, params[0].type.full_name))
            if syn.default is not None:
                self.diags.error(syn.default.pos, "a collection starts empty; %s takes no "
                                                  "default" % syn.name)
            if syn.bounds is not None:
                self.diags.error(syn.pos, "bounds apply to numbers, not to collection %s"
                                 % syn.name)
        else:
            m = Member("attr", syn.name, syn.pos)
            m.type = tr
            if tr.is_entityish():
                self.diags.error(syn.type.pos, "attribute %s holds the entity %s; use owned, "
                                 "input or output for entity pointers" % (syn.name, tr.full_name))
                return None
            if syn.default is not None:
                m.default = self.value_of(syn.default, tr, r.namespace, r, "attribute " + syn.name)
            if syn.bounds is not None:
                m.bounds = self.resolve_bounds(r, m, syn.bounds)
        for f in syn.flags:
            if f == "storeBeforeCheck":
                if m.kind != "attr" or m.bounds is None or r.kind == "value":
                    self.diags.error(syn.pos, "storeBeforeCheck applies to bounded entity "
                                              "attributes")
            elif f != "resync":
                self.diags.error(syn.pos, "unknown attribute flag %s" % f)
            elif m.kind != "collection":
                self.diags.error(syn.pos, "resync applies to keyed collections, not to %s"
                                 % syn.name)
            elif r.kind == "value":
                self.diags.error(syn.pos, "resync applies to entity collections")
        m.flags = list(syn.flags)
        if syn.keyed_by is not None:
            m.keyed_by = self.resolve_keyed_by(r, m, syn)
        return m

    def resolve_keyed_by(self, r, m, syn):
        """`x: map<K, V> keyedBy a;`: each value is stored under its own
        attribute a (of type K), which the setter checks."""
        name, pos = syn.keyed_by
        if m.kind != "collection" or m.collection not in ("map", "ordered") or \
                not (isinstance(m.type, Record) and m.type.kind == "value") or r.kind == "value":
            self.diags.error(pos, "keyedBy applies to entity maps of value types, not to %s"
                             % syn.name)
            return None
        self.resolve_record(m.type)
        a = next((x for x in m.type.stored() if x.name == name), None)
        if a is None or a.kind != "attr":
            self.diags.error(pos, "%s has no attribute %s to key %s"
                             % (m.type.full_name, name, syn.name))
            return None
        if a.type is not m.key:
            self.diags.error(pos, "%s::%s is a %s, not the key type %s of %s"
                             % (m.type.name, name, a.type.full_name, m.key.full_name, syn.name))
            return None
        return a

    def resolve_bounds(self, r, m, bounds):
        t = m.type
        if not (isinstance(t, Builtin) and t.family in ("int", "float")):
            self.diags.error(bounds[0].pos, "bounds apply to numbers, not to %s" % t.full_name)
            return None
        out = []
        for e in bounds:
            toks = e.tokens
            if len(toks) == 1 and toks[0].kind == "name":
                c = self.find_constant(r, toks[0].text)
                if c is None:
                    self.diags.error(e.pos, "unknown constant %s in the bounds of %s"
                                     % (toks[0].text, m.name))
                    return None
                out.append(Value(c[0], c[1]))
            elif e.text().startswith("("):
                out.append(Value(e.text(), "Expr @%s:%d" % (os.path.basename(e.pos.file),
                                                            e.pos.line)))
            else:
                v = self.value_of(e, t, r.namespace, r, "the bounds of " + m.name)
                if v is None:
                    return None
                out.append(Value(v.cpp, e.text()))
        msg = "%s::%s < %s or > %s not allowed" % (r.name, m.name, out[0].text, out[1].text)
        return Bounds(out[0], out[1], msg)

    def find_constant(self, r, name):
        """(C++ spelling, text) of a class constant of `r` or a namespace
        constant visible from it."""
        for m in r.all_members() if isinstance(r, Record) and r.members else []:
            if m.kind == "const" and m.name == name:
                return ("%s::%s" % (r.cpp, name), "%s::%s" % (r.name, name))
        if isinstance(r, Record):
            for syn in r.decl.members:
                if isinstance(syn, S.Const) and syn.name == name:
                    return ("%s::%s" % (r.cpp, name), "%s::%s" % (r.name, name))
        c = self.lookup(name, r.namespace if r is not None else "")
        if isinstance(c, NamespaceConstant):
            return ("%s::%s()" % (c.namespace, name), name)
        return None

    def value_of(self, expr, t, namespace, record, what):
        toks = expr.tokens
        text = expr.text()
        if isinstance(t, Enum):
            if len(toks) == 1 and toks[0].kind == "name":
                for e in t.enumerators:
                    if e.name == toks[0].text:
                        return Value("%s::%s" % (t.cpp, e.name), e.name, e.value)
                self.diags.error(expr.pos, "%s is not an enumerator of %s (%s)"
                                 % (toks[0].text, t.full_name, what))
                return None
            self.diags.error(expr.pos, "expected an enumerator of %s for %s" % (t.full_name, what))
            return None
        if isinstance(t, Builtin):
            if len(toks) == 1 and toks[0].kind == "name" and toks[0].text not in ("true", "false"):
                c = self.find_constant(record, toks[0].text) if record is not None else None
                if c is None:
                    nc = self.lookup(toks[0].text, namespace)
                    if isinstance(nc, NamespaceConstant):
                        c = ("%s::%s()" % (nc.namespace, nc.name), nc.name)
                if c is None:
                    self.diags.error(expr.pos, "unknown constant %s (%s)" % (toks[0].text, what))
                    return None
                return Value(c[0], c[1])
            if text.startswith("("):
                return Value(text, "Expr @%s:%d" % (os.path.basename(expr.pos.file),
                                                    expr.pos.line))
            if t.family == "bool":
                if text in ("true", "false"):
                    return Value(text, text, text == "true")
                self.diags.error(expr.pos, "expected true or false for %s, found %s" % (what, text))
                return None
            if t.family == "string":
                if len(toks) == 1 and toks[0].kind == "string":
                    s = toks[0].text
                    return Value(cpp_string(s), s, s)
                self.diags.error(expr.pos, "expected a string for %s, found %s" % (what, text))
                return None
            if t.family == "float":
                body = toks[1:] if toks and toks[0].text == "-" else toks
                if len(body) == 1 and body[0].kind in ("int", "float"):
                    v = float(int(body[0].text, 0) if body[0].kind == "int" else body[0].text)
                    if toks[0].text == "-":
                        v = -v
                    lit = repr(v)
                    return Value(lit + ("f" if t.name == "float" else ""), text, v)
                self.diags.error(expr.pos, "expected a number for %s, found %s" % (what, text))
                return None
            body = toks[1:] if toks and toks[0].text == "-" else toks
            if len(body) == 1 and body[0].kind == "int":
                v = int(body[0].text, 0)
                if toks[0].text == "-":
                    v = -v
                lo, hi = t.int_range()
                if not lo <= v <= hi:
                    self.diags.error(expr.pos, "%s does not fit in %s (%s)" % (text, t.name, what))
                    return None
                return Value(cpp_int(v, t), text, v)
            self.diags.error(expr.pos, "expected an integer for %s, found %s" % (what, text))
            return None
        if isinstance(t, ExternEnum):
            self.diags.error(expr.pos, "%s of extern enum %s takes the enumeration's default "
                             "value; its enumerators are not known here" % (what, t.full_name))
            return None
        self.diags.error(expr.pos, "%s of type %s takes its type's default value; it has no "
                         "default of its own" % (what, t.full_name))
        return None

    def value_constant(self, r, syn, t):
        """A class constant of value type t, written as the literal of t's one
        attribute: `const metric: RouteMetric = 0;`. t must be a literal
        type (constexpr-constructible) with a single unbounded attribute of a
        builtin type, declared before the constant's type."""
        if t is r:
            self.diags.error(syn.pos, "constant %s cannot be of its own type %s"
                             % (syn.name, r.name))
            return None
        self.resolve_record(t)  # it may come later in the schema or in another unit
        attrs = t.stored()
        if len(attrs) != 1 or attrs[0].kind != "attr" or not isinstance(attrs[0].type, Builtin) \
                or attrs[0].type.family == "string" or attrs[0].bounds is not None:
            self.diags.error(syn.pos, "constant %s: value type %s is not made from one literal "
                                      "(it needs a single unbounded number or bool attribute)"
                             % (syn.name, t.full_name))
            return None
        v = self.value_of(syn.value, attrs[0].type, r.namespace, r, "constant " + syn.name)
        if v is None:
            return None
        return Value("%s(%s)" % (t.cpp, v.cpp), v.text, v.python)

    def resolve_func(self, r, syn):
        if syn.params is None:
            if syn.name != "hash":
                self.diags.error(syn.pos, "only 'fn hash;' may be declared without a signature "
                                          "(it places the generated hash in the reflection "
                                          "order)")
                return None
            m = Member("hash", "hash", syn.pos)
            m.type = self.builtins["u32"]
            m.is_const = True
            return m
        m = Member("func", syn.name, syn.pos)
        m.is_const = syn.is_const
        m.is_static = syn.is_static
        if syn.is_static and syn.is_const:
            self.diags.error(syn.pos, "a static function cannot be const")
        seen = set()
        for p in syn.params:
            if p.name in seen:
                self.diags.error(p.pos, "parameter %s appears twice" % p.name)
            seen.add(p.name)
            pt = self.resolve_type(p.type, r.namespace)
            if pt is not None:
                m.params.append((p.name, pt))
        if syn.result is not None:
            m.type = self.resolve_type(syn.result, r.namespace)
        if syn.name == "hash":
            if syn.params or m.type is None or m.type.full_name != "U32" or not syn.is_const:
                self.diags.error(syn.pos, "a hand-written hash is 'fn hash() -> u32 const;'")
            r.custom_hash = True
        if syn.name == "handleInitialized":
            if r.kind != "reactor" or syn.params or m.type is not None:
                self.diags.error(syn.pos, "handleInitialized() belongs to reactors and takes "
                                          "no arguments")
            r.custom_handle_initialized = True
        return m

    def resolve_link(self, r, syn):
        if syn.kind in ("input", "output") and r.kind != "reactor":
            self.diags.error(syn.pos, "%s %s: only reactors have inputs and outputs"
                             % (syn.kind, syn.name))
            return None
        if syn.kind == "owned" and r.kind == "value":
            self.diags.error(syn.pos, "a value type cannot own entity %s" % syn.name)
            return None
        t = self.resolve_type(syn.type, r.namespace)
        if t is None:
            return None
        if not t.is_entityish():
            self.diags.error(syn.type.pos, "%s %s must point at an entity, not %s"
                             % (syn.kind, syn.name, t.full_name))
            return None
        if syn.kind == "owned":
            params = t.ctor_params() if isinstance(t, Record) else []
            if len(params) != 1 or params[0].name != "name":
                self.diags.error(syn.type.pos, "an owned entity is created by name; %s is not "
                                 "constructed from (name: Name)" % t.full_name)
        m = Member(syn.kind, syn.name, syn.pos)
        m.type = t
        m.syntax_reacts = syn.reacts
        if syn.made is not None:
            params = t.ctor_params() if isinstance(t, Record) else []
            if len(params) != 1 or params[0].name != "name":
                self.diags.error(syn.type.pos, "a made output is created by name; %s is not "
                                 "constructed from (name: Name)" % t.full_name)
            elif not syn.made:
                self.diags.error(syn.pos, "output %s is made with an empty name" % syn.name)
            m.made = syn.made
        return m

    def resolve_reacts(self, r):
        for m in r.members:
            if m.kind != "input":
                continue
            avail = {x.name: x for x in m.type.all_members()} if isinstance(m.type, Record) else {}
            for name, pos, handler in m.syntax_reacts:
                x = avail.get(name)
                if x is None or not x.is_stored() or x.kind == "param":
                    self.diags.error(pos, "%s has no notifying attribute %s"
                                     % (m.type.full_name, name))
                    continue
                m.reacts.append(x)
                if handler is not None:
                    m.react_handlers[x.name] = handler

    # ---------------------------------------------------------------- dump
    def dump(self, unit):
        out = ["unit %s" % unit.name]
        for imp in unit.imports:
            out.append("  import %s" % imp.name)
        for e in unit.externs:
            out.append("  extern %s %s header %s" % (e.keyword, e.full_name, e.header))
        for d in unit.decls_in_order:
            if isinstance(d, NamespaceConstant):
                out.append("  const %s::%s: %s = %s" % (d.namespace, d.name,
                           d.type.full_name if d.type else "?", d.value.text if d.value else "?"))
            elif isinstance(d, Enum):
                out.append("  enum %s storage %s" % (d.full_name, d.storage.name))
                for e in d.enumerators:
                    out.append("    %s = %d" % (e.name, e.value))
            else:
                head = "  %s %s" % (d.kind, d.full_name)
                if d.base is not None:
                    head += " : %s" % d.base.full_name
                if d.impl is not None:
                    head += " implemented %s in %s" % d.impl
                out.append(head)
                for m in d.members:
                    out.append("    " + describe_member(m))
        return "\n".join(out) + "\n"


def type_name(t):
    return t.full_name if t is not None else "void"


def describe_member(m):
    s = "%d %s %s" % (m.index, m.kind, m.name)
    if m.kind == "memtab":
        s += ": memtab<%s>" % m.type.full_name
    elif m.kind == "collection":
        if m.type is None:
            s += ": %s<%s>" % (m.collection, m.key.full_name)
        else:
            s += ": %s<%s, %s>" % (m.collection, m.key.full_name, m.type.full_name)
    elif m.kind in ("func",):
        s += "(%s) -> %s" % (", ".join("%s: %s" % (n, t.full_name) for n, t in m.params),
                             type_name(m.type))
        if m.is_static:
            s += " static"
        if m.is_const:
            s += " const"
    elif m.type is not None:
        s += ": %s" % m.type.full_name
    if m.default is not None:
        s += " = %s" % m.default.text
    if m.bounds is not None:
        s += " in [%s, %s]" % (m.bounds.lo.text, m.bounds.hi.text)
    if m.reacts:
        s += " reacts %s" % ", ".join(
            x.name + (" -> " + m.react_handlers[x.name] if x.name in m.react_handlers else "")
            for x in m.reacts)
    if m.made is not None:
        s += " made %r" % m.made
    if m.keyed_by is not None:
        s += " keyedBy %s" % m.keyed_by.name
    for f in m.flags:
        s += " " + f
    return s


def cpp_int(v, t):
    if t.signed:
        if v == -(1 << (t.bits - 1)):
            return "(%d - 1)" % (v + 1)
        return str(v)
    if t.bits == 64:
        return "UINT64_C(%d)" % v
    if t.bits == 32:
        return "%du" % v
    return str(v)


def cpp_string(s):
    out = '"'
    for ch in s:
        if ch in '"\\':
            out += "\\" + ch
        elif ch == "\n":
            out += "\\n"
        elif ord(ch) < 32:
            out += "\\%03o" % ord(ch)
        else:
            out += ch
    return out + '"'
