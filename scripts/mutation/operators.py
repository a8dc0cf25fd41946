"""The operators: each looks at one node and yields the edits of its mutants. Places that could only give what nobody
can notice are left out here: sizes of arrays, `static_cast<void>`, neighbours that have nothing to do with each other."""
import re

from mutation.mutant import Edit
from mutation.syntax import between, condition, end_of_statement, stands_alone

CONDITIONED = {"IF_STMT", "WHILE_STMT", "DO_STMT", "FOR_STMT", "CONDITIONAL_OPERATOR"}
OPPOSITE = {"==": "!=", "!=": "==", "<": ">=", ">=": "<", ">": "<=", "<=": ">"}
MOVED_BOUND = {"<": "<=", "<=": "<", ">": ">=", ">=": ">"}
REFERENCE_CALLS = {"retain", "safeRetain", "release", "safeRelease", "autorelease"}
OWNED_HANDLE = re.compile(r"Owned<\w+>::(adopt|retain)\(")
GUARD_TYPE = re.compile(r"\b(GPMutexLock|lock_guard|unique_lock|scoped_lock)\b")
NUMBER = re.compile(r"(0[xX][0-9a-fA-F']+|[0-9][0-9']*)([uUlL]*)$")
HIGHEST_LEVEL = 128


def negated_conditions(node, source):
    for place in _conditions(node, source):
        yield _negation(place, source)


def _conditions(node, source):
    if node.kind in CONDITIONED:
        found = condition(node, source)
        if found and not _is_literal(found) and not _is_logical(found, source):
            yield found
    elif _is_logical(node, source):
        yield from (child for child in node.children if not _is_logical(child, source))
        yield from ([node] if _decides(node, source) else [])
    elif node.kind == "RETURN_STMT" or (node.kind == "VAR_DECL" and node.type_name() == "bool"):
        value = node.children[-1] if node.children else None
        if value and value.type_name() == "bool" and _is_expression(value) and not _is_literal(value) \
                and not _is_logical(value, source):
            yield value


def _decides(node, source):
    """Whether a logical expression is the whole of a condition."""
    outer = node.parent
    while outer and outer.kind == "UNEXPOSED_EXPR":
        outer = outer.parent
    return bool(outer) and outer.kind in CONDITIONED and _same(condition(outer, source), node)


def _same(first, second):
    return bool(first) and (first.start, first.end) == (second.start, second.end)


def _is_expression(node):
    return node.kind == "MACRO" or node.cursor.kind.is_expression()


def _is_literal(node):
    return node.core().kind in ("INTEGER_LITERAL", "CXX_BOOL_LITERAL_EXPR", "CXX_NULL_PTR_LITERAL_EXPR")


def _binary(node, source):
    """The operator of a plain binary expression, else nothing."""
    node = node.core()
    if node.kind != "BINARY_OPERATOR" or len(node.children) != 2:
        return ""
    return between(node.children[0], node.children[1], source)


def _is_logical(node, source):
    return _binary(node, source) in ("&&", "||")


def _negation(node, source):
    core = node.core()
    if _binary(core, source) in OPPOSITE:
        return [_other_operator(core, source, OPPOSITE)]
    if core.kind == "UNARY_OPERATOR" and core.text.startswith("!"):
        return [Edit(core.start, core.start + 1, "")]
    if core.kind in ("DECL_REF_EXPR", "CALL_EXPR", "MEMBER_REF_EXPR", "PAREN_EXPR") and not _is_operator_call(core):
        return [Edit(core.start, core.start, "!")]
    return [Edit(core.start, core.start, "!("), Edit(core.end, core.end, ")")]


def _other_operator(node, source, others):
    """The edit that puts another operator between the two sides."""
    left, right = node.children
    old = between(left, right, source)
    place = left.end + source[left.end:right.start].find(old.encode())
    return Edit(place, place + len(old), others[old])


def moved_bounds(node, source):
    if node.kind == "BINARY_OPERATOR" and _binary(node, source) in MOVED_BOUND:
        yield [_other_operator(node, source, MOVED_BOUND)]


def swapped_logic(node, source):
    found = _binary(node, source) if node.kind == "BINARY_OPERATOR" else ""
    if found in ("&&", "||"):
        left, right = node.children
        edits = [_other_operator(node, source, {"&&": "||", "||": "&&"})]
        if found == "&&" and node.parent and _is_logical(node.parent, source):  # && binds closer
            edits = [Edit(node.start, node.start, "("), *edits, Edit(node.end, node.end, ")")]
        elif found == "||":
            edits = [*_in_parentheses(left, source), *edits, *_in_parentheses(right, source)]
        yield edits


