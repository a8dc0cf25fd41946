"""The test cases that CTest knows: what each runs, in which folder, and how."""
import dataclasses
import json
import pathlib
import subprocess


@dataclasses.dataclass(frozen=True)
class Case:
    name: str
    command: tuple
    environment: tuple
    directory: str
    folder: str
    program: str  # relative to the build


def known(build):
    """All cases of a build's test programs, in the order of their names."""
    build = pathlib.Path(build).resolve()
    listed = subprocess.run(["ctest", "--test-dir", str(build), "--show-only=json-v1"], check=True,
                            capture_output=True, text=True).stdout
    programs = [test for test in json.loads(listed)["tests"] if pathlib.Path(test["command"][0]).is_relative_to(build)]
    return sorted((_case(build, test) for test in programs), key=lambda case: case.name)


def _case(build, test):
    properties = {entry["name"]: entry["value"] for entry in test["properties"]}
    return Case(name=test["name"], command=tuple(test["command"]), environment=tuple(properties.get("ENVIRONMENT", ())),
                directory=properties["WORKING_DIRECTORY"], folder=properties.get("LABELS", [""])[0],
                program=str(pathlib.Path(test["command"][0]).relative_to(build)))
