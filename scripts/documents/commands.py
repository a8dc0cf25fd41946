"""Holds the commands that a document shows against what is there: scripts and their options, presets, targets, labels
and names of tests, and the switches in the manual pages, which scripts/make-manuals holds against the programs."""
import functools
import pathlib
import re

TOP = pathlib.Path(__file__).resolve().parent.parent.parent
OR = "\0"  # between the names of a quoted pattern, where a table writes \\|
TEST = re.compile(r"^TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\)", re.MULTILINE)


def options_of(words):
    return [word.split("=")[0] for word in words if re.match("--?[a-z]", word)]


def first_missing(owner, options, text):
    missing = [option for option in options if not re.search(rf"(?<![\w-]){option}\b", text)]
    return f"{owner} has no {missing[0]}" if missing else None


@functools.lru_cache(maxsize=None)
def manual(name):
    return re.sub(r"\\f[BIR]", "", (TOP / "docs/man" / name).read_text()).replace("\\-", "-")


def script(words):
    file = TOP / words[0]
    if not file.is_file():
        return f"{words[0]} does not exist"
    return first_missing(words[0], options_of(words[1:]), file.read_text())


def daemon(words):
    return first_missing("fernhill", options_of(words[1:]), manual("fernhill.8"))


def lab(words):
    text = manual("fernhill-lab.1")
    if len(words) > 1 and words[1].isalpha() and words[1].islower():
        section = re.search(rf"^\.SS {words[1]}$(.*?)(?=^\.S[SH]|\Z)", text, re.MULTILINE | re.DOTALL)
        if not section:
            return f"fernhill-lab has no {words[1]}"
        text = section[1]
    own = words[: words.index("--")] if "--" in words else words
    return first_missing(" ".join(own[:2]), options_of(own[1:]), text)


def doctor(words):
    return first_missing("fernhill-doctor", options_of(words[1:]), (TOP / "tools/fernhill-doctor").read_text())


@functools.lru_cache(maxsize=None)
def targets():
    lists = "".join((TOP / folder / "CMakeLists.txt").read_text() for folder in ("src", "lab", "machost", "bench"))
    tests = {f"{folder.name}_tests" for folder in (TOP / "tests").iterdir() if folder.is_dir()}
    return tests | set(re.findall(r"add_executable\((\w[\w-]*)", lists))


def cmake(words):
    for option, value in zip(words, words[1:]):
        if option == "--preset" and f'"name": "{value}"' not in (TOP / "CMakePresets.json").read_text():
            return f"there is no preset {value}"
        if option == "--target" and value not in targets():
            return f"there is no target {value}"
    return None


def ctest(words):
    for option, value in zip(words, words[1:]):
        if option == "-L" and not (TOP / "tests" / value).is_dir():
            return f"no test has the label {value}"
        for part in value.strip("'").split(OR) if option == "-R" else ():
            if not any(part in f"{suite}.{name}" for file in (TOP / "tests").rglob("*.cpp")
                       for suite, name in TEST.findall(file.read_text())):
                return f"no test is called {part}"
    return None


OF_THE_PROJECT = {"fernhill": daemon, "fernhill-lab": lab, "fernhill-doctor": doctor, "cmake": cmake, "ctest": ctest}
OF_THE_SYSTEM = {"cd", "chmod", "find", "grep", "installer", "kill", "launchctl", "ls", "lsof", "pgrep", "ps", "sudo"}


def is_command(text):
    return text.split()[0] in OF_THE_PROJECT.keys() | OF_THE_SYSTEM


def faults(text):
    """What is wrong with a text, if it is a command or several."""
    text = re.sub("'[^']*'", lambda quoted: quoted[0].replace("\\|", OR), text)
    for command in re.split(r"\s*(?:&&|;|\||\s#.*)\s*", re.sub(r"[][]", " ", text)):
        words = command.removeprefix("sudo ").split()
        if not words:
            continue
        is_script = re.fullmatch(r"(scripts|packaging|\.ci|tests)/[\w/-]+", words[0]) and not (TOP / words[0]).is_dir()
        judge = script if is_script and "NAME" not in words[0] else OF_THE_PROJECT.get(words[0])
        fault = judge(words) if judge else None
        if fault:
            yield fault


def blocks(text):
    """The lines of indented and fenced blocks, with their numbers."""
    fenced = False
    for number, line in enumerate(text.split("\n"), 1):
        if line.startswith("```"):
            fenced = not fenced
        elif fenced or line.startswith("    "):
            yield number, re.split(r"\s{2,}", line.strip())[0]
