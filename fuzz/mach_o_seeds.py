"""Small Mach-O programs and compact unwind tables, as seeds: each way in which a file may tell of its fixups, sections
of every kind that the loader looks at, and pages of both kinds with frames of every layout."""
import struct

CODE, DATA = 0x100000000, 0x100001000
PAGE = 0x1000
CODE_BYTES, DATA_BYTES, ENTRY = 0x400, 0x100, 0x3f0
CODE_SEGMENT, DATA_SEGMENT = 1, 2  # behind the gap at address 0
NAME = b"_name\0"


def field(text):
    return text.encode().ljust(16, b"\0")


def command(kind, content):
    content += b"\0" * (-len(content) % 8)
    return struct.pack("<II", kind, 8 + len(content)) + content


def section(segment, name, kind, offset, size):
    start = CODE if segment == "__TEXT" else DATA
    return field(name) + field(segment) + struct.pack("<QQ8I", start + offset, size, start - CODE + offset, 3, 0, 0,
                                                      kind, 0, 0, 0)


def segment(name, address, memory, offset, size, protection, sections=()):
    return command(0x19, field(name) + struct.pack("<QQQQiiII", address, memory, offset, size, protection, protection,
                                                   len(sections), 0) + b"".join(sections))


def program(rebases=b"", binds=b"", lazy_binds=b"", chained=b"", pointers=(), libraries=("/a",), sections=(),
            code=b"", more=()):
    """`sections` are those of the code, then those of the data; `pointers` are pairs of offset and value."""
    tables = b""

    def place(table):
        nonlocal tables
        at = CODE_BYTES + DATA_BYTES + len(tables) if table else 0
        tables += table
        return struct.pack("<II", at, len(table))

    if chained:
        fixups = command(0x80000034, place(chained))
    else:
        fixups = command(0x80000022, place(rebases) + place(binds) + bytes(8) + place(lazy_binds) + bytes(8))
    commands = [segment("__PAGEZERO", 0, CODE, 0, 0, 0),
                segment("__TEXT", CODE, PAGE, 0, CODE_BYTES, 5, [one for one in sections if b"__TEXT" in one]),
                segment("__DATA", DATA, PAGE, CODE_BYTES, DATA_BYTES, 3, [one for one in sections if b"__DATA" in one]),
                command(0x80000028, struct.pack("<QQ", ENTRY, 0)), fixups]
    commands += [command(0xc, struct.pack("<IIII", 24, 0, 0, 0) + path.encode() + b"\0") for path in libraries]
    commands += more
    head = struct.pack("<8I", 0xfeedfacf, 0x01000007, 3, 2, len(commands), sum(map(len, commands)), 0x200000, 0)
    text = bytearray(head + b"".join(commands)).ljust(CODE_BYTES, b"\0")
    assert len(text) == CODE_BYTES
    text[ENTRY:ENTRY + len(code)] = code
    data = bytearray(DATA_BYTES)
    for offset, value in pointers:
        struct.pack_into("<Q", data, offset, value)
    return bytes(text + data + tables)


def at(operation, offset):
    return bytes([operation | DATA_SEGMENT, offset])


def bind_to(symbol, offset):
    return b"\x11\x40" + symbol + b"\0\x51" + at(0x70, offset) + b"\x90"


def chains(pointer_form, import_form=1):
    """The fixups of the data's one page, whose chain begins at its start."""
    starts = struct.pack("<IIII", 3, 0, 0, 16) + struct.pack("<IHHQIHH", 24, PAGE, pointer_form, DATA - CODE, 0, 1, 0)
    if import_form == 3:
        names = struct.pack("<QQ", 1 | 1 << 32, 5)
    else:
        names = struct.pack("<I", 1 | 1 << 9) + (struct.pack("<i", -5) if import_form == 2 else b"")
    head = struct.pack("<7I", 0, 28, 28 + len(starts), 28 + len(starts) + len(names), 1, import_form, 0)
    return head + starts + names + b"\0" + NAME


