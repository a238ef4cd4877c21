#!/usr/bin/env python3
"""Checks what each source may include: the floors of the house, and where system and library headers may stand.

usage: check_includes.py SOURCE_ROOT

Prints every violation as FILE:LINE: what is wrong, and exits with 1 when there is one or nothing to check.
"""

import pathlib
import re
import sys

SUFFIXES = {".c", ".cpp", ".hpp", ".h", ".mm"}
FOUNDATION = ["foundation"]
SEAM = ["foundation", "platform"]
LOGIC = SEAM + ["filefacts", "settings", "validation"]
REPUTATION = LOGIC + ["reputation"]
# Programs of their own, which may also use a platform's implementation directly.
STAND_ALONE = REPUTATION + ["reputation/backends", "client", "companions", "platform/linux", "platform/darwin"]

# Floor -> the folders it may include from besides itself. A folder stands for its own files; "platform" is the seam
# only, without the implementations below it. The longest matching floor counts.
FLOORS = {
    "foundation": [],
    "platform": FOUNDATION,
    "platform/common": SEAM,
    "platform/linux": SEAM + ["platform/common"],
    "platform/darwin": SEAM + ["platform/common"],
    "filefacts": SEAM,
    "settings": SEAM,
    "validation": SEAM,
    "reputation": LOGIC,
    "reputation/backends": REPUTATION,
    "daemon": REPUTATION + ["reputation/backends"],
    "client": SEAM,
    "companions": STAND_ALONE,
    "tools": STAND_ALONE,
}
# A single header of another floor that a floor may include all the same: header by its path -> floors.
EXCEPTIONS = {"settings/QMRNamespace.hpp": ["filefacts"]}

# Only the C++ standard library may be included from outside the project here.
STANDARD_ONLY = {
    "foundation", "platform", "filefacts", "settings", "validation", "reputation", "reputation/backends", "daemon",
    "client",
}
# Not bound by the floors: they test, measure and fuzz every one.
FREE = {"tests", "bench", "fuzz"}

# The headers of C++20 (ISO/IEC 14882:2020, 16.4.2.3), those of C as <cname>.
STANDARD_HEADERS = set(
    """
    algorithm any array atomic barrier bit bitset charconv chrono compare complex concepts condition_variable
    coroutine deque exception execution filesystem format forward_list fstream functional future initializer_list
    iomanip ios iosfwd iostream istream iterator latch limits list locale map memory memory_resource mutex new
    numbers numeric optional ostream queue random ranges ratio regex scoped_allocator semaphore set shared_mutex
    source_location span sstream stack stdexcept stop_token streambuf string string_view syncstream system_error
    thread tuple type_traits typeindex typeinfo unordered_map unordered_set utility valarray variant vector version

    cassert cctype cerrno cfenv cfloat cinttypes climits clocale cmath csetjmp csignal cstdarg cstddef cstdint cstdio
    cstdlib cstring ctime cuchar cwchar cwctype
    """.split()
)

INCLUDE = re.compile(r'^\s*#\s*(?:include|include_next|import)\s*(?:<([^>]+)>|"([^"]+)"|(\S+))')


def floor_of(path):
    """The floor a file of the project (path relative to the root) belongs to; None outside of all."""
    for folder in path.parents:
        name = folder.as_posix()
        if name in FLOORS or name in FREE:
            return name
    return None


def includes_of(text):
    """Line number, name and whether it stands in angle brackets; a name of None is one made by a macro."""
    without_comments = re.sub(r"/\*.*?\*/", lambda match: "\n" * match.group().count("\n"), text, flags=re.DOTALL)
    for number, line in enumerate(without_comments.splitlines(), 1):
        found = INCLUDE.match(line)
        if found:
            yield number, found.group(1) or found.group(2), found.group(1) is not None


def resolve(root, source, name):
    """The project file that the include names, relative to the root; None when it is not one of the project."""
    for candidate in ((root / name).resolve(), (root / source).parent.joinpath(name).resolve()):
        if candidate.is_file() and candidate.is_relative_to(root):
            return candidate.relative_to(root)
    return None


def wrong_project_include(floor, target):
    target_floor = floor_of(target)
    if target_floor is None or target_floor in FREE:
        return f"{target.as_posix()} does not belong to a floor"
    if target_floor in [floor] + FLOORS[floor] or floor in EXCEPTIONS.get(target.as_posix(), []):
        return None
    return f"{floor}/ may not include {target.as_posix()} ({target_floor}/)"


def wrong_include(root, source, floor, name, angled):
    if name is None:
        return "an include must name its header"
    target = None if angled else resolve(root, source, name)
    if target is not None:
        return wrong_project_include(floor, target)
    # A header of the project in angle brackets, or one that does not exist (yet): judged by its name all the same.
    named = pathlib.PurePosixPath(name)
    if "/" in name and floor_of(named) is not None:
        return wrong_project_include(floor, named)
    if floor in STANDARD_ONLY and name not in STANDARD_HEADERS:
        return f"{floor}/ may include standard C++ headers only, not {name}"
    return None


def violations(root):
    """All violations below the root, and how many files were looked at."""
    tops = {floor.split("/")[0] for floor in FLOORS}
    files = [path for top in sorted(tops) for path in sorted((root / top).rglob("*"))
             if path.suffix in SUFFIXES and path.is_file()]
    found = []
    for path in files:
        source = path.relative_to(root)
        for number, name, angled in includes_of(path.read_text(encoding="utf-8", errors="replace")):
            problem = wrong_include(root, source, floor_of(source), name, angled)
            if problem:
                found.append(f"{source.as_posix()}:{number}: {problem}")
    return found, len(files)


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    found, count = violations(pathlib.Path(sys.argv[1]).resolve())
    if count == 0:
        sys.exit("no sources to check")
    for line in found:
        print(line)
    print(f"{count} files, {len(found)} violations")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
