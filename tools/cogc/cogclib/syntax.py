"""The syntax tree: what the schema says, before any name is resolved."""

from dataclasses import dataclass, field
from typing import List, Optional

from .diag import Position


@dataclass
class TypeRef:
    """A written type: `u32`, `Memtab::Fib::FecId`, `map<Via, bool>`."""
    name: str
    args: List["TypeRef"]
    pos: Position

    def __str__(self):
        if not self.args:
            return self.name
        return "%s<%s>" % (self.name, ", ".join(str(a) for a in self.args))


@dataclass
class Expr:
    """An expression as written: its tokens. The resolver gives literals and
    names a meaning; anything else stays C++ text (e.g. a bound)."""
    tokens: list
    pos: Position

    def text(self):
        out = ""
        prev = None
        for t in self.tokens:
            s = '"%s"' % t.text if t.kind == "string" else t.text
            if prev is not None and _needs_space(prev, t):
                out += " "
            out += s
            prev = t
        return out


def _needs_space(a, b):
    glue = {"::", "(", ")", "-", "~", "!", "."}
    if a.text in glue or b.text in glue or b.text == ",":
        return a.kind in ("name", "int", "float") and b.kind in ("name", "int", "float")
    return True


@dataclass
class Param:
    name: str
    type: TypeRef
    pos: Position


@dataclass
class Attr:
    name: str
    type: TypeRef
    default: Optional[Expr]
    bounds: Optional[tuple]  # (Expr, Expr)
    flags: List[str]
    pos: Position
    keyed_by: Optional[tuple] = None  # (value attribute name, Position)


@dataclass
class Const:
    name: str
    type: TypeRef
    value: Expr
    pos: Position


@dataclass
class Func:
    name: str
    params: Optional[List[Param]]  # None: `fn hash;` (generated, reflected here)
    result: Optional[TypeRef]
    is_const: bool
    is_static: bool
    pos: Position


@dataclass
class Link:
    """A reactor's input or output pointer, or an entity's owned child."""
    kind: str  # 'input', 'output', 'owned'
    name: str
    type: TypeRef
    reacts: List[tuple]  # (attribute name, Position, handler name or None) for inputs
    pos: Position
    made: Optional[str] = None  # outputs: the name the reactor makes it with


@dataclass
class CppDecl:
    """A hand-written member declaration the language cannot spell (raw
    pointers, templates), emitted as written in the class."""
    text: str
    pos: Position


@dataclass
class Enumerator:
    name: str
    value: Optional[Expr]
    pos: Position


@dataclass
class EnumDecl:
    name: str
    storage: Optional[TypeRef]
    enumerators: List[Enumerator]
    pos: Position
    namespace: str = ""


@dataclass
class TypeDecl:
    """A value type, entity, holder or reactor."""
    kind: str  # 'value', 'entity', 'holder', 'reactor'
    name: str
    params: Optional[List[Param]]
    base: Optional[TypeRef]
    members: list
    pos: Position
    namespace: str = ""
    # a hand-written class derived from this one that the factory makes:
    # (qualified name, header)
    impl: Optional[tuple] = None


@dataclass
class NamespaceConst:
    name: str
    type: TypeRef
    value: Expr
    pos: Position
    namespace: str = ""


@dataclass
class ExternDecl:
    name: str  # fully qualified
    header: str
    pos: Position
    kind: str = "value"  # 'value' or 'enum'
    header_pos: Optional[Position] = None


@dataclass
class Import:
    unit: str
    pos: Position


@dataclass
class SchemaFile:
    path: str
    unit: str
    imports: List[Import] = field(default_factory=list)
    includes: List[str] = field(default_factory=list)
    # headers included after every declaration: hand-written inline definitions
    end_includes: List[str] = field(default_factory=list)
    externs: List[ExternDecl] = field(default_factory=list)
    decls: list = field(default_factory=list)  # EnumDecl, TypeDecl, NamespaceConst
