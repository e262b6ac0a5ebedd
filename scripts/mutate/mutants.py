"""Finds the mutants of a source with libclang, and writes a copy of the source that contains all of them.

A mutant changes one operator, condition, constant or statement. Left out: lines of the log, assertions, constant
expressions, and what a macro expands to.
"""
import collections
import multiprocessing
import re
import subprocess
from pathlib import Path

from clang.cindex import CursorKind as K, Index, TranslationUnit, TypeKind

SWAPS = {"&&": "||", "||": "&&", "==": "!=", "!=": "==", "+": "-", "-": "+", "*": "/", "/": "*", "%": "*",
         "&": "|", "|": "&", "<<": ">>", ">>": "<<", "+=": "-=", "-=": "+=", "|=": "&=", "&=": "|=",
         "++": "--", "--": "++"}
ORDER = {"<": ("<=", ">="), "<=": ("<", ">"), ">": (">=", "<="), ">=": (">", "<")}
SKIPPED = {K.STATIC_ASSERT, K.ENUM_DECL, K.TYPE_ALIAS_DECL, K.TYPEDEF_DECL, K.TYPE_REF, K.TEMPLATE_REF,
           K.TEMPLATE_TYPE_PARAMETER, K.TEMPLATE_NON_TYPE_PARAMETER, K.DECL_REF_EXPR}
FUNCTIONS = {K.FUNCTION_DECL, K.CXX_METHOD, K.CONSTRUCTOR, K.DESTRUCTOR, K.CONVERSION_FUNCTION, K.FUNCTION_TEMPLATE}
VARIABLES = {K.VAR_DECL, K.FIELD_DECL, K.PARM_DECL}
SCOPES = {K.NAMESPACE, K.CLASS_DECL, K.STRUCT_DECL, K.CLASS_TEMPLATE}
STATEMENT, CONDITION, VALUE = range(3)

class Mutant:
    def __init__(self, file, function, start, end, alternative, label):
        self.file, self.function, self.start, self.end = file, function, start, end
        self.alternative = alternative  # the text of the expression; None: negated; "": the statement is removed
        self.label = label
        self.number = 0

    def __str__(self):
        return f"{self.file}: {self.function}: {self.label}"


class Parser:
    """Parses the sources of the library below `root`. `scratch` receives the precompiled headers."""

    def __init__(self, root, scratch):
        self.root, self.index = Path(root), Index.create(excludeDecls=True)
        folders = [self.root / "util" / each for each in ("h", "filemanager")]
        self.headers = {path.relative_to(root).as_posix(): path for each in folders for path in sorted(each.glob("*.h"))}
        self.sources = {path.relative_to(root).as_posix(): path for each in folders for path in sorted(each.glob("*.cpp"))}
        self.flags = ["-std=c++20", "-D_FILE_OFFSET_BITS=64", "-D_TIME_BITS=64", "-w",
                      *(f"-I{self.root / 'util' / each}" for each in ("h", "runtime", "filemanager"))]
        # RT_CHECK would hide its condition: the parser sees a function whose name has the same length.
        self.all = Path(scratch) / "headers.h"
        self.all.write_text("template <class T> bool rt_check(const char*, const T&, const char*);\n" +
                            "".join(f'#include "{path}"\n' for path in self.headers.values()))

    def parse(self, main, paths, flags):
        changed = [(str(path), path.read_text("utf-8").replace("RT_CHECK(", "rt_check(")) for path in paths]
        unit = self.index.parse(str(main), ["-x", "c++", *self.flags, *flags], changed,
                                TranslationUnit.PARSE_DETAILED_PROCESSING_RECORD)
        errors = [str(each) for each in unit.diagnostics if each.severity >= 3]
        if errors:
            raise RuntimeError(errors[0])
        return unit

    def mutants(self):
        """All mutants. Each source is parsed by a process of its own."""
        unit = self.parse(self.all, self.headers.values(), [])
        nodes = collections.defaultdict(list)
        for each in unit.cursor.get_children():
            if each.location.file is not None:
                nodes[each.location.file.name].append(each)
        for name, path in self.headers.items():
            yield from Finder(name, path, nodes[str(path)]).found.values()
        subprocess.run(["clang++", "-x", "c++-header", *self.flags, "-Xclang", "-detailed-preprocessing-record",
                        str(self.all), "-o", f"{self.all}.pch"], check=True)
        global parser  # of the processes, which are copies of this one
        parser = self
        with multiprocessing.get_context("fork").Pool() as pool:
            for found in pool.imap(mutants_of, self.sources.items()):
                yield from found


def mutants_of(source):
    name, path = source
    unit = parser.parse(path, [path], ["-include-pch", f"{parser.all}.pch"])
    return list(Finder(name, path, unit.cursor.get_children()).found.values())


