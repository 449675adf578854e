"""Diagnostics: every error is kept with its position, and the compiler
reports all of them (sorted by file and line) before it gives up."""


class Position:
    __slots__ = ("file", "line")

    def __init__(self, file, line):
        self.file = file
        self.line = line

    def __str__(self):
        return "%s:%d" % (self.file, self.line)


class Diagnostics:
    def __init__(self):
        self.errors = []

    def error(self, pos, message):
        self.errors.append((pos, message))

    def __bool__(self):
        return bool(self.errors)

    def render(self):
        seen = set()
        lines = []
        for pos, message in sorted(self.errors, key=lambda e: (e[0].file, e[0].line)):
            text = "%s: error: %s" % (pos, message)
            if text not in seen:
                seen.add(text)
                lines.append(text)
        return lines