def _in_parentheses(node, source):
    if _binary(node, source) != "||":
        return []
    return [Edit(node.start, node.start, "("), Edit(node.end, node.end, ")")]


def moved_constants(node, source):
    if node.kind == "CXX_BOOL_LITERAL_EXPR":
        yield [Edit(node.start, node.end, "false" if node.text == "true" else "true")]
    if node.kind != "INTEGER_LITERAL" or _is_array_size(node, source) or _asks_log_level(_call_of(node)):
        return
    number = NUMBER.match(node.text)
    if not number:
        return
    digits, suffix = number.group(1).replace("'", ""), number.group(2)
    if digits.lower().startswith("0x"):
        yield [Edit(node.start, node.end, f"0x{int(digits, 16) + 1:x}{suffix}")]
    else:
        value = int(digits, 8) if len(digits) > 1 and digits[0] == "0" else int(digits)
        prefix = "0" if len(digits) > 1 and digits[0] == "0" else ""
        yield [Edit(node.start, node.end, f"{prefix}{value + 1:{'o' if prefix else 'd'}}{suffix}")]


def _is_array_size(node, source):
    for outer in node.ancestors():
        if outer.kind in ("VAR_DECL", "FIELD_DECL", "CXX_NEW_EXPR"):
            head = source[outer.start:node.start].decode()
            return head.count("[") > head.count("]") and "=" not in head.split("[")[-1]
        if outer.kind.endswith("_STMT") or outer.kind == "ARRAY_SUBSCRIPT_EXPR":
            return False
    return False


def _call_of(node):
    return next((outer for outer in node.ancestors() if outer.kind != "UNEXPOSED_EXPR"), None)


def _asks_log_level(node):
    return bool(node) and node.kind == "CALL_EXPR" and node.spelling == "isLogLevel"


