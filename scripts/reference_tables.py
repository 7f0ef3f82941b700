"""Readers shared by the generators of the per-satellite tables.

Both read ../shared/reference/satellite_pco.txt and satellite_blocks_summary.txt;
keeping one reader means both tables see the same numbers.
"""
import sys


def data_lines(path):
    """Non-blank lines of a reference file, without their newline."""
    with open(path) as f:
        for line in f:
            line = line.rstrip("\n")
            if line.strip():
                yield line


def read_pco(path):
    """SVN -> (block, x, y, z, source) from the ionosphere-free columns."""
    pco = {}
    for line in data_lines(path):
        if line.startswith("#"):
            continue
        f = line.split()
        svn, block, x, y, z, src = f[2], f[4], float(f[7]), float(f[8]), float(f[9]), f[13]
        if svn in pco and pco[svn][1:4] != (x, y, z):
            sys.exit("inconsistent PCO for " + svn)
        pco[svn] = (block, x, y, z, src)
    return pco


def literal(x):
    """A C++ double literal that reads back to exactly x."""
    r = repr(float(x))
    return r if ("e" in r or "." in r) else r + ".0"