def programs():
    following, bind = 4 << 51, 1 << 63
    pointers = [(0, DATA + 64 | following), (16, bind | 7 << 24)]
    kinds = [section("__TEXT", "__init_offsets", 0x16, 0x3e0, 4), section("__DATA", "__mod_init_func", 0x9, 0, 8),
             section("__DATA", "__thread_vars", 0x13, 8, 24), section("__DATA", "__thread_data", 0x11, 32, 8),
             section("__DATA", "__thread_bss", 0x12, DATA_BYTES, 16)]
    objective = [section("__TEXT", "__unwind_info", 0, 0x3c0, 28), section("__DATA", "__objc_selrefs", 0, 0, 16),
                 section("__DATA", "__objc_classlist", 0, 16, 8)]
    return {
        "plain": program(code=b"\xb8\x2a\0\0\0\xc3", libraries=["/usr/lib/libSystem.B.dylib"]),
        "rebases": program(rebases=b"\x11" + at(0x20, 0) + b"\x80\x02\x10\x52\x31\x08\x41\x60\x02\x70\x08\0",
                           pointers=[(offset, DATA) for offset in range(0, DATA_BYTES, 8)]),
        "binds": program(binds=b"\x11\x60\x7e" + bind_to(b"_one", 16)[1:] + b"\xa0\x08\xb1\xc0\x02\x08\x80\x08\x90\0",
                         lazy_binds=bind_to(b"_two", 112) + b"\0" + bind_to(b"_three", 120) + b"\0"),
        "special-ordinals": program(binds=b"\x3e\x41_any\0\x51" + at(0x70, 0) + b"\x90\x20\x01\x90\x10\x90\0"),
        "chained": program(chained=chains(2), pointers=pointers),
        "chained-offsets": program(chained=chains(6), pointers=[(0, 0x1040 | following), pointers[1]]),
        "chained-addends": program(chained=chains(2, 2), pointers=pointers),
        "chained-wide-addends": program(chained=chains(2, 3), pointers=pointers),
        "sections": program(sections=kinds, rebases=b"\x11" + at(0x20, 0) + b"\x51\0", pointers=[(0, CODE + ENTRY)]),
        "objective-c": program(sections=objective, pointers=[(0, CODE + ENTRY)]),
        "unknown-command": program(more=[command(0x7f, b"")]),
    }


def table(encodings, regular=False):
    """Functions with these encodings, 64 bytes each, on one page; those that say so have a handler and its data."""
    handler, functions = 0x800, 0x100
    common, personalities = 28, 28 + 4 * len(encodings)
    index = personalities + 4
    starts = [functions + 64 * i for i in range(len(encodings))]
    data = [(start, 0x900) for start, encoding in zip(starts, encodings) if encoding & 0x40000000]
    data_at = index + 24
    page = data_at + 8 * len(data)
    result = struct.pack("<7I", 1, common, 0 if regular else len(encodings), personalities, 1, index, 2)
    result += struct.pack(f"<{len(encodings)}I", *encodings) + struct.pack("<I", handler)
    result += struct.pack("<III", functions, page, data_at)
    result += struct.pack("<III", functions + 64 * len(encodings), 0, page)
    for pair in data:
        result += struct.pack("<II", *pair)
    if regular:
        result += struct.pack("<IHH", 2, 8, len(encodings))
        for pair in zip(starts, encodings):
            result += struct.pack("<II", *pair)
    else:
        result += struct.pack("<IHHHH", 3, 12, len(encodings), 12 + 4 * len(encodings), 0)
        for number, start in enumerate(starts):
            result += struct.pack("<I", number << 24 | start - functions)
    return result


def unwind_tables():
    """Each behind its length, in front of the memory that it counts from."""
    memory = bytearray(0xa00)
    struct.pack_into("<Q", memory, 0x800, 0x1234567890)
    frames = {
        "base-pointer": [0x01020021, 0x51000000],
        "fixed-size": [0x02060c0f, 0x52040804, 0x02000000],
        "size-in-code": [0x03034000, 0x53094812],
        "left-to-dwarf": [0x04000000, 0, 0x01000000],
    }
    seeds = {name: table(encodings) for name, encodings in frames.items()}
    seeds["regular-page"] = table(sum(frames.values(), []), regular=True)
    return {name: struct.pack("<H", len(seed)) + seed + memory for name, seed in seeds.items()}
