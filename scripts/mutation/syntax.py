"""clang's syntax tree of one file, as far as the operators need it: nodes with byte ranges of the source."""
import pathlib
import re
import sys

try:
    import clang.cindex as cindex
except ImportError:  # the package is Debian's, the interpreter perhaps another
    sys.path.append("/usr/lib/python3/dist-packages")
    import clang.cindex as cindex

FUNCTIONS = {"FUNCTION_DECL", "CXX_METHOD", "CONSTRUCTOR", "DESTRUCTOR", "CONVERSION_FUNCTION", "FUNCTION_TEMPLATE"}
SCOPES = {"NAMESPACE", "CLASS_DECL", "STRUCT_DECL", "CLASS_TEMPLATE", "LINKAGE_SPEC", "ENUM_DECL",
          "CLASS_TEMPLATE_PARTIAL_SPECIALIZATION"}
TRANSPARENT = {"UNEXPOSED_EXPR"}


class Node:
    """A cursor with its range. What comes out of a macro is one leaf of the kind MACRO."""
    __slots__ = ("kind", "start", "end", "cursor", "parent", "children", "source")

    def __init__(self, cursor, parent, source, macros):
        self.kind = cursor.kind.name
        self.start = cursor.extent.start.offset
        self.end = cursor.extent.end.offset
        self.cursor = cursor
        self.parent = parent
        self.source = source
        if self.kind != "COMPOUND_STMT" and any(low <= self.start and self.end <= high for low, high in macros):
            self.kind = "MACRO"
            self.children = []
        else:
            self.children = [Node(child, self, source, macros) for child in cursor.get_children()]

    @property
    def text(self):
        return self.source[self.start:self.end].decode()

    @property
    def spelling(self):
        return self.cursor.spelling

    def type_name(self):
        """The type without const and reference; one name for what may stand in another's place."""
        name = self.cursor.type.get_canonical().spelling
        return re.sub(r"\bconst\b|&", "", name).replace(" ", "")

    def walk(self):
        yield self
        for child in self.children:
            yield from child.walk()

    def core(self):
        """The node below implicit conversions of the same range."""
        node = self
        while node.kind in TRANSPARENT and len(node.children) == 1 and node.children[0].start == node.start \
                and node.children[0].end == node.end:
            node = node.children[0]
        return node

    def ancestors(self):
        node = self.parent
        while node:
            yield node
            node = node.parent


class Scope:
    """What mutants are made in: a function or the declaration of a variable, a field or a constant."""

    def __init__(self, name, node, body, constant):
        self.name = name
        self.node = node
        self.body = body          # the node of a function's body, or None
        self.constant = constant  # evaluated, or perhaps so, while compiling


class SyntaxError_(Exception):
    """A file that clang does not read."""


def scopes(path, arguments):
    """The scopes of one file, in the order of the source, and its bytes."""
    source = pathlib.Path(path).read_bytes()
    unit = cindex.Index.create().parse(str(path), arguments,
                                       options=cindex.TranslationUnit.PARSE_DETAILED_PROCESSING_RECORD)
    errors = [str(found) for found in unit.diagnostics if found.severity >= cindex.Diagnostic.Error]
    if errors:
        raise SyntaxError_("; ".join(errors))
    macros = []
    top = []
    for cursor in unit.cursor.get_children():
        if not cursor.location.file or cursor.location.file.name != str(path):
            continue
        if cursor.kind.name == "MACRO_INSTANTIATION":
            macros.append((cursor.extent.start.offset, cursor.extent.end.offset))
        elif cursor.kind.is_declaration():
            top.append(cursor)
    found = []
    for cursor in top:
        _collect(cursor, [], source, macros, found)
    return source, found


