"""Finds the small faults that can be put into a source: its syntax tree comes from libclang, a
fault is a piece of text to replace.

Not generated is what would change nothing by construction: comments, assertions at compile time,
operands of sizeof, branches that are dead at compile time, and exchanged statements of which only
one has an effect beyond what it writes, and neither mentions what the other writes.
"""

import hashlib
import re
from dataclasses import dataclass, field
from pathlib import Path

from clang.cindex import CursorKind, Index, TypeKind

LOOPS = (CursorKind.WHILE_STMT, CursorKind.DO_STMT, CursorKind.FOR_STMT)
JUMPS = (CursorKind.BREAK_STMT, CursorKind.CONTINUE_STMT, CursorKind.RETURN_STMT)
LABELS = (CursorKind.CASE_STMT, CursorKind.DEFAULT_STMT)
ASSIGNMENTS = ("=", "+=", "-=", "*=", "/=", "%=", "&=", "|=", "^=", "<<=", ">>=")
OPERATORS = {
    "<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "==",
    "&&": "||", "||": "&&",
    "+": "-", "-": "+", "*": "/", "/": "*", "%": "*",
    "&": "|", "|": "&", "^": "|", "<<": ">>", ">>": "<<",
    "+=": "-=", "-=": "+=", "*=": "/=", "/=": "*=", "&=": "|=", "|=": "&=",
}
INTEGERS = (
    TypeKind.CHAR_S, TypeKind.CHAR_U, TypeKind.SCHAR, TypeKind.UCHAR, TypeKind.SHORT,
    TypeKind.USHORT, TypeKind.INT, TypeKind.UINT, TypeKind.LONG, TypeKind.ULONG, TypeKind.LONGLONG,
    TypeKind.ULONGLONG,
)
FUNCTIONS = (CursorKind.FUNCTION_DECL, CursorKind.CXX_METHOD, CursorKind.FUNCTION_TEMPLATE)
# Calls that only look: no effect, and nothing in the tests records them.
LOOKS = {"strlen", "strnlen", "strchr", "strrchr", "strcmp", "max", "min", "getpid", "getppid",
         "getpgrp", "fileno", "ferror", "strtol", "sysconf", "ntohl", "inet_ntoa", "size",
         "__errno_location", "__builtin_va_end"}
# Calls that write what their first argument names and do no more.
WRITERS = {"memcpy", "memset", "snprintf", "sigemptyset", "sigfillset"}


@dataclass(frozen=True)
class Mutant:
    file: str  # relative to the checkout
    line: int
    function: str
    kind: str
    what: str  # the change, in one line
    start: int  # bytes of the file that are replaced
    end: int
    replacement: str
    key: str  # the same as long as the file's content is
    text: bytes = field(repr=False)  # of the file without the fault

    def faulty(self) -> bytes:
        return self.text[: self.start] + self.replacement.encode() + self.text[self.end :]

    def name(self) -> str:
        """Names the fault without its line: what its argument is listed under."""
        return f"{Path(self.file).name} {self.function}: {self.kind}: {self.what}"


def squeezed(text: str) -> str:
    return re.sub(r"\s+", " ", text).strip()


def outermost(expression: str) -> str:
    """The variable that an expression begins with."""
    return re.search(r"[A-Za-z_]\w*", expression)[0]


def unwrapped(cursor):
    """The expression below what the compiler or parentheses put around it."""
    while cursor.kind in (CursorKind.UNEXPOSED_EXPR, CursorKind.PAREN_EXPR):
        inner = list(cursor.get_children())
        if len(inner) != 1:
            break
        cursor = inner[0]
    return cursor


