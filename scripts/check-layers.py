#!/usr/bin/env python3
"""Fails when an #include runs against the layers of docs/architecture.md.

Every C and C++ file of ferrocore/, platform/, quillcore/<subsystem>/,
tools/, daemons/ and examples/ (and their public headers under include/) may
include only what its layer or subsystem may use:

  ferrocore       ferrocore; the C++ library, POSIX, expat, libuuid
  platform        ferrocore's public headers, its own; the C++ library,
                  POSIX and Linux, expat; sd-bus/sd-event only in
                  platform/linux/
  quillcore/S     ferrocore's and the platform layer's public headers,
                  quillcore/S itself and the subsystems S uses (table
                  below); the C++ library; OpenSSL only in util/
  tools, daemons, the public headers of every layer and their own files; the
  examples        C++ library and POSIX (quillctl also CLI11)

Public headers (include/) may include only public headers: they are
installed. Tests, benchmarks and fuzz targets may look inside and are not
checked. The subsystem table must match the "Inside libquillcore" table of
docs/architecture.md, so that neither changes without the other.

Usage: scripts/check-layers.py [--root DIR]   (exit status 1 on a violation)
"""

import argparse
import os
import re
import sys

TOP_OF_CONTROL = "control/QuillConfig"

# What each subsystem of libquillcore may use besides itself
# (docs/architecture.md, "Inside libquillcore"). Directories that do not
# exist yet are listed so that their first file is checked too.
SUBSYSTEM_USES = {
    # control/QuillConfig*: the exported service-control functions, the top
    # of the library, beside the constants of control/ at its bottom.
    TOP_OF_CONTROL: {"servicemanager", "logging", "process", "plist", "util", "control"},
    "servicemanager": {"plist", "process", "control", "util"},
    "storage": {"control", "process", "util"},
    "logging": {"plist", "control", "util"},
    "process": {"control", "util"},
    "plist": {"control", "util"},
    "schedule": {"util"},
    "control": {"util"},
    "util": set(),
}

# The program layers above libquillcore: each sees public headers only.
PROGRAM_LAYERS = ("tools", "daemons", "examples")

SOURCE_SUFFIXES = (".h", ".hpp", ".c", ".cc", ".cpp", ".inc")
INCLUDE = re.compile(r'^\s*#\s*include\s*(?:<([^>]+)>|"([^"]+)"|(.*))')

# Third-party libraries, by the first component of their headers, and the
# layers that may use them.
LIBRARIES = {
    "expat.h": "expat",
    "uuid": "uuid",
    "systemd": "libsystemd",
    "openssl": "openssl",
    "CLI": "cli11",
    "gtest": "googletest",
    "gmock": "googletest",
    "benchmark": "benchmark",
}


class Unit:
    """Where a file belongs: a layer, and for quillcore its subsystem."""

    def __init__(self, layer, subsystem=None, public=False, linux=False):
        self.layer = layer
        self.subsystem = subsystem
        self.public = public  # an installed header under include/
        self.linux = linux  # under platform/linux/

    def name(self):
        if self.layer == "quillcore":
            return "quillcore/" + (self.subsystem or "")
        return self.layer


def unit_of(path):
    """The unit of a file, by its path relative to the root; None when the
    file lies outside the checked layers; a string when it lies in an
    unknown subsystem."""
    parts = path.split("/")
    public = parts[0] == "include"
    if public:
        parts = parts[1:]
        if len(parts) < 2:
            return None
        if parts[0] == "ferrocore":
            return Unit("ferrocore", public=True)
        if parts[0] != "quillcore":
            return None
        if parts[1] == "platform":
            return Unit("platform", public=True)
        if len(parts) == 2:  # include/quillcore/export.h: the library's own
            return Unit("quillcore", None, public=True)
    elif parts[0] == "platform":
        return Unit("platform", linux=len(parts) > 2 and parts[1] == "linux")
    elif parts[0] == "ferrocore":
        return Unit("ferrocore")
    elif parts[0] in PROGRAM_LAYERS:
        return Unit(parts[0])
    if parts[0] != "quillcore" or len(parts) < 2:
        return None
    if len(parts) == 2:
        return "quillcore/%s lies outside every subsystem" % parts[1]
    if parts[1] == "control" and parts[-1].startswith("QuillConfig"):
        return Unit("quillcore", TOP_OF_CONTROL, public=public)
    if parts[1] not in SUBSYSTEM_USES:
        return "unknown subsystem quillcore/%s/: add it to docs/architecture.md and %s" % (
            parts[1], "scripts/check-layers.py")
    return Unit("quillcore", parts[1], public=public)