def _collect(cursor, names, source, macros, found):
    kind = cursor.kind.name
    if kind in SCOPES:
        inner = names + [cursor.spelling] if cursor.spelling and kind != "LINKAGE_SPEC" else names
        for child in cursor.get_children():
            if child.kind.is_declaration():
                _collect(child, inner, source, macros, found)
    elif kind in FUNCTIONS:
        owner = cursor.semantic_parent
        outer = _qualified(owner) if owner and owner.kind.name not in ("TRANSLATION_UNIT",) else ""
        node = Node(cursor, None, source, macros)
        body = next((child for child in node.children if child.kind == "COMPOUND_STMT"), None)
        if not body:
            return
        name = (outer + "::" if outer else "") + cursor.displayname
        head = source[node.start:body.start].decode()
        found.append(Scope(name, node, body, bool(re.search(r"\bconstexpr\b", head))))
    elif kind in ("VAR_DECL", "FIELD_DECL", "ENUM_CONSTANT_DECL"):
        found.append(Scope("::".join(names + [cursor.spelling]), Node(cursor, None, source, macros), None, True))


def _qualified(cursor):
    names = []
    while cursor and cursor.kind.name != "TRANSLATION_UNIT":
        if cursor.spelling:
            names.append(cursor.spelling)
        cursor = cursor.semantic_parent
    return "::".join(reversed(names))


def between(first, second, source):
    """The text between two nodes without comments and blanks: an operator."""
    text = source[first.end:second.start].decode()
    text = re.sub(r"/\*.*?\*/|//[^\n]*", "", text, flags=re.S)
    return text.strip()


def condition(statement, source):
    """The condition of an if, while, do, for or ?:, or None where it declares a variable or is missing."""
    if statement.kind == "CONDITIONAL_OPERATOR":
        return statement.children[0] if len(statement.children) == 3 else None
    if statement.kind == "DO_STMT":
        return statement.children[-1] if statement.children else None
    low, high = _parentheses(source, statement.start)
    if statement.kind == "FOR_STMT":
        semicolons = _top_semicolons(source, low, high)
        if len(semicolons) != 2:
            return None
        low, high = semicolons
    inside = [child for child in statement.children if low < child.start and child.end <= high]
    last = inside[-1] if inside else None
    if statement.kind == "FOR_STMT" and last is None:
        return None
    if not last or last.kind.endswith(("_DECL", "_STMT")):
        return None
    declares = any(child.kind == "VAR_DECL" and child.end > last.start for child in statement.children)
    return None if declares else last


def stands_alone(node):
    """Whether the node is the body of an if, an else or a loop, and no block."""
    outer = node.parent
    if not outer or node.kind == "COMPOUND_STMT":
        return False
    if outer.kind == "IF_STMT":
        return node.start > _parentheses(outer.source, outer.start)[1]
    return outer.kind in ("FOR_STMT", "WHILE_STMT", "CXX_FOR_RANGE_STMT") and node is outer.children[-1]


def _parentheses(source, position):
    """The range inside the first pair of parentheses at or behind the position."""
    depth, low = 0, None
    for index, byte in _code(source, position):
        if byte == "(":
            if depth == 0:
                low = index
            depth += 1
        elif byte == ")":
            depth -= 1
            if depth == 0:
                return low, index
    return position, position


def _top_semicolons(source, low, high):
    depth, found = 0, []
    for index, byte in _code(source, low + 1):
        if index >= high:
            break
        depth += (byte in "({[") - (byte in ")}]")
        if byte == ";" and depth == 0:
            found.append(index)
    return found


_SKIPPED = re.compile(rb'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\])*"|\'(?:\\.|[^\'\\])*\'', re.S)


def _code(source, position):
    """The characters that are neither comment nor literal, with their places."""
    while position < len(source):
        skipped = _SKIPPED.match(source, position)
        if skipped:
            position = skipped.end()
            continue
        yield position, chr(source[position])
        position += 1


def end_of_statement(source, node):
    """The offset behind a statement's semicolon; a compound statement ends by itself."""
    if source[node.end - 1:node.end] in (b"}", b";"):
        inside = node.kind in ("COMPOUND_STMT", "DECL_STMT", "IF_STMT", "FOR_STMT", "WHILE_STMT", "SWITCH_STMT",
                               "CXX_FOR_RANGE_STMT", "CXX_TRY_STMT", "CASE_STMT", "DEFAULT_STMT")
        if inside:
            return node.end
    for index, byte in _code(source, node.end):
        if byte == ";":
            return index + 1
        if not byte.isspace():
            break
    return node.end
