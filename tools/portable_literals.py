#!/usr/bin/env python3
"""Rewrites UTF-16 literals and types in C++ test and fuzz sources into the library's portable spellings.

DKChar is char16_t on Linux and wchar_t on Windows, so text written as u"..." or char16_t only
compiles on one of them. This script rewrites, outside comments and other literals:

    u"text"  uR"(raw)"   ->  DK_T("text")  DK_T(R"(raw)")
    u'x'                 ->  DK_T('x')
    char16_t             ->  DKChar
    std::u16string       ->  DKStdString

A line that names std::u16string_view is left exactly as it is: those lines test the view API,
which takes char16_t text on every platform. U"...", u8"...", L"..." and plain literals are
never touched, and neither is a 'u' character literal or an identifier ending in u.

Running it again changes nothing (the output contains nothing it rewrites). Usage:

    tools/portable_literals.py [--check] [paths...]     (default: tests/ and fuzz/)

--check rewrites nothing and exits 1 when some file would change (for CI).
"""

import argparse
import pathlib
import re
import sys

SUFFIXES = {".cpp", ".cc", ".h", ".hpp", ".inl"}
IDENT_CHARS = re.compile(r"[A-Za-z0-9_]")
KEEP_LINE = re.compile(r"\bu16string_view\b")


def skip_quoted(text, i, quote):
    """Index just past the literal whose opening quote is at text[i]."""
    i += 1
    while i < len(text):
        c = text[i]
        if c == "\\":
            i += 2
            continue
        if c == quote or c == "\n":
            return i + 1
        i += 1
    return i


def skip_raw(text, i):
    """Index just past the raw string whose opening quote is at text[i] (after the R)."""
    paren = text.find("(", i)
    if paren < 0:
        return len(text)
    delimiter = text[i + 1 : paren]
    end = text.find(")" + delimiter + '"', paren)
    return len(text) if end < 0 else end + len(delimiter) + 2


def kept(text, i):
    """Whether the line holding text[i] is one the rewrite leaves alone."""
    begin = text.rfind("\n", 0, i) + 1
    end = text.find("\n", i)
    return KEEP_LINE.search(text, begin, len(text) if end < 0 else end) is not None


def drop_tail(out, count):
    """Removes the last count characters from the pieces in out."""
    while count:
        last = out.pop()
        if len(last) > count:
            out.append(last[:-count])
            return
        count -= len(last)


def rewrite(text):
    """The rewritten text and the count of rewrites: one pass of a small C++ lexer that knows
    comments, literals (raw ones included) and identifiers."""
    out = []
    count = 0
    i = 0
    n = len(text)
    while i < n:
        c = text[i]
        if text.startswith("//", i):
            j = text.find("\n", i)
            j = n if j < 0 else j
        elif text.startswith("/*", i):
            j = text.find("*/", i + 2)
            j = n if j < 0 else j + 2
        elif c == '"' or c == "'":
            j = skip_quoted(text, i, c)
        elif IDENT_CHARS.match(c):
            j = i
            while j < n and IDENT_CHARS.match(text[j]):
                j += 1
            word = text[i:j]
            after = text[j] if j < n else ""
            replacement = None
            if word in ("R", "LR", "UR", "uR", "u8R") and after == '"':
                k = skip_raw(text, j)
                if word == "uR":
                    replacement = "DK_T(R" + text[j:k] + ")"
                j = k
            elif word == "u" and after in ('"', "'"):
                k = skip_quoted(text, j, after)
                replacement = "DK_T(" + text[j:k] + ")"
                j = k
            elif word in ("L", "U", "u8") and after in ('"', "'"):
                j = skip_quoted(text, j, after)
            elif word == "char16_t":
                replacement = "DKChar"
            elif word == "u16string" and text.endswith("std::", 0, i):
                drop_tail(out, len("std::"))  # copied just before
                replacement = "DKStdString"
            if replacement is not None and not kept(text, i):
                out.append(replacement)
                count += 1
                i = j
                continue
            if word == "u16string" and replacement is not None:
                out.append("std::")  # kept line: put the prefix back
        else:
            j = i + 1
        out.append(text[i:j])
        i = j
    return "".join(out), count


def files_under(paths):
    for path in paths:
        p = pathlib.Path(path)
        if p.is_file():
            yield p
        else:
            for f in sorted(p.rglob("*")):
                if f.is_file() and f.suffix in SUFFIXES:
                    yield f


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--check", action="store_true", help="exit 1 when a file would change")
    parser.add_argument("paths", nargs="*", default=["tests", "fuzz"])
    args = parser.parse_args()
    changed = 0
    total = 0
    for f in files_under(args.paths):
        text = f.read_text(encoding="utf-8")
        new, count = rewrite(text)
        if new != text:
            changed += 1
            total += count
            print(f"{f}: {count} rewrites")
            if not args.check:
                f.write_text(new, encoding="utf-8")
    print(f"{changed} files, {total} rewrites" + (" needed" if args.check else ""))
    return 1 if args.check and changed else 0


if __name__ == "__main__":
    sys.exit(main())