def changed_log_levels(node, source):
    if _asks_log_level(node) and node.children:
        level = node.children[-1].core()
        if level.kind == "INTEGER_LITERAL" and level.text.isdigit():
            value = int(level.text)
            yield [Edit(level.start, level.end, str(value * 2 if value < HIGHEST_LEVEL else value // 2))]


def dropped_statements(node, source):
    if _is_dropped_alone(node, source) and not _reference_call(node):
        yield [Edit(node.start, node.end, "")]


def _is_dropped_alone(node, source):
    """Whether the node is a statement that calls or assigns."""
    if not _is_statement(node) or end_of_statement(source, node) == node.end:
        return False
    core = _inner(node)
    if core.kind == "UNARY_OPERATOR":
        return core.text.startswith(("++", "--")) or core.text.endswith(("++", "--"))
    if core.kind == "BINARY_OPERATOR":
        return _binary(core, source) == "="
    return core.kind in ("CALL_EXPR", "COMPOUND_ASSIGNMENT_OPERATOR", "MACRO")


def _inner(node):
    """The expression below conversions and temporaries, whatever their range."""
    while node.kind == "UNEXPOSED_EXPR" and len(node.children) == 1:
        node = node.children[0]
    return node


def _is_statement(node):
    """Whether an expression is a statement of its own."""
    outer = node.parent
    if not outer or not _is_expression(node):
        return False
    if outer.kind in ("CASE_STMT", "DEFAULT_STMT"):
        return node is outer.children[-1]
    return outer.kind == "COMPOUND_STMT" or stands_alone(node)


def dropped_guards(node, source):
    if node.kind == "DECL_STMT" and _is_guard(node):
        name = node.children[0].spelling
        own = [Edit(node.start, node.end, "")]
        yield own + [Edit(call.start, call.end, "") for call in _uses(node.parent, name, source)]
    if _is_dropped_alone(node, source) and _inner(node).spelling == "lock":
        opened = _inner(node).text
        closing = [other for other in _later(node) if _is_expression(other)
                   and other.text == opened.replace("lock()", "unlock()")]
        if closing:
            yield [Edit(node.start, node.end, ""), Edit(closing[0].start, closing[0].end, "")]


def _is_guard(node):
    return node.kind == "DECL_STMT" and len(node.children) == 1 and node.children[0].kind == "VAR_DECL" \
        and bool(GUARD_TYPE.search(node.children[0].cursor.type.spelling))


def _uses(block, name, source):
    """The statements that free the guard ahead of its end."""
    return [node for node in block.walk()
            if _is_dropped_alone(node, source) and node.text == f"{name}.unlock()"] if block else []


def _later(node):
    return node.parent.children[node.parent.children.index(node) + 1:]


def swapped_statements(node, source):
    if node.kind != "COMPOUND_STMT":
        return
    for first, second in zip(node.children, node.children[1:]):
        if not (_can_move(first, source) and _can_move(second, source)) or first.text == second.text:
            continue
        if first.kind == "DECL_STMT" and second.kind == "DECL_STMT" and not (_is_guard(first) or _is_guard(second)):
            continue
        if _independent(first, second):
            continue
        texts = [node.text.rstrip(";") for node in (first, second)]
        yield [Edit(first.start, first.start + len(texts[0].encode()), texts[1]),
               Edit(second.start, second.start + len(texts[1].encode()), texts[0])]


def _can_move(node, source):
    return _is_dropped_alone(node, source) or _is_guard(node)


def _independent(first, second):
    """Whether two statements call nothing and neither writes what the other reads or writes."""
    if any(_calls(inner) for node in (first, second) for inner in node.walk()):
        return False
    return not (_written(first) & (_written(second) | _named(second)) or _written(second) & _named(first))


def _calls(node):
    if node.kind == "CALL_EXPR" and node.spelling == "operator=" and node.children:
        return "atomic" in node.children[0].type_name()
    return node.kind in ("CALL_EXPR", "MACRO")


def _named(node):
    return {inner.text for inner in node.walk() if inner.kind in ("DECL_REF_EXPR", "MEMBER_REF_EXPR")}


def _written(node):
    core = _inner(node)
    return {core.children[0].text} if core.children else set()


def changed_references(node, source):
    if _is_statement(node):
        if _reference_call(node):
            yield [Edit(node.start, node.end, "")]
            yield [Edit(node.start, node.end, f"{node.text}, {node.text}")]
    elif _reference_call(node) and not _is_statement(_outer_expression(node)):
        yield [Edit(node.start, node.end, f"({node.text}, {node.text})")]
    handle = OWNED_HANDLE.match(node.text) if node.kind == "CALL_EXPR" else None
    if handle:
        other = "retain" if handle.group(1) == "adopt" else "adopt"
        yield [Edit(node.start + handle.start(1), node.start + handle.end(1), other)]


def _outer_expression(node):
    """The node around conversions and temporaries."""
    while node.parent and node.parent.kind == "UNEXPOSED_EXPR":
        node = node.parent
    return node


def _reference_call(node):
    """The call by which an object's count changes, in the node or below its conversions."""
    core = _inner(node) if _is_statement(node) else node
    counts = core.kind == "CALL_EXPR" and core.spelling in REFERENCE_CALLS and core.text.endswith("()")
    return core if counts else None


def dropped_returns(node, source):
    if node.kind != "RETURN_STMT" or not node.parent:
        return
    body, inside_if = None, False
    path = {id(node)}
    for outer in node.ancestors():
        inside_if = inside_if or outer.kind == "IF_STMT"
        if outer.kind == "COMPOUND_STMT" and (not outer.parent or outer.parent.kind in FUNCTION_KINDS):
            body = outer
            break
        path.add(id(outer))
    if body and inside_if and id(body.children[-1]) not in path:
        yield [Edit(node.start, node.end, "")]


FUNCTION_KINDS = {"LAMBDA_EXPR", "FUNCTION_DECL", "CXX_METHOD", "CONSTRUCTOR", "DESTRUCTOR", "CONVERSION_FUNCTION",
                  "FUNCTION_TEMPLATE"}


def replaced_arguments(node, source):
    if node.kind != "CALL_EXPR" or _is_operator_call(node):
        return
    arguments = [argument for argument in _arguments(node) if argument.end > argument.start]
    for index, argument in enumerate(arguments):
        neighbours = arguments[index + 1:index + 2] + arguments[max(index - 1, 0):index]
        for neighbour in neighbours:
            if neighbour.type_name() == argument.type_name() and neighbour.text != argument.text:
                yield [Edit(argument.start, argument.end, neighbour.text)]
                break


def _is_operator_call(node):
    return node.kind == "CALL_EXPR" and node.spelling.startswith("operator")


def _arguments(node):
    ranges = [(found.extent.start.offset, found.extent.end.offset) for found in node.cursor.get_arguments() if found]
    return [child for child in node.children if (child.start, child.end) in ranges and child.start > node.start]


ALL = {
    "condition": negated_conditions,
    "bound": moved_bounds,
    "logic": swapped_logic,
    "constant": moved_constants,
    "drop": dropped_statements,
    "guard": dropped_guards,
    "swap": swapped_statements,
    "reference": changed_references,
    "return": dropped_returns,
    "level": changed_log_levels,
    "argument": replaced_arguments,
}