class Finder:
    def __init__(self, file, path, nodes):
        self.file, self.path, self.found = file, str(path), {}
        self.text = path.read_bytes().decode("latin-1")  # offsets count bytes
        nodes = [each for each in nodes if self.is_here(each)]
        self.macros = [self.span(each) for each in nodes if each.kind == K.MACRO_INSTANTIATION]
        for each in nodes:
            self.visit(each, "", VALUE)

    def is_here(self, node):
        return node.location.file is not None and node.location.file.name == self.path

    @staticmethod
    def span(node):
        return node.extent.start.offset, node.extent.end.offset

    def in_macro(self, offset):
        return any(start <= offset < end for start, end in self.macros)

    def source(self, node):
        start, end = self.span(node)
        return self.text[start:end]

    def add(self, function, node, alternative, at, old, new):
        """`at`: where the label shows the change `old` -> `new`."""
        start, end = self.span(node)
        line = self.text[self.text.rfind("\n", 0, at) + 1:at] + f"[{old} -> {new}]" + \
            self.text[at + len(old):].split("\n", 1)[0]
        if alternative == "":
            line = "[removed] " + self.text[start:end]
        label = re.sub(r"\s+", " ", re.sub(r"\s*//.*", "", line)).strip()
        self.found.setdefault((start, end, label), Mutant(self.file, function, start, end, alternative, label))

    def visit(self, node, function, role):
        kind, (start, end) = node.kind, self.span(node)
        if kind in SKIPPED or kind.is_preprocessing() or kind.is_attribute() or self.in_macro(start) or start == end:
            if kind == K.DECL_REF_EXPR and role == CONDITION and not self.in_macro(start):
                self.negate(node, function)
            return
        children = list(node.get_children())
        if kind in FUNCTIONS:
            self.visit_function(node, children)
        elif kind in VARIABLES:
            self.visit_variable(node, children, function)
        elif kind in SCOPES or kind == K.PAREN_EXPR or (kind == K.UNEXPOSED_EXPR and
                                                        [self.span(child) for child in children] == [(start, end)]):
            for child in children:
                self.visit(child, function, role)
        elif kind in (K.IF_STMT, K.WHILE_STMT, K.FOR_STMT, K.DO_STMT, K.CXX_FOR_RANGE_STMT, K.SWITCH_STMT):
            self.visit_control(node, children, function)
        elif kind in (K.CASE_STMT, K.DEFAULT_STMT, K.COMPOUND_STMT, K.LABEL_STMT):
            for child in children[1 if kind == K.CASE_STMT else 0:]:
                self.visit(child, function, STATEMENT)
        elif kind == K.RETURN_STMT:
            for child in children:
                is_bool = child.type.get_canonical().kind == TypeKind.BOOL
                self.visit(child, function, CONDITION if is_bool else VALUE)
        else:
            self.visit_expression(node, kind, children, function, role)

    def visit_function(self, node, children):
        head, brace, _ = self.source(node).partition("{")
        if not brace or re.search(r"\b(constexpr|consteval)\b", head):
            return
        scope = node.semantic_parent
        name = node.spelling
        while scope is not None and scope.kind in SCOPES | {K.CLASS_TEMPLATE_PARTIAL_SPECIALIZATION}:
            name = f"{scope.spelling}::{name}" if scope.spelling else name
            scope = scope.semantic_parent
        for child in children:
            self.visit(child, name, VALUE)

    def visit_variable(self, node, children, function):
        name = node.location.offset
        if not function and node.kind != K.FIELD_DECL or "constexpr" in self.text[node.extent.start.offset:name]:
            return
        for child in children:
            start = child.extent.start.offset
            if start > name and "[" not in self.text[name:start]:
                self.visit(child, function or f"{node.semantic_parent.spelling}::{node.spelling}", VALUE)

    def visit_control(self, node, children, function):
        start, end = self.span(node)
        if node.kind == K.DO_STMT:
            roles = {0: STATEMENT, len(children) - 1: CONDITION}
        else:
            bracket = self.text.index("(", start)
            close = self.closing(bracket)
            roles = {n: STATEMENT for n, child in enumerate(children) if child.extent.start.offset > close}
            head = [n for n, child in enumerate(children) if n not in roles]
            if node.kind == K.FOR_STMT:
                head = [n for n in head if self.text[:children[n].extent.start.offset].rstrip().endswith(";")
                        and self.text[children[n].extent.end.offset:].lstrip().startswith(";")]
            declared = [n for n in head if children[n].kind in (K.VAR_DECL, K.DECL_STMT)]
            inside = any(n != head[-1] and self.span(children[n])[1] >= self.span(children[head[-1]])[1]
                         for n in declared) if head else True
            if "constexpr" in self.text[start:bracket]:
                children, roles = children[len(head):], {n: STATEMENT for n in range(len(children) - len(head))}
            elif head and not inside and node.kind in (K.IF_STMT, K.WHILE_STMT, K.FOR_STMT):
                roles[head[-1]] = CONDITION
        for n, child in enumerate(children):
            self.visit(child, function, roles.get(n, VALUE))

    def closing(self, at):
        """The offset of the bracket that closes the one at `at`."""
        depth = 0
        for match in re.compile(r"""[()]|"(?:\\.|[^"\\])*"|'(?:\\.|[^'\\])+'""").finditer(self.text, at):
            depth += {"(": 1, ")": -1}.get(match[0], 0)
            if depth == 0:
                return match.start()
        raise RuntimeError(f"{self.file}: no closing bracket")

    def negate(self, node, function):
        text = self.source(node)
        self.add(function, node, None, node.extent.start.offset, text, f"!({text})" if " " in text else f"!{text}")

    def operator(self, left, right):
        """The operator between two operands, and its offset."""
        match = re.compile(r"(?:\s|//[^\n]*\n)*([^\s\w]+)").match(self.text, left.extent.end.offset)
        return match[1] if match and match.end() <= right.extent.start.offset else "", match and match.start(1)

    def visit_expression(self, node, kind, children, function, role):
        start, end = self.span(node)
        is_check = kind == K.CALL_EXPR and self.text.startswith("RT_CHECK(", start)
        if is_check:
            if role != STATEMENT:
                self.visit(children[2], function, CONDITION)
            return
        if kind == K.MEMBER_REF_EXPR:
            children = [child for child in children if child.extent.start.offset == start]
        inner = VALUE
        if kind in (K.BINARY_OPERATOR, K.COMPOUND_ASSIGNMENT_OPERATOR) and len(children) == 2:
            inner = self.visit_binary(node, children, function, role)
        elif kind == K.UNARY_OPERATOR and len(children) == 1:
            inner = self.visit_unary(node, children[0], function, role)
        elif kind == K.INTEGER_LITERAL and role != CONDITION:
            match = re.fullmatch(r"(0x[0-9a-fA-F']+|[0-9']+)([uUlLzZ]*)", self.text[start:end])
            if match:
                value = int(match[1].replace("'", ""), 0)
                new = (f"{1 - value}" if value < 2 else f"{value + 1}") + match[2]
                self.add(function, node, new, start, match[0], new)
        elif kind == K.CXX_BOOL_LITERAL_EXPR:
            new = {"true": "false", "false": "true"}.get(self.text[start:end])
            self.add(function, node, new, start, self.text[start:end], new)
        elif kind == K.CONDITIONAL_OPERATOR:
            self.visit(children[0], function, CONDITION)
            children, inner = children[1:], CONDITION if role == CONDITION else VALUE
        elif role == STATEMENT and kind == K.CALL_EXPR:
            self.add(function, node, "", start, "", "")
        elif role == CONDITION and kind.is_expression() and kind != K.INTEGER_LITERAL:
            self.negate(node, function)
        for child in children:
            self.visit(child, function, inner)

    def visit_binary(self, node, children, function, role):
        old, at = self.operator(*children)
        left, right = (self.source(child) for child in children)
        if role == STATEMENT and (old == "=" or node.kind == K.COMPOUND_ASSIGNMENT_OPERATOR):
            self.add(function, node, "", node.extent.start.offset, "", "")
        news = ORDER.get(old) or ((SWAPS[old],) if old in SWAPS else ())
        kinds = [child.type.get_canonical().kind for child in children]
        if old in ("+", "-", "+=", "-=", "*", "/", "%") and (TypeKind.POINTER in kinds or TypeKind.DEPENDENT in kinds):
            news = ()
        for new in news:
            self.add(function, node, f"({left}) {new} ({right})", at, old, new)
        return CONDITION if old in ("&&", "||") else VALUE

    def visit_unary(self, node, child, function, role):
        text, operand = self.source(node), self.source(child)
        if text.startswith(("++", "--")):
            self.add(function, node, SWAPS[text[:2]] + operand, node.extent.start.offset, text[:2], SWAPS[text[:2]])
        elif text.endswith(("++", "--")):
            self.add(function, node, operand + SWAPS[text[-2:]], node.extent.end.offset - 2, text[-2:], SWAPS[text[-2:]])
        elif text.startswith("!"):
            return CONDITION
        elif role == CONDITION:
            self.negate(node, function)
        return VALUE


def instrument(text, mutants):
    """The text in which each mutant can be selected by its number."""
    order = sorted(mutants, key=lambda each: (each.start, -each.end))

    def rewrite(start, end, position):
        """The text of [start, end), and the first mutant after it. Mutants of the same range nest."""
        parts = []
        while position < len(order) and order[position].start < end:
            each = order[position]
            inner, following = rewrite(each.start, each.end, position + 1)
            if each.alternative is None:
                inner = f"(MUTANT({each.number}) != static_cast<bool>({inner}))"
            elif each.alternative == "":
                inner = f"(MUTANT({each.number}) ? void() : void({inner}))"
            else:
                inner = f"(MUTANT({each.number}) ? {each.alternative} : {inner})"
            parts += [text[start:each.start], inner]
            start, position = each.end, following
        return "".join(parts) + text[start:end], position

    return '#include "mutant.h"\n' + rewrite(0, len(text), 0)[0]
