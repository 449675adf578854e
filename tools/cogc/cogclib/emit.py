"""Emits one header and one source per unit from the resolved model, through
the Jinja2 templates beside this file. The templates hold the C++ shape; this
module only spells types and orders declarations."""

import os

import jinja2

from .model import (Builtin, Enum, Extern, ExternEnum, NamespaceConstant, Record, cpp_string,
                    describe_member)

HERE = os.path.dirname(os.path.abspath(__file__))
TEMPLATES = os.path.join(HERE, "templates")


def cpp(t):
    """C++ spelling of a stored type (entities by pointer)."""
    if t is None:
        return "void"
    if isinstance(t, Record) and t.is_entityish():
        return "Cog::Ptr<%s>" % t.cpp
    return t.cpp


def arg(t):
    """C++ parameter type: small things by value, the rest by const ref."""
    if isinstance(t, (Builtin, Enum, ExternEnum)) and \
            t.full_name not in ("Cog::String", "Cog::Name"):
        return t.cpp
    return "const %s&" % cpp(t)


def ret(t):
    return arg(t) if not (isinstance(t, Record) and t.is_entityish()) else cpp(t)


def container(m):
    """C++ type of a collection member."""
    if m.collection == "set":
        return "Cog::HashSet2018<%s>" % cpp(m.key)
    if m.collection == "array":
        return "Cog::DynArray<%s>" % cpp(m.type)
    tmpl = "Cog::HashMap2018" if m.collection == "map" else "Cog::RbTreeMap"
    return "%s<%s, %s>" % (tmpl, cpp(m.key), cpp(m.type))


def type_fn(t):
    """A TypeFn expression for the member table."""
    if t is None:
        return "nullptr"
    return "&Cog::TypeOf<%s>::type" % t.cpp


def schema_decl(m):
    """A C++ string literal of member m's declaration as the schema states it
    (name, type, default, bounds, flags) and where: the member's doc text."""
    text = describe_member(m).split(" ", 2)[2]
    if m.pos is not None:
        text += " @%s:%d" % (os.path.basename(m.pos.file), m.pos.line)
    return cpp_string(text)


def ns_open(ns):
    return "namespace %s {" % ns


def ns_close(ns):
    return "}  // namespace %s" % ns


def signature(m, qualified=None):
    params = ", ".join("%s %s" % (arg(t), n) for n, t in m.params)
    name = m.name if qualified is None else "%s::%s" % (qualified, m.name)
    s = "%s %s(%s)" % (cpp(m.type), name, params)
    if m.is_const:
        s += " const"
    return s


def unwrap(t, expr, name):
    """C++ that converts the reflected argument `expr` to type t."""
    if isinstance(t, Record) and t.is_entityish():
        return 'Cog::Glue::genericEntityCast<%s>(%s, "%s")' % (t.cpp, expr, name)
    return 'Cog::genericCast<%s>(%s, "%s")' % (cpp(t), expr, name)


def lcfirst(s):
    return s[0].lower() + s[1:]


def notifies(m):
    return m.kind in ("attr", "collection", "owned", "memtab")


def on_params(m, unused=False):
    """Parameter list of the notification onX(...) of member m; with unused,
    the parameter's name is a comment (for bodies that do not read it)."""
    if m.kind == "memtab":
        param = "const Memtab::KeyOf<%s>& " % m.type.cpp, "key"
    elif m.kind != "collection":
        return ""
    elif m.collection == "array":
        param = "std::uint64_t ", "index"
    else:
        param = "%s " % arg(m.key), "key"
    return param[0] + ("/*%s*/" % param[1] if unused else param[1])


def key_arg(m):
    return "std::uint64_t" if m.collection == "array" else arg(m.key)


def key_cpp(m):
    return "std::uint64_t" if m.collection == "array" else cpp(m.key)


def entity_value(m):
    """The entity type held by an instantiating collection, or None."""
    if m.kind == "collection" and m.type is not None and m.type.is_entityish():
        return m.type
    return None


def handlers(r):
    """(handler name, input member, reacted member) of a reactor's inputs,
    minus those the schema declares itself."""
    declared = {m.name for m in r.members if m.kind == "func"}
    out = []
    for m in r.members:
        if m.kind != "input":
            continue
        for x in m.reacts:
            name = m.react_handlers.get(x.name, "handle" + x.cap)
            out.append((name, m, x, name not in declared))
    return out