class Finder:
    def __init__(self, checkout: Path, file: str, arguments):
        self.file = file
        self.path = checkout / file
        self.text = self.path.read_bytes()
        self.lines = self.text.decode().splitlines()
        self.digest = hashlib.sha1(self.text).hexdigest()
        self.function = "(file)"
        self.result = None  # type of the function
        self.found = {}
        self.switches = []  # texts of the switches around
        self.done = set()  # offsets of numbers that are changed another way
        unit = Index.create().parse(str(self.path), args=arguments)
        errors = [str(note) for note in unit.diagnostics if note.severity >= 3]
        assert not errors, errors
        own = [cursor for cursor in unit.cursor.get_children()
               if cursor.location.file and Path(cursor.location.file.name) == self.path]
        self.looks, self.writers = set(LOOKS), set(WRITERS)
        for cursor in own:
            self.learn(cursor)
        for cursor in own:
            self.visit(cursor)

    # --- Text ------------------------------------------------------------------------------------

    def source(self, cursor) -> str:
        return self.text[cursor.extent.start.offset : cursor.extent.end.offset].decode()

    def between(self, first, second) -> str:
        return self.text[first.extent.end.offset : second.extent.start.offset].decode().strip()

    def whole(self, statement):
        """The bytes of a statement, its semicolon included."""
        end = statement.extent.end.offset
        rest = self.text[end:]
        if rest.lstrip().startswith(b";"):
            end += rest.index(b";") + 1
        return statement.extent.start.offset, end

    def add(self, kind, line, start, end, replacement, what) -> None:
        if self.text[start:end].decode() == replacement:
            return
        identity = f"{self.file} {self.digest} {start} {end} {replacement}"
        key = hashlib.sha1(identity.encode()).hexdigest()[:16]
        self.found.setdefault(
            (start, end, replacement),
            Mutant(self.file, line, self.function, kind, squeezed(what), start, end, replacement,
                   key, self.text),
        )

    def replace(self, kind, cursor, replacement) -> None:
        what = f"{self.source(cursor)} -> {replacement}"
        if kind == "constant":
            what += f" in {self.lines[cursor.extent.start.line - 1]}"
        self.add(kind, cursor.extent.start.line, cursor.extent.start.offset,
                 cursor.extent.end.offset, replacement, what)

    # --- The tree --------------------------------------------------------------------------------

    def visit(self, cursor) -> None:
        kind = cursor.kind
        if kind in (CursorKind.STATIC_ASSERT, CursorKind.CXX_UNARY_EXPR):
            return
        if kind in FUNCTIONS:
            if "{" not in self.source(cursor):
                return  # a declaration, or made by a macro
            outside = self.function, self.result
            self.function, self.result = cursor.spelling, cursor.result_type
            self.visit_children(cursor)
            self.function, self.result = outside
            return
        if self.dead(cursor):
            return
        if kind == CursorKind.SWITCH_STMT:
            self.switches.append(self.source(cursor))
            self.visit_children(cursor)
            self.switches.pop()
            return
        if kind == CursorKind.CASE_STMT:
            label, *below = cursor.get_children()
            self.label(label)
            for child in below:
                self.visit(child)
            return
        handler = {
            CursorKind.IF_STMT: self.condition,
            CursorKind.WHILE_STMT: self.condition,
            CursorKind.DO_STMT: self.condition,
            CursorKind.FOR_STMT: self.condition,
            CursorKind.CONDITIONAL_OPERATOR: self.condition,
            CursorKind.BINARY_OPERATOR: self.operator,
            CursorKind.COMPOUND_ASSIGNMENT_OPERATOR: self.operator,
            CursorKind.UNARY_OPERATOR: self.unary,
            CursorKind.COMPOUND_STMT: self.sequence,
            CursorKind.RETURN_STMT: self.returned,
            CursorKind.INTEGER_LITERAL: self.integer,
            CursorKind.CHARACTER_LITERAL: self.character,
            CursorKind.CXX_BOOL_LITERAL_EXPR: self.boolean,
            CursorKind.DECL_REF_EXPR: self.reference,
            CursorKind.STRING_LITERAL: self.string,
            CursorKind.VAR_DECL: self.array,
            CursorKind.FIELD_DECL: self.array,
        }.get(kind)
        if handler:
            handler(cursor)
        if kind == CursorKind.INIT_LIST_EXPR and self.numbers_only(cursor):
            self.visit(list(cursor.get_children())[-1])  # one number stands for the row
            return
        self.visit_children(cursor)

    def visit_children(self, cursor) -> None:
        for child in cursor.get_children():
            self.visit(child)

    def numbers_only(self, cursor) -> bool:
        children = [unwrapped(child) for child in cursor.get_children()]
        return len(children) > 2 and all(
            child.kind == CursorKind.INTEGER_LITERAL for child in children
        )

    def dead(self, cursor) -> bool:
        """Whether one side of a choice is never compiled: the choice is made at compile time."""
        if cursor.kind != CursorKind.CONDITIONAL_OPERATOR:
            return False
        chosen = unwrapped(next(cursor.get_children()))
        return (
            chosen.kind == CursorKind.DECL_REF_EXPR
            and chosen.spelling != "strict"  # of which both sides are built
            and chosen.referenced is not None
            and any(token.spelling == "constexpr" for token in chosen.referenced.get_tokens())
        )

    # --- Faults ----------------------------------------------------------------------------------

    def header(self, cursor):
        """The parts in the parentheses of a statement, and where its semicolons are."""
        depth, opened, semicolons = 0, None, []
        for token in cursor.get_tokens():
            offset = token.extent.start.offset
            if token.spelling == "(":
                depth += 1
                opened = offset if opened is None else opened
            elif token.spelling == ")":
                depth -= 1
                if depth == 0:
                    return opened, offset, semicolons
            elif token.spelling == ";" and depth == 1:
                semicolons.append(offset)
        return None

    def condition(self, cursor) -> None:
        children = list(cursor.get_children())
        if cursor.kind == CursorKind.CONDITIONAL_OPERATOR:
            tested = children[0]
        elif cursor.kind == CursorKind.DO_STMT:
            tested = children[-1]
        else:
            opened, closed, semicolons = self.header(cursor)
            if cursor.kind == CursorKind.FOR_STMT:
                opened, closed = semicolons
            inside = [
                child for child in children
                if opened < child.extent.start.offset and child.extent.end.offset <= closed
            ]
            if not inside:
                return
            tested = inside[-1]
        plain = unwrapped(tested)
        if plain.kind == CursorKind.BINARY_OPERATOR:
            left, right = plain.get_children()
            if self.between(left, right) in ("==", "!="):
                return  # the changed operator is the turned condition
        if plain.kind == CursorKind.UNARY_OPERATOR and self.source(plain).startswith("!"):
            return
        self.replace("condition", tested, f"!({self.source(tested)})")

    def operator(self, cursor) -> None:
        children = list(cursor.get_children())
        if len(children) != 2:
            return
        left, right = children
        sign = self.between(left, right)
        if sign not in OPERATORS:
            return
        start = left.extent.end.offset
        start += len(self.text[start:]) - len(self.text[start:].lstrip())
        changed = OPERATORS[sign]
        self.add("operator", left.extent.end.line, start, start + len(sign), changed,
                 f"{self.source(cursor)}: {sign} -> {changed}")

    def unary(self, cursor) -> None:
        text = self.source(cursor)
        (operand,) = cursor.get_children()
        inner = self.source(operand)
        if text.startswith(("++", "--")):
            self.replace("operator", cursor, ("--" if text[0] == "+" else "++") + inner)
        elif text.endswith(("++", "--")):
            self.replace("operator", cursor, inner + ("--" if text[-1] == "+" else "++"))
        elif text[0] in "!-~" and inner != text:
            self.replace("operator", cursor, inner)
            self.done.add(operand.extent.start.offset)

    def returned(self, cursor) -> None:
        value = next(cursor.get_children(), None)
        if value is None:
            return
        plain = unwrapped(value)
        if plain.kind in (
            CursorKind.INTEGER_LITERAL, CursorKind.CXX_BOOL_LITERAL_EXPR,
            CursorKind.CXX_NULL_PTR_LITERAL_EXPR, CursorKind.CONDITIONAL_OPERATOR,
            CursorKind.CXX_UNARY_EXPR,
        ) or re.fullmatch(r"-?\d+|[A-Z_]+", self.source(value)):
            return  # changed as what it is
        if plain.kind == CursorKind.DECL_REF_EXPR and self.enumerator(plain) is not None:
            return
        if plain.kind == CursorKind.BINARY_OPERATOR:
            left, right = plain.get_children()
            if self.between(left, right) in ("==", "!="):
                return
        kind = value.type.get_canonical().kind
        if kind == TypeKind.DEPENDENT and self.result is not None:
            kind = self.result.get_canonical().kind
        text = self.source(value)
        if kind == TypeKind.BOOL:
            self.replace("return value", value, f"!({text})")
        elif kind == TypeKind.POINTER:
            self.replace("return value", value, "nullptr")
        elif kind in INTEGERS:
            self.replace("return value", value, f"({text}) + 1")

    def integer(self, cursor, step=1) -> None:
        text = self.source(cursor)
        if step > 0 and cursor.extent.start.offset in self.done:
            return
        if re.fullmatch(r"[A-Za-z_]\w*", text):  # a macro
            self.replace("constant", cursor, f"({text} {'-' if step < 0 else '+'} {abs(step)})")
            return
        number = re.fullmatch(r"(0[xX]|0(?=\d))?([0-9a-fA-F]+)([uUlL]*)", text)
        if not number:
            return
        base, form = {None: (10, "d"), "0": (8, "o")}.get(number[1], (16, "X"))
        value = int(number[2], base)
        if value >= 0xFF and value & (value + 1) == 0:
            step = -1  # all ones: one more would be another width's
        changed = (number[1] or "") + format(value + step, form) + number[3]
        self.replace("constant", cursor, changed)

    def character(self, cursor) -> None:
        text = self.source(cursor)
        if not text.startswith("'"):
            return
        value = ord(text[1:-1].encode().decode("unicode_escape"))
        self.replace("constant", cursor, f"'\\x{value + 1:02x}'")

    def boolean(self, cursor) -> None:
        self.replace("constant", cursor, "false" if self.source(cursor) == "true" else "true")

    def enumerator(self, cursor):
        referenced = cursor.referenced
        if referenced is None or referenced.kind != CursorKind.ENUM_CONSTANT_DECL:
            return None
        return referenced

    def label(self, cursor) -> None:
        """A label becomes one that the switch does not have."""
        plain = unwrapped(cursor)
        if plain.kind == CursorKind.INTEGER_LITERAL:
            self.integer(plain, step=100)
        elif plain.kind == CursorKind.DECL_REF_EXPR:
            self.reference(plain, taken=re.findall(r"\w+", self.switches[-1]))

    def reference(self, cursor, taken=()) -> None:
        """A named constant becomes the next one of its enumeration that has another value."""
        named = self.enumerator(cursor)
        if named is None or not self.source(cursor).endswith(named.spelling):
            return
        family = [
            constant for constant in named.semantic_parent.get_children()
            if constant.kind == CursorKind.ENUM_CONSTANT_DECL
        ]
        place = [constant.spelling for constant in family].index(named.spelling)
        for constant in family[place + 1 :] + family[:place]:
            if constant.enum_value != named.enum_value and constant.spelling not in taken:
                prefix = self.source(cursor)[: -len(named.spelling)]
                self.replace("constant", cursor, prefix + constant.spelling)
                return

    def string(self, cursor) -> None:
        text = self.source(cursor)
        if not text.startswith('"'):
            return
        hidden = re.sub(r'\\.|%[-+ #0-9.*]*[hlzjt]*[a-zA-Z%]|"\s+"',
                        lambda match: " " * len(match[0]), text)
        letters = [place for place, letter in enumerate(hidden) if letter.isalnum()] or [
            place for place, letter in enumerate(hidden) if letter not in ' "'
        ]
        if not letters:
            self.replace("string", cursor, text[:-1] + ' "')
            return
        place = letters[len(letters) // 2]
        changed = {"z": "a", "Z": "A", "9": "0"}.get(text[place], chr(ord(text[place]) + 1))
        self.replace("string", cursor, text[:place] + changed + text[place + 1 :])

    def array(self, cursor) -> None:
        """The size of an array: one less, since more would never be noticed."""
        if cursor.type.kind != TypeKind.CONSTANTARRAY:
            return
        for child in cursor.get_children():
            if child.kind == CursorKind.INTEGER_LITERAL:
                self.done.add(child.extent.start.offset)
                if self.source(child) != "1":
                    self.integer(child, step=-1)

    # --- Statements ------------------------------------------------------------------------------

    def sequence(self, cursor) -> None:
        statements = list(cursor.get_children())
        for statement in statements:
            last_jump = statement is statements[-1] and statement.kind == CursorKind.BREAK_STMT
            if not last_jump:
                self.leave_out(statement)
        for first, second in zip(statements, statements[1:]):
            self.exchange(first, second)

    def leave_out(self, statement) -> None:
        while statement.kind in LABELS:
            statement = list(statement.get_children())[-1]
        for body in self.bodies(statement):
            self.leave_out(body)
        plain = unwrapped(statement)
        if (
            statement.kind in JUMPS and next(statement.get_children(), None) is None
            or plain.kind == CursorKind.CALL_EXPR and plain.spelling not in LOOKS
            or plain.kind == CursorKind.COMPOUND_ASSIGNMENT_OPERATOR
            or self.writes(plain) is not None
        ):
            start, end = self.whole(statement)
            self.add("left out", statement.location.line, start, end, ";",
                     f"without {self.source(statement)}")

    def bodies(self, statement):
        """The statements below one that are not in braces."""
        if statement.kind == CursorKind.CXX_FOR_RANGE_STMT:
            below = list(statement.get_children())[-1:]
        elif statement.kind == CursorKind.IF_STMT or statement.kind in LOOPS:
            header = self.header(statement)
            if statement.kind == CursorKind.DO_STMT:
                below = list(statement.get_children())[:1]
            else:
                below = [child for child in statement.get_children()
                         if child.extent.start.offset > header[1]]
        else:
            below = []
        return [child for child in below if child.kind != CursorKind.COMPOUND_STMT]

    def writes(self, expression):
        """What an expression writes to, or None."""
        children = list(expression.get_children())
        if expression.kind == CursorKind.CALL_EXPR and expression.spelling in self.writers:
            return next(expression.get_arguments(), None)
        if expression.kind == CursorKind.UNARY_OPERATOR:
            text = self.source(expression)
            return children[0] if "++" in text or "--" in text else None
        if len(children) == 2 and expression.kind in (
            CursorKind.BINARY_OPERATOR, CursorKind.COMPOUND_ASSIGNMENT_OPERATOR
        ) and self.between(*children) in ASSIGNMENTS:
            return children[0]
        return None

    def exchange(self, first, second) -> None:
        if any(one.kind in JUMPS + LABELS or self.dead(one) for one in (first, second)):
            return
        if not (self.matter(first, second) and self.declares_nothing_for(first, second)):
            return
        start, middle = self.whole(first)
        following, end = self.whole(second)
        gap = self.text[middle:following]
        swapped = self.text[following:end] + gap + self.text[start:middle]
        self.add("exchanged", first.location.line, start, end, swapped.decode(),
                 f"{self.source(first)} <-> {self.source(second)}")

    def learn(self, cursor) -> None:
        """Learns which procedures of the file only look, or write only their first argument."""
        if cursor.kind == CursorKind.NAMESPACE:
            for child in cursor.get_children():
                self.learn(child)
        if cursor.kind not in FUNCTIONS:
            return
        parts = list(cursor.walk_preorder())
        known = self.looks | self.writers
        if any(part.kind == CursorKind.CALL_EXPR and part.spelling not in known for part in parts):
            return
        written = {outermost(self.source(one)) for one in map(self.writes, parts) if one}
        parameters = [part.spelling for part in parts if part.kind == CursorKind.PARM_DECL]
        if not written:
            self.looks.add(cursor.spelling)
        elif written == set(parameters[:1]):
            self.writers.add(cursor.spelling)

    def effects(self, statement) -> bool:
        """Whether a statement does more than to look and to write one thing."""
        own = unwrapped(statement)
        for part in statement.walk_preorder():
            if part.kind in JUMPS:
                return True
            if part.kind != CursorKind.CALL_EXPR or part.spelling in self.looks:
                continue
            made = part.referenced is not None and part.referenced.kind == CursorKind.CONSTRUCTOR
            if not made and not (part.spelling in self.writers and part == own):
                return True
        return False

    def matter(self, first, second) -> bool:
        """Whether the order of two statements can be seen."""
        if self.effects(first) and self.effects(second):
            return True
        for one, other in ((first, second), (second, first)):
            written = self.writes(unwrapped(one))
            if written is not None and self.mentions(other, self.source(written)):
                return True
        return False

    def mentions(self, statement, written: str) -> bool:
        """Whether a statement has to do with what is written, or with all that it is in."""
        text = re.sub(r"\bsizeof\b\s*\(?[\w.>-]+", "", self.source(statement))
        member = rf"\b{outermost(written)}\b" + ("" if written[0] == "*" else r"(?!->|\.|\[\d)")
        itself = rf"(?<!\w){re.escape(written)}(?!\w)"
        return re.search(f"{itself}|{member}", text) is not None

    def declares_nothing_for(self, first, second) -> bool:
        """Whether the second statement does without what the first declares."""
        if first.kind == CursorKind.DECL_STMT:
            names = re.findall(r"\w+", self.source(second))
            return not any(child.spelling in names for child in first.get_children())
        return True


def find(checkout: Path, file: str, arguments):
    """All faults of one source, in the order of their places."""
    finder = Finder(checkout, file, arguments)
    return sorted(finder.found.values(), key=lambda one: (one.start, one.end, one.replacement))
