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


def read_summary(path):
    """Tables of satellite_blocks_summary.txt: IGS block medians (section 1),
    nominal block offsets (#N lines of section 1), block masses (section 2),
    a-priori radiation-pressure forces (section 3) and the PRN history
    (section 4: one dict per dated PRN assignment)."""
    section = None
    medians, nominal, masses, forces, history = {}, {}, {}, {}, []
    for line in data_lines(path):
        if line.startswith("## "):
            section = int(line[3])
            continue
        f = line.split()
        if section == 1 and line.startswith("#N "):
            nominal[(f[1], f[2])] = (float(f[3]), float(f[4]), float(f[5]))
        if line.startswith("#"):
            continue
        if section == 1:
            medians[(f[0], f[1])] = (float(f[3]), float(f[4]), float(f[5]))
        elif section == 2:
            if f[1] != "-":
                masses[f[1]] = float(f[3])
        elif section == 3:
            cols = line.split("|")
            g = cols[0].split()
            fcol = cols[1].split()
            forces[(g[0], g[1])] = {"G": None if g[2] == "-" else float(g[2]),
                                    "F": None if fcol[0] == "-" else float(fcol[0])}
        elif section == 4:
            history.append({"date": f[0], "sys": f[1], "prn": int(f[2][1:]), "svn": f[3], "block": f[4],
                            "massP": float(f[5]), "massM": None if f[6] == "-" else float(f[6])})
    return medians, nominal, masses, forces, history


def literal(x):
    """A C++ double literal that reads back to exactly x."""
    r = repr(float(x))
    return r if ("e" in r or "." in r) else r + ".0"
