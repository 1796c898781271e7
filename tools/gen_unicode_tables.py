#!/usr/bin/env python3
"""Generate src/text/DKUnicodeTables.cpp: the character tables behind DKtowupper, DKtowlower,
case folding, accent folding and the table collators.

Input:  UnicodeData.txt and PropList.txt of the Unicode Character Database. On Debian and Ubuntu
        they come with the package `unicode-data` (/usr/share/unicode/). The generated file is
        committed, so building the library never needs this script or the data files.

Rerun it (from the repository root) after updating the Unicode data:

    python3 tools/gen_unicode_tables.py                 # writes src/text/DKUnicodeTables.cpp
    python3 tools/gen_unicode_tables.py --check         # verifies, writes nothing

Options: --input PATH (UnicodeData.txt), --output PATH (the .cpp), --unicode-version X.Y.Z (by
default read from ReadMe.txt or DerivedAge.txt beside the input). The output depends only on the
input, so two runs give byte-identical files.

--check decodes the compressed tables exactly as the C++ lookup does and compares every code
point of the Basic Multilingual Plane with the mappings read from UnicodeData.txt, checks the
folding invariants the collators rely on, and checks that the committed file is up to date.
It exits non-zero on any difference.

What the tables hold (one entry per BMP code unit; units above U+FFFF are out of scope and the
surrogate units map to themselves):
  upper      simple uppercase mapping (field 12), or the unit itself
  lower      simple lowercase mapping (field 13), or the unit itself
  fold       case folding for comparison: lower(upper(c)), repeated until stable, so that
             sigma, final sigma and capital sigma, or K, k and the Kelvin sign, are one letter
  accent     accent folding: a unit whose canonical decomposition (field 5 without a <tag>)
             starts with a character that is not a combining mark maps to that character's
             own folding (recursively: U+1EF1 -> U+01B0 -> u); a nonspacing mark (general
             category Mn) maps to 0, meaning "contributes nothing"; everything else, letters
             without a decomposition such as o-slash, l-stroke or ae included, maps to itself
  caseaccent both foldings, applied until stable; marks map to 0
  white space the BMP code points with the White_Space property (PropList.txt), as ranges

Layout: each table is 256 pages of 256 entries. An entry is the signed 16-bit difference between
the mapped unit and the unit (mapped = (unit + delta) mod 65536). Identical pages are stored once
in one pool shared by all tables; a per-table index of 256 bytes names each page's pool entry.
"""

import argparse
import os
import re
import sys

TABLES = ("upper", "lower", "fold", "accent", "caseaccent")
BMP = 0x10000
DEFAULT_INPUT = "/usr/share/unicode/UnicodeData.txt"
REPO_ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DEFAULT_OUTPUT = os.path.join(REPO_ROOT, "src", "text", "DKUnicodeTables.cpp")


class DataError(Exception):
    pass


def read_unicode_data(path):
    """Returns (category, decomposition, upper, lower) for every BMP code point."""
    category = ["Cn"] * BMP
    decomposition = [None] * BMP
    upper = list(range(BMP))
    lower = list(range(BMP))
    range_start = None
    with open(path, encoding="utf-8") as f:
        for line_number, line in enumerate(f, 1):
            line = line.rstrip("\n")
            if not line:
                continue
            fields = line.split(";")
            if len(fields) != 15:
                raise DataError(f"{path}:{line_number}: expected 15 fields, found {len(fields)}")
            code = int(fields[0], 16)
            name = fields[1]
            if name.endswith(", First>"):
                range_start = code
                continue
            if name.endswith(", Last>"):
                if range_start is None:
                    raise DataError(f"{path}:{line_number}: range end without a start")
                first, range_start = range_start, None
            else:
                first = code
            # Ranges (ideographs, Hangul syllables, surrogates, private use) share one set of
            # properties and carry neither mappings nor decompositions.
            for cp in range(first, min(code, BMP - 1) + 1):
                category[cp] = fields[2]
            if code >= BMP:
                continue
            decomp = fields[5]
            if decomp and not decomp.startswith("<"):
                decomposition[code] = [int(x, 16) for x in decomp.split()]
            for field, table in ((fields[12], upper), (fields[13], lower)):
                if field:
                    target = int(field, 16)
                    # A BMP character never maps outside the plane today; if one ever does,
                    # a single code unit cannot hold the result, so it keeps itself.
                    if target < BMP:
                        table[code] = target
    if sum(1 for c in category if c != "Cn") < 1000:
        raise DataError(f"{path}: too few characters; is this UnicodeData.txt?")
    return category, decomposition, upper, lower


