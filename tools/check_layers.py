#!/usr/bin/env python3
"""Checks the include structure of the library against src/README.md.

Every file under include/DorvikCore and src is read. A file belongs to the area of its src/
folder, or (a public header) to the area that src/README.md lists it under. It may include:
  - public headers of its own area or of a lower rank;
  - internal headers (src/<area>/...) of its own area, or listed as internal interfaces;
  - operating-system headers only under src/platform/<os>/ (the public DKSystemRecords.h may include
    the two minimal Windows headers that define SYSTEMTIME and FILETIME).
Platform files may include base, text, os, the listed platform interfaces and the shared helpers of src/platform/gnu/.
Exits 1 and lists every offending include; prints a summary otherwise.
"""
import fnmatch
import os
import re
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

OS_HEADERS = re.compile(
    r"^(sys/|linux/|asm/|netinet/|arpa/|mach/)|^(windows|winbase|windef|minwinbase|winnt|winsock2|ws2tcpip|"
    r"oaidl|objbase|dbghelp|psapi|tlhelp32|io|process|direct|unistd|pthread|dlfcn|fcntl|execinfo|cxxabi|"
    r"sched|semaphore|spawn|poll|dirent|termios|syslog|libgen|pwd|grp|ucontext|link|elf)\.h$")
PUBLIC_OS_EXCEPTIONS = {("DKSystemRecords.h", "windef.h"), ("DKSystemRecords.h", "minwinbase.h")}


def read_readme():
    text = open(os.path.join(ROOT, "src", "README.md"), encoding="utf-8").read()
    layers = re.search(r"```layers\n(.*?)```", text, re.S)
    interfaces = re.search(r"```interfaces\n(.*?)```", text, re.S)
    if not layers or not interfaces:
        sys.exit("check_layers: src/README.md lacks its layers or interfaces block")
    rank, public = {}, {}
    for line in layers.group(1).splitlines()[1:]:
        fields = line.split()
        if not fields:
            continue
        rank[fields[1]] = int(fields[0])
        for name in fields[2:]:
            public[name + ".h"] = fields[1]
    patterns = [line.split()[0] for line in interfaces.group(1).splitlines() if line.strip()]
    return rank, public, patterns


def main():
    rank, public, interfaces = read_readme()
    problems = []
    missing = sorted(set(os.listdir(os.path.join(ROOT, "include", "DorvikCore"))) - set(public))
    for name in missing:
        problems.append(f"include/DorvikCore/{name}: not listed under any area in src/README.md")
    folders = sorted(d for d in os.listdir(os.path.join(ROOT, "src")) if os.path.isdir(os.path.join(ROOT, "src", d)))
    for folder in folders:
        if folder != "platform" and folder not in rank:
            problems.append(f"src/{folder}/: an area that src/README.md does not list")
    files = 0
    for top in ("include", "src"):
        for dirpath, _, names in os.walk(os.path.join(ROOT, top)):
            for name in names:
                if not name.endswith((".h", ".cpp")):
                    continue
                path = os.path.join(dirpath, name)
                rel = os.path.relpath(path, ROOT)
                parts = rel.split(os.sep)
                platform = parts[0] == "src" and parts[1] == "platform"
                area = public.get(name) if parts[0] == "include" else parts[1]
                if area is None or (not platform and area not in rank):
                    continue  # reported above
                files += 1
                for number, line in enumerate(open(path, encoding="utf-8", errors="replace"), 1):
                    m = re.match(r'\s*#\s*include\s*([<"])([^>"]+)[>"]', line)
                    if not m:
                        continue
                    target = m.group(2)
                    where = f"{rel}:{number}: {target}"
                    if target.startswith("DorvikCore/"):
                        other = public.get(target.split("/", 1)[1])
                        if other is None:
                            problems.append(f"{where}: unknown public header")
                        elif platform:
                            if rank[other] > rank["os"]:
                                problems.append(f"{where}: a platform file reaches {other}")
                        elif other != area and rank[other] >= rank[area]:
                            problems.append(f"{where}: {area} (rank {rank[area]}) includes {other} (rank {rank[other]})")
                        continue
                    if m.group(1) == '"':
                        if "/" not in target:
                            continue  # a header beside the file
                        other = target.split("/", 1)[0]
                        if platform:
                            allowed = other in ("base", "text", "os", "platform") or any(
                                fnmatch.fnmatch(target, p) for p in interfaces if p.startswith("threads/"))
                        else:
                            allowed = other == area or any(fnmatch.fnmatch(target, p) for p in interfaces)
                            allowed = allowed and (other == area or rank.get(other, 99) < rank[area])
                        if not allowed:
                            problems.append(f"{where}: {area} includes an internal header of {other}")
                        continue
                    if OS_HEADERS.search(target) and not platform and (name, target) not in PUBLIC_OS_EXCEPTIONS:
                        problems.append(f"{where}: an operating-system header outside src/platform/<os>/")
    for problem in problems:
        print(problem)
    if problems:
        print(f"check_layers: {len(problems)} problem(s)", file=sys.stderr)
        return 1
    print(f"check_layers: {files} files follow the layers of src/README.md")
    return 0


if __name__ == "__main__":
    sys.exit(main())