def target_of(root, including, spelled, angled):
    """What an include names: ("project", Unit, public?), ("library", name),
    ("std",) or ("system",); ("missing",) for a quoted file not found."""
    if angled:
        first = spelled.split("/")[0]
        if first == "ferrocore" and "/" in spelled:
            return ("project", Unit("ferrocore", public=True), True)
        if first == "quillcore" and "/" in spelled:
            unit = unit_of("include/" + spelled)
            return ("project", unit, True) if isinstance(unit, Unit) else ("unknown", unit)
        if first in LIBRARIES:
            return ("library", LIBRARIES[first])
        if re.fullmatch(r"[a-z0-9]*intrin\.h", spelled):  # the compiler's vector intrinsics
            return ("std",)
        if "/" not in spelled and "." not in spelled:
            return ("std",)
        return ("system",)
    # Quoted: next to the including file, else from the root (the build puts
    # the root on the include path of the libraries and programs).
    for base in (os.path.dirname(including), ""):
        candidate = os.path.normpath(os.path.join(base, spelled))
        if os.path.isfile(os.path.join(root, candidate)):
            unit = unit_of(candidate)
            if unit is None:
                return ("outside", candidate)
            if not isinstance(unit, Unit):
                return ("unknown", unit)
            return ("project", unit, unit.public)
    return ("missing",)


def allowed_project(source, target):
    """Whether `source` may include a header of `target`."""
    if source.layer == "ferrocore":
        return target.layer == "ferrocore"
    if source.layer == "platform":
        return target.layer == "platform" or (target.layer == "ferrocore" and target.public)
    if source.layer == "quillcore":
        if target.layer in ("ferrocore", "platform"):
            return target.public
        if target.layer != "quillcore":
            return False
        if target.subsystem is None:  # the export macro
            return True
        if source.subsystem is None:
            return False
        return target.subsystem == source.subsystem or target.subsystem in SUBSYSTEM_USES[source.subsystem]
    if source.layer in PROGRAM_LAYERS:
        return target.public or target.layer == source.layer
    return False


def allowed_library(source, library):
    if source.layer == "ferrocore":
        return library in ("expat", "uuid")
    if source.layer == "platform":
        return library == "expat" or (library == "libsystemd" and source.linux)
    if source.layer == "quillcore":
        return library == "openssl" and source.subsystem == "util"
    if source.layer == "tools":
        return library == "cli11"
    return False