def read_white_space(path):
    """Returns the sorted (first, last) ranges of BMP code points with the White_Space property."""
    points = set()
    with open(path, encoding="utf-8") as f:
        for line_number, line in enumerate(f, 1):
            data = line.split("#", 1)[0].strip()
            if not data:
                continue
            fields = [x.strip() for x in data.split(";")]
            if len(fields) != 2:
                raise DataError(f"{path}:{line_number}: expected 2 fields")
            if fields[1] != "White_Space":
                continue
            first, _, last = fields[0].partition("..")
            for cp in range(int(first, 16), int(last or first, 16) + 1):
                if cp < BMP:
                    points.add(cp)
    if not points:
        raise DataError(f"{path}: no White_Space entries; is this PropList.txt?")
    ranges = []
    for cp in sorted(points):
        if ranges and ranges[-1][1] == cp - 1:
            ranges[-1][1] = cp
        else:
            ranges.append([cp, cp])
    return [tuple(r) for r in ranges]


def fixpoint(step, c):
    seen = set()
    while True:
        n = step(c)
        if n == c:
            return c
        if n in seen:
            raise DataError(f"mapping of U+{c:04X} does not settle")
        seen.add(n)
        c = n


def build_tables(category, decomposition, upper, lower):
    fold = [fixpoint(lambda x: lower[upper[x]], c) for c in range(BMP)]

    accent = [None] * BMP

    def accent_of(c):
        if accent[c] is None:
            if category[c] == "Mn":
                accent[c] = 0
            else:
                d = decomposition[c]
                base = d[0] if d else None
                if base is not None and base < BMP and not category[base].startswith("M"):
                    accent[c] = accent_of(base)
                else:
                    accent[c] = c
        return accent[c]

    for c in range(BMP):
        accent_of(c)

    def case_accent_of(c):
        a = accent[c]
        return 0 if a == 0 and c != 0 else fold[a]

    caseaccent = [fixpoint(case_accent_of, c) for c in range(BMP)]
    # Nothing folds to a mark: 0 stays reserved for "ignored" (and U+0000 for itself).
    return {"upper": upper, "lower": lower, "fold": fold, "accent": accent, "caseaccent": caseaccent}


def to_delta(c, m):
    d = (m - c) & 0xFFFF
    return d - 0x10000 if d >= 0x8000 else d


def compress(tables):
    """Returns (pages, index): the pool of distinct pages and, per table, 256 pool numbers."""
    pages = []
    page_number = {}
    index = {}
    for name in TABLES:
        mapping = tables[name]
        row = []
        for hi in range(256):
            page = tuple(to_delta(c, mapping[c]) for c in range(hi << 8, (hi << 8) + 256))
            if page not in page_number:
                page_number[page] = len(pages)
                pages.append(page)
            row.append(page_number[page])
        index[name] = row
    if len(pages) > 256:
        raise DataError(f"{len(pages)} distinct pages do not fit an 8-bit page index")
    return pages, index


def decode(pages, index, name, c):
    return (c + pages[index[name][c >> 8]][c & 0xFF]) & 0xFFFF


