#!/usr/bin/env python3
"""Generates libs/support/src/tables/gauss_jackson_table.cpp.

Source: the eighth-order Gauss-Jackson (positions) and summed-Adams (velocities)
ordinate-form coefficients of M. M. Berry and L. M. Healy, "Implementation of
Gauss-Jackson Integration for Orbit Propagation", J. Astronaut. Sci. 52(3),
331-357, 2004, Tables 5 and 6, read from ../shared/reference/gauss_jackson_8th.txt
(integer numerators over a common denominator, plus the reduced fractions as
printed in the paper).

Before writing, the script checks that the two forms agree and that the tables
have their defining properties (row sums, symmetry, exactness on polynomials of
degree 8), so that a transcription error cannot reach the library.

Usage: scripts/gen_gauss_jackson_table.py [reference file] [output file]
"""

import os
import sys
from fractions import Fraction as F

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(HERE)
DEFAULT_INPUT = os.path.join(REPO, "..", "shared", "reference", "gauss_jackson_8th.txt")
DEFAULT_OUTPUT = os.path.join(REPO, "libs", "support", "src", "tables", "gauss_jackson_table.cpp")

SA_DENOMINATOR = 7257600  # 2 * 10!
GJ_DENOMINATOR = 159667200  # 44 * 10!
ROWS = range(-4, 6)  # start-up and corrector rows j = -4..4, predictor j = 5
NODES = range(-4, 5)  # accelerations a_-4 .. a_4


def read_tables(path):
    tables = {"SA": {}, "GJ": {}, "SAF": {}, "GJF": {}}
    with open(path) as f:
        for line in f:
            fields = line.split()
            if not fields or fields[0] not in tables:
                continue
            key, j, values = fields[0], int(fields[1]), fields[2:]
            if len(values) != 9 or j in tables[key]:
                sys.exit(f"malformed or repeated row: {line.strip()}")
            tables[key][j] = [int(v) for v in values] if key in ("SA", "GJ") else [F(v) for v in values]
    for key, rows in tables.items():
        if sorted(rows) != list(ROWS):
            sys.exit(f"table {key}: rows {sorted(rows)} instead of -4..5")
    return tables


def poly_eval(c, x):
    return sum(ci * F(x) ** i for i, ci in enumerate(c))


def check(tables):
    sa = {j: [F(n, SA_DENOMINATOR) for n in tables["SA"][j]] for j in ROWS}
    gj = {j: [F(n, GJ_DENOMINATOR) for n in tables["GJ"][j]] for j in ROWS}
    for j in ROWS:
        if sa[j] != tables["SAF"][j] or gj[j] != tables["GJF"][j]:
            sys.exit(f"row {j}: numerators and printed fractions differ")
        if sum(sa[j]) != (F(1, 2) if j == 5 else 0):
            sys.exit(f"summed-Adams row {j}: wrong row sum")
        if sum(gj[j]) != F(1, 12):
            sys.exit(f"Gauss-Jackson row {j}: wrong row sum")
    for j in range(-4, 5):
        if sa[j] != [-x for x in reversed(sa[-j])] or gj[j] != list(reversed(gj[-j])):
            sys.exit(f"row {j}: symmetry broken")

    # Exactness: for an acceleration a(t) = p(t) of degree 8 (unit step), the
    # start-up and corrector sums reproduce the velocity and position integrals
    # of p at every row, and the predictor extrapolates them exactly to t = 5.
    for trial in range(3):
        coeffs = [F((7 * trial + 3 * i) % 11 - 5, i + 1) for i in range(9)]
        acc = [poly_eval(coeffs, k) for k in NODES]
        vel_poly = [F(0)] + [c / (i + 1) for i, c in enumerate(coeffs)]  # v(0) = 0
        pos_poly = [F(0)] + [c / (i + 1) for i, c in enumerate(vel_poly)]  # r(0) = 0
        first = {0: -sum(b * a for b, a in zip(sa[0], acc))}
        second = {0: -sum(g * a for g, a in zip(gj[0], acc))}
        for n in range(1, 5):
            first[n] = first[n - 1] + (acc[n + 3] + acc[n + 4]) / 2
            second[n] = second[n - 1] + first[n - 1] + acc[n + 3] / 2
        for n in range(-1, -5, -1):
            first[n] = first[n + 1] - (acc[n + 5] + acc[n + 4]) / 2
            second[n] = second[n + 1] - first[n + 1] + acc[n + 5] / 2
        for j in range(-4, 5):
            v = first[j] + sum(b * a for b, a in zip(sa[j], acc))
            r = second[j] + sum(g * a for g, a in zip(gj[j], acc))
            if v != poly_eval(vel_poly, j) or r != poly_eval(pos_poly, j):
                sys.exit(f"row {j}: not exact on a degree-8 polynomial")
        second5 = second[4] + first[4] + acc[8] / 2
        v5 = first[4] + acc[8] / 2 + sum(b * a for b, a in zip(sa[5], acc))
        r5 = second5 + sum(g * a for g, a in zip(gj[5], acc))
        if v5 != poly_eval(vel_poly, 5) or r5 != poly_eval(pos_poly, 5):
            sys.exit("predictor row: not exact on a degree-8 polynomial")


def render(tables, source_name):
    def rows(key):
        out = []
        for j in ROWS:
            cells = ",".join(f"{n:>10}" for n in tables[key][j])
            out.append(f"    // j = {j:+d}\n    {{{cells}}},")
        return "\n".join(out)

    def quotients(key, denominator):
        # Each coefficient as the compiler's correctly rounded quotient of two exact doubles.
        out = []
        for j in ROWS:
            cells = [f"{n}.0 / {denominator}.0" for n in tables[key][j]]
            lines = [", ".join(cells[i:i + 3]) for i in range(0, 9, 3)]
            body = ",\n     ".join(lines)
            out.append(f"    // j = {j:+d}\n    {{{body}}},")
        return "\n".join(out)

    return f"""\
// Generated by scripts/gen_gauss_jackson_table.py; do not edit.
// Input: {source_name}.
//
// Eighth-order Gauss-Jackson (positions) and summed-Adams (velocities)
// coefficients in ordinate form: M. M. Berry and L. M. Healy, "Implementation
// of Gauss-Jackson Integration for Orbit Propagation", J. Astronaut. Sci.
// 52(3), 331-357, 2004, Tables 5 and 6. Row j = -4..4: start-up and corrector
// point j of the nine-point window; row j = 5: predictor of the next point.
// Column k = -4..4: the acceleration a_k, oldest first.
#include "tables/gauss_jackson_table.hpp"

namespace zarn {{
namespace support {{
namespace tables {{

// clang-format off
std::int32_t const summedAdamsNumerators[10][9] = {{
{rows("SA")}
}};

std::int32_t const gaussJacksonNumerators[10][9] = {{
{rows("GJ")}
}};
// clang-format on

double const summedAdams[10][9] = {{
{quotients("SA", SA_DENOMINATOR)}
}};

double const gaussJackson[10][9] = {{
{quotients("GJ", GJ_DENOMINATOR)}
}};

}}  // namespace tables
}}  // namespace support
}}  // namespace zarn
"""


def main():
    source = sys.argv[1] if len(sys.argv) > 1 else DEFAULT_INPUT
    target = sys.argv[2] if len(sys.argv) > 2 else DEFAULT_OUTPUT
    tables = read_tables(source)
    check(tables)
    text = render(tables, "../shared/reference/" + os.path.basename(source))
    with open(target, "w") as f:
        f.write(text)
    print(f"wrote {target}")


if __name__ == "__main__":
    main()
