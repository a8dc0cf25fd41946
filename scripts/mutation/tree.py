"""Builds the project's programs from changed sources, beside an everyday build and out of its parts: only what the
change touches is compiled anew. The work tree is read and never written."""
import json
import os
import pathlib
import re
import shlex
import shutil
import subprocess

from mutation import bounded, schemata


# What the compiler or the linker have against a text, and what they say where the machine is to blame.
REFUSED = re.compile(r"^.+?:\d+:(\d+:)? (fatal )?error: |undefined reference to ", re.M)
NOT_ITS_FAULT = re.compile(r"No space left on device|Killed signal|internal compiler error")


class NotBuilt(Exception):
    """A build that failed, and not for the sake of what is built."""


class Build:
    """What an everyday build consists of: how each object is made of what, each archive, each program."""

    def __init__(self, root, directory):
        self.root = pathlib.Path(root)
        self.directory = pathlib.Path(directory)
        self.objects = {}   # object -> (command's words, source)
        for entry in json.loads((self.directory / "compile_commands.json").read_text()):
            words = shlex.split(entry["command"])
            self.objects[words[words.index("-o") + 1]] = (words, entry["file"])
        self.read_by = self._dependants()
        self.archives, self.programs = {}, {}
        for name, rule in re.findall(r"^(\S+): CXX_(\S+?)_LINKER__", self._ninja("-t", "targets", "all"), re.M):
            if "[1]_tests.cmake" in name:
                continue
            if rule == "STATIC_LIBRARY":
                self.archives[name] = [word for word in self._link_words(name, "ar") if word.endswith(".o")]
            elif rule == "EXECUTABLE" and (self.directory / name).exists():  # not those that nobody has asked for
                self.programs[name] = self._link_words(name, "c++")

    def _ninja(self, *words):
        return subprocess.run(["ninja", "-C", str(self.directory), *words], check=True, capture_output=True,
                              text=True).stdout

    def _dependants(self):
        found, current = {}, None
        for line in self._ninja("-t", "deps").splitlines():
            if line.startswith("    "):
                path = os.path.normpath(self.directory / line.strip())
                if path.startswith(str(self.root / "src")):
                    found.setdefault(os.path.relpath(path, self.root), set()).add(current)
            elif ": #deps" in line:
                current = line.split(": #deps")[0]
        return found

    def _link_words(self, name, tool):
        command = self._ninja("-t", "commands", name).strip().splitlines()[-1]
        for part in command.split(" && "):
            words = shlex.split(part)
            if words and pathlib.Path(words[0]).name.split("-")[-1] in (tool, "g++", "clang++") and name in words:
                return words
        raise RuntimeError(f"no command makes {name}")