def parsable(t):
    """Whether value type t has a text form to parse: not when it, or an
    external value it holds, has a collection."""
    if t.own("collection"):
        return False
    return not any(isinstance(a.type, Extern) and a.type.has_collection for a in t.own("attr"))


def topo(records):
    """Records in an order where each comes after what it embeds by value
    and after its base; declaration order otherwise."""
    order = []
    state = {}
    inunit = set(records)

    def deps(r):
        out = []
        if r.base is not None and r.base in inunit:
            out.append(r.base)
        for m in r.members:
            for t in (m.type, m.key):
                if isinstance(t, Record) and t in inunit:
                    out.append(t)
        return out

    def visit(r):
        if state.get(r) == 2:
            return
        if state.get(r) == 1:
            return  # entity pointers may refer back: forward declarations cover it
        state[r] = 1
        for d in deps(r):
            visit(d)
        state[r] = 2
        order.append(r)

    for r in records:
        visit(r)
    return order


class Emitter:
    def __init__(self, model, unit, root):
        self.model = model
        self.unit = unit
        self.root = root
        self.env = jinja2.Environment(
            loader=jinja2.FileSystemLoader(TEMPLATES),
            trim_blocks=True, lstrip_blocks=True, keep_trailing_newline=True,
            undefined=jinja2.StrictUndefined)
        self.env.filters.update(cpp=cpp, arg=arg, ret=ret, container=container,
                                type_fn=type_fn, schema_decl=schema_decl)
        self.env.filters.update(lcfirst=lcfirst, on_params=on_params, key_arg=key_arg,
                                key_cpp=key_cpp)
        self._lines = None
        self.env.globals.update(unwrap=unwrap, schema_line=self.schema_line)
        self.env.globals.update(notifies=notifies, entity_value=entity_value, handlers=handlers,
                                parsable=parsable)
        self.env.globals.update(signature=signature, ns_open=ns_open, ns_close=ns_close,
                                isinstance=isinstance, Record=Record, Enum=Enum,
                                Builtin=Builtin, Extern=Extern,
                                NamespaceConstant=NamespaceConstant)

    def schema_line(self, m):
        """"// <Unit>.cog:<line>: <the line>" for a member declared in this
        unit, so that a generated header reads as the schema's reference;
        empty for members without a schema line of their own."""
        pos = getattr(m, "pos", None)
        if pos is None or pos.file != self.unit.display or not pos.line:
            return ""
        if self._lines is None:
            with open(self.unit.path, encoding="utf-8") as f:
                self._lines = f.read().split("\n")
        if pos.line > len(self._lines):
            return ""
        text = self._lines[pos.line - 1].strip().rstrip("\\").rstrip()
        return "// %s:%d: %s" % (os.path.basename(self.unit.path), pos.line, text)

    def inputs(self):
        files = [os.path.join(TEMPLATES, f) for f in sorted(os.listdir(TEMPLATES))]
        files += [os.path.join(HERE, f) for f in sorted(os.listdir(HERE)) if f.endswith(".py")]
        files.append(os.path.join(os.path.dirname(HERE), "cogc.py"))
        return files

    def context(self):
        u = self.unit
        headers = []
        for e in u.externs:
            if e.header not in headers:
                headers.append(e.header)
        for h in u.includes:
            if h not in headers:
                headers.append(h)
        # externs of imported units are reached through their generated headers
        records = topo(u.records)
        groups = []  # (namespace, [decls]) in emission order, merging neighbours
        ordered = [c for c in u.constants] + u.enums + records
        for d in ordered:
            if groups and groups[-1][0] == d.namespace:
                groups[-1][1].append(d)
            else:
                groups.append((d.namespace, [d]))
        return dict(
            unit=u,
            stamp="generated by cogc from %s; do not edit" % u.display,
            headers=headers,
            end_headers=u.syntax.end_includes,
            impl_headers=[r.impl[1] for r in records if r.impl is not None],
            imports=u.imports,
            groups=groups,
            records=records,
            enums=u.enums,
            # external value types get their type record here; an external
            # enumeration's header defines and registers its own
            externs=[e for e in u.externs if e.kind == "extern"],
            section_types=[t for t in u.enums + records],
        )

    def render(self):
        ctx = self.context()
        name = self.unit.name
        return {
            name + ".h": self.env.get_template("unit.h.j2").render(**ctx),
            name + ".cpp": self.env.get_template("unit.cpp.j2").render(**ctx),
        }
