"""What is printed: survivors as they are found, the score by folder at the end."""
from mutation import judge
from mutation.mutant import diff, heading

EQUIVALENT = "equivalent"
COLUMNS = (("mutants", None), ("killed", judge.KILLED), ("survived", judge.SURVIVED), ("listed", EQUIVALENT),
           ("same", judge.SAME), ("no build", judge.NOT_COMPILED), ("no time", judge.NOT_JUDGED))


def survivor(verdict):
    """A survivor in the form of a list of mutants, with what is known of it as a comment."""
    notes = [f"# {verdict.mutant.operator}; " + (f"{verdict.tests} tests passed" if verdict.tests else "no test comes here")]
    if verdict.unsteady:
        notes.append("# noticed once and not again by " + ", ".join(verdict.unsteady))
    return "\n".join(["", *notes, heading(verdict.mutant), *diff(verdict.mutant)])


def table(verdicts):
    """The score by folder: what was killed of what was judged, without those that nobody can notice."""
    folders = sorted({verdict.mutant.folder for verdict in verdicts})
    rows = [("folder", *(name for name, _ in COLUMNS), "score")]
    for folder in folders:
        rows.append(_row(folder, [verdict for verdict in verdicts if verdict.mutant.folder == folder]))
    rows.append(_row("all", verdicts))
    widths = [max(len(row[index]) for row in rows) for index in range(len(rows[0]))]
    return "\n".join("  ".join(cell.ljust(width) if index == 0 else cell.rjust(width)
                               for index, (cell, width) in enumerate(zip(row, widths))) for row in rows)


def _row(name, verdicts):
    counts = [sum(verdict.result == result for verdict in verdicts) if result else len(verdicts) for _, result in COLUMNS]
    killed, judged = counts[1], counts[1] + counts[2]
    return (name, *(str(count) for count in counts), f"{100 * killed / judged:.1f} %" if judged else "-")