def render(pages, index, white_space, version, input_name):
    enum_names = {"upper": "Upper", "lower": "Lower", "fold": "Fold", "accent": "Accent",
                  "caseaccent": "CaseAccent"}
    users = [[] for _ in pages]
    for name in TABLES:
        for hi, p in enumerate(index[name]):
            users[p].append(f"{enum_names[name]} {hi:02X}")
    out = []
    w = out.append
    w("// Generated by tools/gen_unicode_tables.py from " + input_name + " and PropList.txt" +
      f" (Unicode {version}). Do not edit: rerun")
    w("// the script instead (see its header). Layout and lookup: DKUnicodeTables.h.")
    w("#include \"text/DKUnicodeTables.h\"")
    w("")
    w("namespace DKUnicode {")
    w("")
    w(f"const char kUnicodeVersion[] = \"{version}\";")
    w("")
    w("const std::uint8_t kPageIndex[kTableCount][256] = {")
    for name in TABLES:
        w(f"  {{ // {enum_names[name]}")
        row = index[name]
        for i in range(0, 256, 16):
            w("    " + " ".join(f"{p:3d}," for p in row[i:i + 16]))
        w("  },")
    w("};")
    w("")
    w(f"alignas(64) const std::int16_t kPages[{len(pages)}][256] = {{")
    for number, page in enumerate(pages):
        shown = users[number]
        label = ", ".join(shown[:6]) + (f" and {len(shown) - 6} more" if len(shown) > 6 else "")
        w(f"  {{ // {number}: {label}")
        for i in range(0, 256, 16):
            w("    " + "".join(f"{d:6d}," for d in page[i:i + 16]))
        w("  },")
    w("};")
    w("")
    w(f"const WhiteSpaceRange kWhiteSpace[{len(white_space)}] = {{")
    for first, last in white_space:
        w(f"  {{0x{first:04X}, 0x{last:04X}}},")
    w("};")
    w("")
    w("} // namespace DKUnicode")
    return "\n".join(out) + "\n"


def detect_version(input_path):
    folder = os.path.dirname(os.path.abspath(input_path))
    probes = (("ReadMe.txt", r"Version (\d+\.\d+\.\d+) of the Unicode Standard"),
              ("DerivedAge.txt", r"DerivedAge-(\d+\.\d+\.\d+)\.txt"))
    for file_name, pattern in probes:
        try:
            with open(os.path.join(folder, file_name), encoding="utf-8") as f:
                m = re.search(pattern, f.read(4096))
        except OSError:
            continue
        if m:
            return m.group(1)
    return None


