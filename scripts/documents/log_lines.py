"""Holds the lines of the log that a document quotes against the sources and the tests."""
import functools
import json
import re

TEXT = r'"(?:[^"\\\n]|\\.)*"'
VALUE = r"…|\(null\)|'null'|(?<![\w.])\d+(?!\w)"


def texts(folder):
    """The texts in the sources below the folder; those that stand behind each other are one."""
    for file in sorted(folder.rglob("*")):
        if file.suffix not in (".cpp", ".h", ".mm"):
            continue
        source = re.sub(r"^\s*#\s*include.*$|//[^\n\"]*$", "", file.read_text(), flags=re.MULTILINE)
        source = re.sub(r'R"\((.*?)\)"', lambda raw: json.dumps(raw[1]), source, flags=re.DOTALL)
        for found in re.findall(rf"{TEXT}(?:\s*{TEXT})*", source):
            text = "".join(piece[1:-1] for piece in re.findall(TEXT, found))
            yield text.replace('\\"', '"').replace("\\n", "")


@functools.lru_cache(maxsize=None)
def all_texts(folder):
    return list(texts(folder))


@functools.lru_cache(maxsize=None)
def forms(folder):
    """What a line looks like that a text with values in it makes."""
    found = []
    for text in all_texts(folder):
        pieces = re.split(r"%[-0-9.*l]*[a-zA-Z]", text)
        if len(pieces) > 1 and max(map(len, pieces)) >= 8:
            found.append(re.compile(".*".join(map(re.escape, pieces))))
    return found


def fault(line, top):
    """What is wrong with a quoted line, whose values are three dots, numbers or (null); None if nothing is."""
    pieces = [piece.strip() for piece in re.split(VALUE, line)]
    pieces = [piece for piece in pieces if re.search(r"\w", piece)]
    inside = re.compile(".*".join(map(re.escape, pieces)))
    if not any(inside.search(text) for text in all_texts(top / "src")):
        if not any(form.fullmatch(line) for form in forms(top / "src")):
            return f"src/ logs no `{line}`"
    longest = max(pieces, key=len)
    if not any(longest in text for text in all_texts(top / "tests")):
        return f"no test has the log's `{line}`"
    return None
