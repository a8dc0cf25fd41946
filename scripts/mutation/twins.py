"""Tells a mutant that is the same program: the optimizing compiler makes the same object of both texts."""
import pathlib
import tempfile

from mutation import bounded
from mutation.mutant import apply
from mutation.tree import NotBuilt


class Twins:
    def __init__(self, build, deadline=bounded.FOREVER):
        self._build = build
        self._deadline = deadline
        self._words = {str(pathlib.Path(source)): words for words, source in build.objects.values()}

    def are_one_program(self, mutant):
        """Whether both give one object. Headers are never looked at."""
        path = self._build.root / mutant.file
        if str(path) not in self._words:
            return False
        source = path.read_bytes()
        return self._object(path, source) == self._object(path, apply(source, mutant.edits))

    def _object(self, path, content):
        words = [word for word in self._words[str(path)] if not word.startswith(("-O", "-g")) and word != "-Werror"]
        with tempfile.TemporaryDirectory(prefix="twin-") as folder:
            source, target = pathlib.Path(folder, path.name), pathlib.Path(folder, "object.o")
            source.write_bytes(content)
            words[words.index("-o") + 1] = str(target)
            words[words.index("-c") + 1] = str(source)
            # Quoted includes that stand beside the file are found where it was.
            status, output = bounded.run([*words, "-O2", "-w", "-iquote", str(path.parent)], self._deadline,
                                         self._build.directory)
            if status:
                raise NotBuilt(f"{path} does not compile once more:\n{output[-3000:]}")
            return target.read_bytes()
