#!/usr/bin/env python3
"""Fails when a source file includes a header of a part it may not use.

The parts and the arrows between them are those of docs/LAYERS.md: each
part may include its own headers and those of the parts listed for it, and
nothing else of this tree (system and third-party headers are not judged).
A public header counts as a header of the part that implements it.
Usage: cmake/layers.py [ROOT]; prints each crossing and exits 1 if any.
"""
import os
import re
import sys

# Files that belong to a part other than their folder's.
FORMAT = {"BlockFormat", "BlockIO", "DirectoryDigest", "PayloadCipher"}
PUBLIC = {
    "utility": {"Exception.h", "Export.h", "ZoStreamSource.h"},
    "format": {"DirEntry.h", "FormatFacts.h"},
    "blockstore": {"CompoundFile.h", "Compaction.h", "Status.h"},
    "checker": {"CompoundFileCheck.h", "Salvage.h"},
    "sources": {"CompoundFileStreamSource.h", "CompundFileBase.h", "PureCompoundFileStreamSource.h",
                "streamsource.h"},
    "streamformats": {"OldStreamDirectory.h", "StreamDirectory.h", "ZStreamBase.h", "ZoStreamError.h"},
    "factory": {"FactoryRepository.h"},
    "umbrella": {"tesselzostream.h"},
}
# Part -> the parts it may use besides itself: "all" their headers, or
# only their "public" ones (include/tesselzostream). Export.h is everyone's.
ALLOWED = {
    "utility": {},
    "format": {"utility": "all"},
    "blockstore": {"format": "all", "utility": "all"},
    "checker": {"format": "all", "blockstore": "public", "utility": "all"},
    "sources": {"format": "public", "blockstore": "public", "utility": "all"},
    "streamformats": {"utility": "all"},
    "factory": {"utility": "all"},
    "tools": {part: "public" for part in
              ("format", "utility", "blockstore", "checker", "sources", "streamformats", "factory", "umbrella")},
}


def part_of(path):
    """The part a file of the tree belongs to, or None for files not judged."""
    parts = path.split("/")
    name = os.path.splitext(parts[-1])[0]
    if parts[0] == "include":
        for part, headers in PUBLIC.items():
            if parts[-1] in headers:
                return part
        return "unknown public header"
    if parts[0] == "blockstore":
        return "format" if name in FORMAT else "blockstore"
    if parts[0] in ("utility", "checker", "sources", "streamformats", "factory"):
        return parts[0]
    if parts[0] == "tools" and len(parts) > 2:
        return "tools"
    return None


def included_path(include, source):
    """The tree path an #include "..." names, or None outside the tree."""
    if include.startswith("tesselzostream/"):
        return "include/" + include
    if include.split("/")[0] in ("utility", "blockstore", "checker", "sources", "streamformats", "factory"):
        return include
    local = os.path.normpath(os.path.join(os.path.dirname(source), include))
    return local if os.path.exists(local) else None


def main():
    os.chdir(sys.argv[1] if len(sys.argv) > 1 else ".")
    crossings = 0
    pattern = re.compile(r'^\s*#\s*include\s*[<"]([^>"]+)[>"]')
    for top in ("utility", "blockstore", "checker", "sources", "streamformats", "factory", "tools", "include"):
        for folder, _, files in os.walk(top):
            for f in sorted(files):
                if not f.endswith((".cpp", ".h")):
                    continue
                source = os.path.join(folder, f)
                part = part_of(source)
                if part is None:
                    continue
                with open(source, encoding="utf-8", errors="replace") as text:
                    for number, line in enumerate(text, 1):
                        m = pattern.match(line)
                        if not m:
                            continue
                        target = included_path(m.group(1), source)
                        if target is None:
                            continue
                        used = part_of(target)
                        if used is None or used == part or target.endswith("Export.h"):
                            continue
                        public = target.startswith("include/")
                        reach = ALLOWED.get(part, {}).get(used)
                        if part == "umbrella" or reach == "all" or (reach == "public" and public):
                            continue
                        print(f"{source}:{number}: {part} may not include {m.group(1)} ({used})")
                        crossings += 1
    if crossings:
        print(f"{crossings} include(s) cross a forbidden arrow; see docs/LAYERS.md")
        return 1
    print("layers: every include follows an allowed arrow")
    return 0


if __name__ == "__main__":
    sys.exit(main())
