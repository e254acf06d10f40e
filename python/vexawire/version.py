"""The package's version, which is the CMake project's: written once, in the
project() line of the top CMakeLists.txt.

The wheel, the sdist and the zipapp carry it in a generated _version.py; the
source tree (PYTHONPATH=python) reads it from the CMakeLists.txt two folders
up."""

import os
import re
from typing import Optional

CMAKE_LISTS = os.path.join(os.path.dirname(os.path.abspath(__file__)), os.pardir, os.pardir,
                           "CMakeLists.txt")
_PROJECT_LINE = re.compile(r"^\s*project\(\s*vexatool\s+VERSION\s+(\d+(?:\.\d+)*)", re.M | re.I)


def from_cmake(path: str = CMAKE_LISTS) -> Optional[str]:
    """The VERSION of project(vexatool ...) in `path`, or None."""
    try:
        with open(path, encoding="utf-8") as lists:
            match = _PROJECT_LINE.search(lists.read())
    except OSError:
        return None
    return match.group(1) if match else None


def version() -> str:
    try:
        from ._version import VERSION  # written by the builds, never into the source tree

        return VERSION
    except ImportError:
        return from_cmake() or "0+unknown"


def version_module(text: str) -> bytes:
    """The content of the generated _version.py."""
    return b'VERSION = "%s"\n' % text.encode("ascii")
