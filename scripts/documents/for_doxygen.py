"""Gives headers and documents to doxygen in its own words. A filter: for_doxygen.py FILE

A header's plain comments become doc comments. The one at the top is the file's, and the class's that has the file's
name. One in front of declarations that follow each other without an empty line is that of each of them.

A document's headings get the names by which links know them, with the document's in front: doxygen has one space of
names for all.
"""
import pathlib
import re
import sys


def escaped(words):
    """Outside of backquotes nothing is a command, a tag or a link."""
    pieces = words.split("`")
    return "`".join(re.sub(r'([\\@<>#&%])', r"\\\1", piece) if i % 2 == 0 else piece for i, piece in enumerate(pieces))


def is_comment(line):
    return line.lstrip().startswith("//")


def opens_body(line):
    return line.rstrip().endswith("{")


def as_doc(line):
    indent, words = re.fullmatch(r"(\s*)// ?(.*)", line).groups()
    return f"{indent}/// {escaped(words)}".rstrip()


def top_comment(name, comment, text):
    words = "\n".join(escaped(re.sub(r"^// ?", "", line)) for line in comment)
    found = [f"/** @file\n{words} */"]
    if re.search(rf"^(?:class|struct) {name}\b[^;]*\{{", text, re.MULTILINE):
        found.append(f"/** @class {name}\n{words} */")
    return found


def run_of_declarations(lines, start):
    """How many lines from there on belong to declarations that follow each other, of which there are at least two."""
    end, count = start, 0
    while end < len(lines) and lines[end].strip() and not is_comment(lines[end]):
        if opens_body(lines[end]) or lines[end].strip() in ("};", "}", "public:", "private:", "protected:"):
            break
        count += lines[end].rstrip().split(" //")[0].rstrip().endswith((";", "}"))
        end += 1
    return end - start if count > 1 else 0


def header(name, text):
    lines = text.split("\n")
    out, i = [], 0
    seen_header = False
    while i < len(lines):
        line = lines[i]
        if not is_comment(line):
            # A comment behind a member is that member's.
            out.append(re.sub(r"([;,]|\S) // (.*)$", lambda found: f"{found[1]} ///< {escaped(found[2])}", line))
            i += 1
            continue
        end = i
        while end < len(lines) and is_comment(lines[end]):
            end += 1
        comment = lines[i:end]
        if not seen_header:
            out += top_comment(name, comment, text)
            seen_header = True
        elif end < len(lines) and not lines[end].strip():
            out += comment  # belongs to nothing
        else:
            out += [as_doc(line) for line in comment]
            length = run_of_declarations(lines, end)
            if length:
                body = lines[end : end + length]
                out.append("///@{")
                out += [re.sub(r" // (.*)$", "", line) for line in body]
                out.append("///@}")
                end += length
        i = end
    return "\n".join(out)


def document(name, text):
    def anchor(heading):
        word = re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-")
        return f"{name}-{word}"

    text = re.sub(r"^(##+) (.+)$", lambda found: f"{found[0]} {{#{anchor(found[2])}}}", text, flags=re.MULTILINE)
    text = re.sub(r"\]\(#([^)]+)\)", rf"](#{name}-\1)", text)
    return re.sub(r"\]\([^)#:]*?(\w+)\.md#([^)]+)\)", r"](#\1-\2)", text)


if __name__ == "__main__":
    path = pathlib.Path(sys.argv[1])
    convert = document if path.suffix == ".md" else header
    print(convert(path.stem, path.read_text()), end="")
