"""Recursive-descent parser from tokens to the syntax tree (syntax.py).

On a syntax error the parser reports it and skips to the next ';' or '}' of
the current level, so that one run reports every error of the file."""

import os

from . import syntax as S
from .lexer import tokenize


class _Abandon(Exception):
    pass


class Parser:
    def __init__(self, text, path, display, diags):
        self.diags = diags
        self.toks = tokenize(text, display, diags)
        self.i = 0
        unit = os.path.splitext(os.path.basename(path))[0]
        self.file = S.SchemaFile(path=path, unit=unit)

    # ---- token helpers
    @property
    def tok(self):
        return self.toks[self.i]

    def peek(self, k=1):
        return self.toks[min(self.i + k, len(self.toks) - 1)]

    def at(self, text):
        return self.tok.kind in ("punct", "name") and self.tok.text == text

    def take(self):
        t = self.tok
        if t.kind != "eof":
            self.i += 1
        return t

    def accept(self, text):
        if self.at(text):
            return self.take()
        return None

    def expect(self, text, what=None):
        if self.at(text):
            return self.take()
        self.fail("expected '%s'%s, found %s" % (text, " " + what if what else "", self.describe()))

    def describe(self, t=None):
        t = t or self.tok
        return "end of file" if t.kind == "eof" else "'%s'" % t.text

    def fail(self, message, pos=None):
        self.diags.error(pos or self.tok.pos, message)
        raise _Abandon()

    def name(self, what="a name"):
        if self.tok.kind != "name":
            self.fail("expected %s, found %s" % (what, self.describe()))
        return self.take()

    def qname(self, what="a name"):
        first = self.name(what)
        parts = [first.text]
        while self.at("::"):
            self.take()
            parts.append(self.name(what).text)
        return "::".join(parts), first.pos

    def recover(self):
        """Skips to just after the next ';' at this nesting level, or to
        before the '}' that closes it."""
        depth = 0
        while self.tok.kind != "eof":
            t = self.tok
            if t.text in ("{", "(", "[") and t.kind == "punct":
                depth += 1
            elif t.text in ("}", ")", "]") and t.kind == "punct":
                if depth == 0:
                    return
                depth -= 1
                if depth == 0 and t.text == "}":
                    self.take()
                    return
            elif t.text == ";" and depth == 0:
                self.take()
                return
            self.take()

    # ---- grammar
    def parse(self):
        while self.tok.kind != "eof":
            try:
                self.top_item()
            except _Abandon:
                self.recover()
                if self.at("}"):
                    self.take()
        return self.file

    def top_item(self):
        t = self.tok
        if self.accept("import"):
            unit, pos = self.qname("a schema unit")
            self.file.imports.append(S.Import(unit, pos))
            self.expect(";")
        elif self.accept("include"):
            at_end = bool(self.accept("end"))
            if self.tok.kind != "string":
                self.fail("expected a header path in quotes")
            (self.file.end_includes if at_end else self.file.includes).append(self.take().text)
            self.expect(";")
        elif self.accept("extern"):
            if self.at("value") or self.at("enum"):
                kind = self.take().text
            else:
                self.fail("expected 'value' or 'enum' after extern, found %s" % self.describe())
            name, pos = self.qname("an external type name")
            self.expect("header")
            if self.tok.kind != "string":
                self.fail("expected the external type's header in quotes")
            header_tok = self.take()
            self.expect(";")
            self.file.externs.append(S.ExternDecl(name, header_tok.text, pos, kind, header_tok.pos))
        elif self.accept("namespace"):
            ns, _ = self.qname("a namespace name")
            self.expect("{")
            while not self.at("}"):
                if self.tok.kind == "eof":
                    self.fail("namespace %s is not closed" % ns, t.pos)
                try:
                    self.decl(ns)
                except _Abandon:
                    self.recover()
            self.expect("}")
        else:
            self.fail("expected import, include, extern or namespace, found %s" % self.describe())

    def decl(self, ns):
        t = self.tok
        if self.accept("const"):
            name = self.name("a constant name")
            self.expect(":")
            ty = self.type_ref()
            self.expect("=")
            value = self.expr({";"})
            self.expect(";")
            self.file.decls.append(S.NamespaceConst(name.text, ty, value, name.pos, ns))
        elif self.accept("enum"):
            self.enum_decl(ns)
        elif t.text in ("value", "entity", "holder", "reactor") and t.kind == "name":
            self.take()
            self.type_decl(t.text, ns)
        else:
            self.fail("expected const, enum, value, entity, holder or reactor, found %s"
                      % self.describe())

    def enum_decl(self, ns):
        name = self.name("an enumeration name")
        storage = None
        if self.accept(":"):
            storage = self.type_ref()
        self.expect("{")
        enumerators = []
        while not self.at("}"):
            e = self.name("an enumerator")
            value = None
            if self.accept("="):
                value = self.expr({",", "}"})
            enumerators.append(S.Enumerator(e.text, value, e.pos))
            if not self.accept(","):
                break
        self.expect("}")
        self.file.decls.append(S.EnumDecl(name.text, storage, enumerators, name.pos, ns))

    def type_decl(self, kind, ns):
        name = self.name("a type name")
        params = None
        if self.at("("):
            params = self.params()
        base = None
        if self.accept(":"):
            base = self.type_ref()
        impl = None
        if self.accept("implemented"):
            impl_name, _ = self.qname("the hand-written class")
            self.expect("in")
            if self.tok.kind != "string":
                self.fail("expected the hand-written class's header in quotes")
            impl = (impl_name, self.take().text)
        self.expect("{")
        decl = S.TypeDecl(kind, name.text, params, base, [], name.pos, ns, impl)
        self.file.decls.append(decl)
        while not self.at("}"):
            if self.tok.kind == "eof":
                self.fail("%s %s is not closed" % (kind, name.text), name.pos)
            try:
                decl.members.append(self.member())
            except _Abandon:
                self.recover()
        self.expect("}")

    def params(self):
        self.expect("(")
        out = []
        while not self.at(")"):
            n = self.name("a parameter name")
            self.expect(":")
            out.append(S.Param(n.text, self.type_ref(), n.pos))
            if not self.accept(","):
                break
        self.expect(")")
        return out

    def member(self):
        t = self.tok
        if t.kind == "name" and t.text == "cpp" and self.peek().kind == "string":
            self.take()
            text = self.take().text
            self.expect(";")
            return S.CppDecl(text, t.pos)
        if self.accept("const"):
            n = self.name("a constant name")
            self.expect(":")
            ty = self.type_ref()
            self.expect("=")
            value = self.expr({";"})
            self.expect(";")
            return S.Const(n.text, ty, value, n.pos)
        is_static = bool(self.accept("static"))
        if self.accept("fn"):
            n = self.name("a function name")
            if self.accept(";"):
                if is_static:
                    self.fail("a generated function cannot be static", n.pos)
                return S.Func(n.text, None, None, True, False, n.pos)
            params = self.params()
            result = None
            if self.accept("->"):
                result = self.type_ref()
            is_const = bool(self.accept("const"))
            self.expect(";")
            return S.Func(n.text, params, result, is_const, is_static, n.pos)
        if is_static:
            self.fail("expected 'fn' after 'static'")
        if t.kind == "name" and t.text in ("input", "output", "owned") and self.peek().kind == "name":
            self.take()
            n = self.name()
            self.expect(":")
            ty = self.type_ref()
            reacts = []
            if t.text == "input" and self.accept("reacts"):
                while True:
                    r = self.name("an attribute of the input")
                    handler = None
                    if self.accept("->"):
                        handler = self.name("a handler name").text
                    reacts.append((r.text, r.pos, handler))
                    if not self.accept(","):
                        break
            made = None
            if t.text == "output" and self.accept("made"):
                if self.tok.kind != "string":
                    self.fail("expected the name of the made output, found %s" % self.describe())
                made = self.take().text
            self.expect(";")
            return S.Link(t.text, n.text, ty, reacts, n.pos, made)
        n = self.name("an attribute, const, fn, input, output or owned")
        self.expect(":")
        ty = self.type_ref()
        default = bounds = None
        flags = []
        if self.accept("="):
            default = self.expr({";", "in"})
        if self.accept("in"):
            self.expect("[")
            lo = self.expr({","})
            self.expect(",")
            hi = self.expr({"]"})
            self.expect("]")
            bounds = (lo, hi)
        keyed_by = None
        while self.tok.kind == "name":
            flag = self.take()
            if flag.text == "keyedBy":
                k = self.name("the value's attribute that is its key")
                keyed_by = (k.text, k.pos)
            else:
                flags.append(flag.text)
        self.expect(";")
        return S.Attr(n.text, ty, default, bounds, flags, n.pos, keyed_by)

    def type_ref(self):
        name, pos = self.qname("a type")
        args = []
        if self.accept("<"):
            while True:
                args.append(self.type_ref())
                if not self.accept(","):
                    break
            self.expect(">")
        return S.TypeRef(name, args, pos)

    def expr(self, stops):
        """Tokens up to one of `stops` at bracket depth 0."""
        start = self.tok.pos
        toks = []
        depth = 0
        while True:
            t = self.tok
            if t.kind == "eof":
                self.fail("unexpected end of file in an expression", start)
            if depth == 0 and t.text in stops and t.kind in ("punct", "name"):
                break
            if t.text in ("(", "[") and t.kind == "punct":
                depth += 1
            elif t.text in (")", "]") and t.kind == "punct":
                if depth == 0:
                    break
                depth -= 1
            elif t.text in (";", "{", "}") and t.kind == "punct":
                break
            toks.append(self.take())
        if not toks:
            self.fail("expected an expression, found %s" % self.describe())
        return S.Expr(toks, start)


def parse_file(path, display, diags):
    with open(path, encoding="utf-8") as f:
        text = f.read()
    return Parser(text, path, display, diags).parse()