def check(tables, pages, index, category, white_space, text, output):
    problems = []

    def fail(message):
        if len(problems) < 50:
            problems.append(message)
        else:
            problems.append(None)

    for name in TABLES:
        for c in range(BMP):
            got = decode(pages, index, name, c)
            if got != tables[name][c]:
                fail(f"{name}: U+{c:04X} decodes to U+{got:04X}, expected U+{tables[name][c]:04X}")
    fold, accent, caseaccent = tables["fold"], tables["accent"], tables["caseaccent"]
    upper, lower = tables["upper"], tables["lower"]
    for c in range(BMP):
        if 0xD800 <= c <= 0xDFFF and any(tables[n][c] != c for n in TABLES):
            fail(f"surrogate U+{c:04X} does not map to itself")
        if fold[fold[c]] != fold[c]:
            fail(f"fold is not idempotent at U+{c:04X}")
        if fold[upper[c]] != fold[c] or fold[lower[c]] != fold[c]:
            fail(f"fold(upper/lower(U+{c:04X})) differs from fold(U+{c:04X})")
        if accent[c] != 0 and accent[accent[c]] != accent[c]:
            fail(f"accent is not idempotent at U+{c:04X}")
        if c != 0 and (accent[c] == 0) != (category[c] == "Mn"):
            fail(f"accent of U+{c:04X} ({category[c]}) is 0 exactly when it is a nonspacing mark")
        ca = caseaccent[c]
        if ca != 0 and (caseaccent[ca] != ca or fold[ca] != ca):
            fail(f"caseaccent is not idempotent at U+{c:04X}")
        if c != 0 and ca == 0 and accent[c] != 0:
            fail(f"caseaccent drops U+{c:04X}, which is not a mark")
    for first, last in white_space:
        for c in range(first, last + 1):
            if not category[c].startswith(("Z", "C")):
                fail(f"white space U+{c:04X} has the category {category[c]}")
    if white_space[0] != (0x09, 0x0D) or white_space[1] != (0x20, 0x20) or white_space[2][0] < 0x80:
        fail("white space below U+0080 is not exactly U+0009..U+000D and U+0020 (the ASCII fast path)")
    for c in range(0x80):
        if upper[c] != (c - 32 if 0x61 <= c <= 0x7A else c) or lower[c] != (c + 32 if 0x41 <= c <= 0x5A else c):
            fail(f"ASCII U+{c:04X} does not follow the ASCII fast path")
        if accent[c] != c:
            fail(f"ASCII U+{c:04X} has an accent folding")
    if output is not None:
        try:
            with open(output, encoding="utf-8") as f:
                if f.read() != text:
                    fail(f"{output} is out of date: rerun tools/gen_unicode_tables.py")
        except OSError as e:
            fail(f"cannot read {output}: {e.strerror}")
    return [p for p in problems if p is not None] + (["(more problems not shown)"] if None in problems else [])


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--input", default=DEFAULT_INPUT, help="UnicodeData.txt (default: %(default)s)")
    parser.add_argument("--proplist", help="PropList.txt (default: beside the input)")
    parser.add_argument("--output", default=DEFAULT_OUTPUT, help="generated C++ file (default: %(default)s)")
    parser.add_argument("--unicode-version", help="version to record (default: read beside the input)")
    parser.add_argument("--check", action="store_true",
                        help="verify the tables and that the output file is up to date; write nothing")
    args = parser.parse_args()

    if not os.path.isfile(args.input):
        print(f"gen_unicode_tables: {args.input} not found. Install the Unicode Character Database "
              "(Debian/Ubuntu: apt-get install unicode-data) or pass --input PATH/UnicodeData.txt.",
              file=sys.stderr)
        return 2
    proplist = args.proplist or os.path.join(os.path.dirname(os.path.abspath(args.input)), "PropList.txt")
    if not os.path.isfile(proplist):
        print(f"gen_unicode_tables: {proplist} not found; pass --proplist PATH/PropList.txt.", file=sys.stderr)
        return 2
    version = args.unicode_version or detect_version(args.input)
    if version is None:
        print("gen_unicode_tables: cannot tell the Unicode version (no ReadMe.txt or DerivedAge.txt beside "
              f"{args.input}); pass --unicode-version X.Y.Z.", file=sys.stderr)
        return 2
    try:
        category, decomposition, upper, lower = read_unicode_data(args.input)
        tables = build_tables(category, decomposition, upper, lower)
        pages, index = compress(tables)
        white_space = read_white_space(proplist)
    except (DataError, ValueError) as e:
        print(f"gen_unicode_tables: {e}", file=sys.stderr)
        return 1
    text = render(pages, index, white_space, version, "UnicodeData.txt")

    if args.check:
        problems = check(tables, pages, index, category, white_space, text, args.output)
        for p in problems:
            print(f"gen_unicode_tables: {p}", file=sys.stderr)
        if problems:
            return 1
        print(f"gen_unicode_tables: {len(TABLES)} tables x {BMP} code points agree with {args.input} "
              f"(Unicode {version}); {len(pages)} distinct pages; {args.output} is up to date.")
        return 0

    with open(args.output, "w", encoding="utf-8", newline="\n") as f:
        f.write(text)
    print(f"gen_unicode_tables: wrote {args.output} (Unicode {version}, {len(pages)} distinct pages, "
          f"{len(pages) * 512 + len(TABLES) * 256} bytes of tables).")
    return 0


if __name__ == "__main__":
    sys.exit(main())