class Tree:
    """One folder with a changed copy of src/ and the programs made of it."""

    def __init__(self, build, directory, jobs, deadline=bounded.FOREVER):
        self.build = build
        self.directory = pathlib.Path(directory)
        self._jobs = jobs
        self._deadline = deadline
        self.directory.mkdir(parents=True, exist_ok=True)

    def write(self, changed):
        """Makes the copy of src/ the original but for `changed`: pairs of a file's path and its text."""
        root = self.build.root
        files = [path for path in (root / "src").rglob("*") if path.is_file()]
        for path in files:
            name = str(path.relative_to(root))
            _write(self.directory / name, changed.get(name) or path.read_bytes())
        for path in (self.directory / "src").rglob("*"):
            if path.is_file() and not (root / path.relative_to(self.directory)).exists():
                path.unlink()
        _write(self.directory / "switch.cpp", schemata.SWITCH.encode())
        _write(self.directory / "build.ninja", self._rules(set(changed)).encode())

    def programs(self, changed):
        """The programs, relative to the build, that these files are part of."""
        stale = self._stale_objects(changed)
        archives = self._stale_archives(stale)
        return [name for name, words in self.build.programs.items() if set(words) & (stale | archives)]

    def needed_programs(self, changed, cases):
        """Those of a change's programs that these cases run, and what is no program of tests: any of them may run it."""
        own = {case.program for case in cases}
        return [name for name in self.programs(changed) if name in own or not name.endswith("_tests")]

    def make(self, programs=None):
        """Builds these programs, or all. The failed edges' output, empty after success."""
        targets = [str(self.program(name)) for name in programs] if programs is not None else []
        words = ["ninja", "-C", str(self.directory), "-j", str(self._jobs), "-k", "0", *targets]
        status, output = bounded.run(words, self._deadline)
        if status and (not REFUSED.search(output) or NOT_ITS_FAULT.search(output)):
            raise NotBuilt(f"the build in {self.directory} ends with {status}:\n{output[-3000:]}")
        return output if status else ""

    def program(self, name):
        return self.directory / "bin" / name

    def replaced(self, programs):
        """What the sandbox is told: each program and the one in its place."""
        return [(self.build.directory / name, self.program(name)) for name in programs]

    def _stale_objects(self, changed):
        found = set()
        for name in changed:
            found |= self.build.read_by.get(name, set())
        return found & set(self.build.objects)

    def _stale_archives(self, stale):
        return {name for name, members in self.build.archives.items()
                if stale & set(members) or name == "src/libostler_core.a"}

    def _rules(self, changed):
        stale = self._stale_objects(changed)
        archives = self._stale_archives(stale)
        build = self.build.directory
        new = {name: str(self.directory / "obj" / name) for name in stale}
        new.update({name: str(self.directory / "lib" / name) for name in archives})
        place = lambda name: new.get(name) or str(build / name)
        enter = "cd " + _in_command(build)
        lines = ["rule run", f"  command = {enter} && $words", "  description = $out",
                 "rule pack", f"  command = {enter} && rm -f $out && ar qcsT $out $in", "  description = $out"]

        switch = str(self.directory / "obj/switch.o")
        compiler = next(iter(self.build.objects.values()))[0]
        compiler = compiler[:next(index for index, word in enumerate(compiler) if word.startswith("-"))]
        lines += _edge(switch, [*compiler, "-O1", "-o", switch, "-c", str(self.directory / "switch.cpp")],
                       [str(self.directory / "switch.cpp")])
        for name in sorted(stale):
            words, source = self.build.objects[name]
            own = [str(self.directory / file) for file in sorted(changed) if name in self.build.read_by.get(file, ())]
            lines += _edge(new[name], self._compile_words(words, source, new[name]), [self._moved(source), *own])
        for name in sorted(archives):
            members = [place(member) for member in self.build.archives[name]]
            members += [switch] if name == "src/libostler_core.a" else []
            lines.append(f"build {_as_path(new[name])}: pack {' '.join(map(_as_path, members))}")
        for name, words in self.build.programs.items():
            if not set(words) & (stale | archives):
                continue
            inputs = [word for word in words if word.endswith((".o", ".a")) and not word.startswith("/")]
            linked = [str(self.program(name)) if word == name else place(word) if word in inputs else word
                      for word in words if word not in ("-g1",)]
            lines += _edge(str(self.program(name)), linked, [place(word) for word in inputs])
        return "\n".join(lines) + "\n"

    def _compile_words(self, words, source, target):
        own = str(self.build.root / "src")
        moved = [word.replace(own, str(self.directory / "src")) if word.startswith("-I") else word for word in words
                 if word not in ("-g1", "-Werror")]
        moved[moved.index("-o") + 1] = target
        moved[moved.index("-c") + 1] = self._moved(source)
        return [*moved, "-w", "-g0"]

    def _moved(self, source):
        """Where the copy has the file; files outside src/ are read where they are."""
        path = pathlib.Path(source)
        own = self.build.root / "src"
        return str(self.directory / "src" / path.relative_to(own)) if path.is_relative_to(own) else source


def _edge(target, words, inputs):
    pathlib.Path(target).parent.mkdir(parents=True, exist_ok=True)
    return [f"build {_as_path(target)}: run {' '.join(map(_as_path, inputs))}",
            f"  words = {' '.join(map(_in_command, words))}"]


def _as_path(path):
    """A path as a line of ninja's that names files has it."""
    return re.sub(r"([$ :])", r"$\1", str(path))


def _in_command(word):
    """A word as ninja hands it to the shell."""
    return shlex.quote(str(word)).replace("$", "$$")


def _write(path, content):
    """Leaves a file alone that is as it shall be, so that nothing is built for it."""
    if path.exists() and path.read_bytes() == content:
        return
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(content)


def remove(directory):
    shutil.rmtree(directory, ignore_errors=True)
