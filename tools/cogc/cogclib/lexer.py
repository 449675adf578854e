"""Tokens of the schema language: names, integers (decimal, hex, negative
through the '-' punctuator), floating literals, strings, punctuation.
Comments are // to end of line and /* ... */."""

import re

from .diag import Position


class Token:
    __slots__ = ("kind", "text", "pos")

    def __init__(self, kind, text, pos):
        self.kind = kind  # 'name', 'int', 'float', 'string', 'punct', 'eof'
        self.text = text
        self.pos = pos

    def __repr__(self):
        return "Token(%s, %r, %s)" % (self.kind, self.text, self.pos)


_TOKEN = re.compile(r"""
    (?P<ws>[ \t\r]+)
  | (?P<nl>\n)
  | (?P<line_comment>//[^\n]*)
  | (?P<block_comment>/\*.*?\*/)
  | (?P<float>[0-9]+\.[0-9]+(?:[eE][-+]?[0-9]+)?)
  | (?P<int>0[xX][0-9a-fA-F]+|[0-9]+)
  | (?P<name>[A-Za-z_][A-Za-z0-9_]*)
  | (?P<string>"(?:[^"\\\n]|\\.)*")
  | (?P<punct>::|->|<<|>>|[{}()\[\];:,=<>*+\-/&|~!@.?^%])
""", re.VERBOSE | re.DOTALL)


def tokenize(text, filename, diags):
    tokens = []
    line = 1
    pos = 0
    while pos < len(text):
        m = _TOKEN.match(text, pos)
        if not m:
            diags.error(Position(filename, line), "unexpected character %r" % text[pos])
            pos += 1
            continue
        kind = m.lastgroup
        value = m.group(kind)
        if kind == "nl":
            line += 1
        elif kind == "block_comment":
            line += value.count("\n")
        elif kind not in ("ws", "line_comment"):
            if kind == "string":
                value = bytes(value[1:-1], "utf-8").decode("unicode_escape")
            tokens.append(Token(kind, value, Position(filename, line)))
        pos = m.end()
    tokens.append(Token("eof", "", Position(filename, line)))
    return tokens
