"""Writes changed sources. Many mutants share one text: a function's body stands in it once for each, and a number that
the program reads once, before all else, says which is in force. The same texts can note which statements were reached."""
import dataclasses

from mutation.mutant import apply

# How the two numbers come into a program; they exist only in the copy that is built here.
VARIABLE, MAP_FILE, STATEMENTS = "OSTLER_MUTANT", "OSTLER_REACHED", 1 << 16
DECLARATIONS = b'extern "C" { extern int ostlerMutant; extern unsigned char* ostlerReached; }\n'
SWITCH = f"""#include <cstdlib>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

extern "C" {{
static unsigned char nowhere[{STATEMENTS}];
int ostlerMutant = 0;
unsigned char* ostlerReached = nowhere;

// Ahead of every constructor of the program. The map is shared with all processes that the test starts, so that
// what a child reached counts however the child ends.
__attribute__((constructor(101))) static void readMutant() {{
    if (const char* number = std::getenv("{VARIABLE}")) ostlerMutant = std::atoi(number);
    const char* path = std::getenv("{MAP_FILE}");
    const int file = path ? open(path, O_RDWR | O_CLOEXEC) : -1;
    if (file < 0) return;
    void* map = mmap(nullptr, {STATEMENTS}, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    if (map != MAP_FAILED) ostlerReached = static_cast<unsigned char*>(map);
}}
}}
"""


@dataclasses.dataclass(frozen=True)
class Text:
    content: bytes
    lines: tuple  # (number of a mutant, its first line, its last line)


def with_mutants(source, numbered):
    """A file's text with all of these mutants; `numbered` are pairs (number, mutant) that have a body."""
    bodies = {}
    for number, mutant in numbered:
        bodies.setdefault(mutant.body, []).append((number, mutant))
    parts, lines, position = [DECLARATIONS], [], 0
    for (start, end), inside in sorted(bodies.items()):
        parts.append(source[position:start] + b"{ switch (ostlerMutant) {\n")
        for number, mutant in inside:
            parts.append(b"case %d: " % number)
            first = _line_of_end(parts)
            parts.append(apply(source, mutant.edits, start, end) + b" break;\n")
            lines.append((number, first, _line_of_end(parts) - 1))
        parts.append(b"default: " + source[start:end] + b" } }")
        position = end
    parts.append(source[position:])
    return Text(b"".join(parts), tuple(lines))


def _line_of_end(parts):
    return sum(part.count(b"\n") for part in parts) + 1


def with_probes(source, statements, first):
    """A file's text that notes each reached statement, numbered on from `first`."""
    insertions = []
    for index, (start, end, needs_braces) in enumerate(statements):
        probe = b"ostlerReached[%d] = 1; " % (first + index)
        # At one place an outer statement's probe comes first, and an inner brace closes first.
        insertions.append((start, 1, -end, (b"{ " if needs_braces else b"") + probe))
        if needs_braces:
            insertions.append((end, 0, -start, b" }"))
    parts, position = [DECLARATIONS], 0
    for place, _, _, text in sorted(insertions):
        parts += [source[position:place], text]
        position = place
    return b"".join(parts + [source[position:]])