def check_file(root, path, problems):
    source = unit_of(path)
    if source is None:
        return
    if not isinstance(source, Unit):
        problems.append("%s: %s" % (path, source))
        return
    with open(os.path.join(root, path), encoding="utf-8", errors="replace") as f:
        lines = f.read().splitlines()
    for number, line in enumerate(lines, 1):
        match = INCLUDE.match(line)
        if not match:
            continue
        angled, quoted, other = match.groups()
        where = "%s:%d: #include %s" % (path, number, "<%s>" % angled if angled else '"%s"' % quoted)
        if other is not None:
            problems.append("%s:%d: an include whose file is not spelled out" % (path, number))
            continue
        target = target_of(root, path, angled or quoted, angled is not None)
        kind = target[0]
        if kind == "std":
            continue
        if kind == "system":
            if source.layer == "quillcore":
                problems.append("%s: quillcore reaches the system only through the platform layer" % where)
            elif source.public and source.layer != "ferrocore":
                problems.append("%s: a public header of %s includes no system header" % (where, source.name()))
            continue
        if kind == "library":
            if not allowed_library(source, target[1]):
                problems.append("%s: %s may not use %s" % (where, source.name(), target[1]))
            continue
        if kind == "missing":
            problems.append("%s: no such file next to it or below the root" % where)
            continue
        if kind == "outside":
            problems.append("%s: %s lies outside the layers %s may use" % (where, target[1], source.name()))
            continue
        if kind == "unknown":
            problems.append("%s: %s" % (where, target[1]))
            continue
        unit, public = target[1], target[2]
        if source.public and not public:
            problems.append("%s: a public header includes a private one (only public headers are installed)" % where)
        elif not allowed_project(source, unit):
            problems.append("%s: %s may not use %s%s" % (
                where, source.name(), unit.name(), "" if public else " (a private header)"))


def check_document(root, problems):
    """The "Inside libquillcore" table of docs/architecture.md against
    SUBSYSTEM_USES, and a row for every layer in "What each layer may
    include"."""
    path = os.path.join(root, "docs", "architecture.md")
    try:
        with open(path, encoding="utf-8") as f:
            text = f.read()
    except OSError as error:
        problems.append("docs/architecture.md: %s" % error)
        return

    def table(heading):
        section = text.split("## " + heading, 1)
        if len(section) < 2:
            problems.append('docs/architecture.md: no section "%s"' % heading)
            return []
        rows = []
        for line in section[1].split("\n## ", 1)[0].splitlines():
            cells = [c.strip() for c in line.strip().strip("|").split("|")]
            if line.lstrip().startswith("|") and len(cells) >= 2 and not set(cells[0]) <= set("-: "):
                rows.append(cells)
        return rows[1:]  # without the heading row

    documented = {}
    for cells in table("Inside libquillcore"):
        names = re.findall(r"`([a-z]+)/`", cells[0])
        if "`%s*`" % TOP_OF_CONTROL in cells[0]:
            names = [TOP_OF_CONTROL]
        if names:
            documented[names[0]] = set(re.findall(r"`([a-z]+)/`", cells[1]))
    if documented != SUBSYSTEM_USES:
        for name in sorted(set(documented) | set(SUBSYSTEM_USES)):
            if documented.get(name) != SUBSYSTEM_USES.get(name):
                problems.append("docs/architecture.md: subsystem %s/ uses %s there but %s in %s" % (
                    name, sorted(documented.get(name, [])) if name in documented else "(no row)",
                    sorted(SUBSYSTEM_USES[name]) if name in SUBSYSTEM_USES else "(no entry)",
                    "scripts/check-layers.py"))

    layers = {m for cells in table("What each layer may include") for m in re.findall(r"`([a-z]+)/", cells[0])}
    for layer in ("ferrocore", "platform", "quillcore") + PROGRAM_LAYERS:
        if layer not in layers:
            problems.append('docs/architecture.md: no row for %s/ in "What each layer may include"' % layer)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--root", default=os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
    root = os.path.abspath(parser.parse_args().root)

    problems = []
    check_document(root, problems)
    checked = 0
    for top in ("include", "ferrocore", "platform", "quillcore") + PROGRAM_LAYERS:
        for directory, subdirectories, files in os.walk(os.path.join(root, top)):
            subdirectories.sort()
            for name in sorted(files):
                if name.endswith(SOURCE_SUFFIXES):
                    path = os.path.relpath(os.path.join(directory, name), root).replace(os.sep, "/")
                    check_file(root, path, problems)
                    checked += 1
    for problem in problems:
        print(problem)
    if problems:
        print("check-layers: %d problem(s) with the layers of docs/architecture.md" % len(problems))
        return 1
    print("check-layers: %d files keep to the layers" % checked)
    return 0


if __name__ == "__main__":
    sys.exit(main())
