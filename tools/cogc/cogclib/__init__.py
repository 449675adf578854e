"""cogc: the schema compiler of RoutingLib.

Pipeline: lexer -> parser (syntax tree, syntax.py) -> resolver (one checked
model with stable attribute indexes, model.py) -> emitter (Jinja2 templates,
emit.py). Every stage reports through a Diagnostics object; the emitter runs
only when no stage reported an error.
"""
