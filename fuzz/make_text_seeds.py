#!/usr/bin/python3
"""Cuts the text seeds of the reader harnesses from the shared sample files:
each seed is a file's header and a few of its records, never a whole file.

Usage: fuzz/make_text_seeds.py SHARED_DATA_DIR CORPUS_DIR
"""
import gzip
import os
import sys


def read(path):
    opener = gzip.open if path.endswith(".gz") else open
    with opener(path, "rt", errors="replace") as f:
        return f.read().splitlines(keepends=True)


def rinex_piece(lines, kinds):
    """Header, then the first record of each kind (a satellite system letter,
    or a RINEX 4 '> EPH G01 LNAV' style type), continuation lines included."""
    end = next(i for i, l in enumerate(lines) if "END OF HEADER" in l[60:])
    out = lines[: end + 1]
    body = lines[end + 1:]
    version4 = any(l.startswith(">") for l in body)
    wanted = list(kinds)
    i = 0
    while i < len(body) and wanted:
        line = body[i]
        starts = line.startswith(">") if version4 else not line.startswith(" ") or kinds == ["2"]
        if not starts:
            i += 1
            continue
        j = i + 1
        while j < len(body) and not (body[j].startswith(">") if version4 else
                                     (body[j][:1] != " " if kinds != ["2"] else False)):
            j += 1
        key = " ".join(line.split()[1:4:2]) if version4 else line[:1]
        if kinds == ["2"]:
            # RINEX 2: records of a fixed number of lines, no system letter.
            count = 8 if "N" in out[0][20:21] or "n" in out[0][20:21] else 4
            return "".join(out + body[:2 * count])
        if key in wanted:
            out += body[i:j]
            wanted.remove(key)
        i = j
    return "".join(out)


def sp3_piece(lines, epochs, satellites):
    """Header, then the first epochs with their first satellites, and EOF."""
    out = []
    i = 0
    while i < len(lines) and not lines[i].startswith("*"):
        out.append(lines[i])
        i += 1
    for _ in range(epochs):
        if i >= len(lines) or not lines[i].startswith("*"):
            break
        out.append(lines[i])
        i += 1
        taken = 0
        while i < len(lines) and not lines[i].startswith("*") and not lines[i].startswith("EOF"):
            if lines[i][0] == "P":
                taken += 1
            if taken <= satellites:
                out.append(lines[i])
            i += 1
    out.append("EOF\n")
    return "".join(out)


def write(corpus, harness, name, text):
    directory = os.path.join(corpus, harness)
    os.makedirs(directory, exist_ok=True)
    with open(os.path.join(directory, name), "w") as f:
        f.write(text)


def main():
    data, corpus = sys.argv[1], sys.argv[2]
    rinex = {
        "v2_gps": (read(os.path.join(data, "2016-251_252_smartloc/brdc2510.16n")), ["2"]),
        "v2_glonass": (read(os.path.join(data, "2016-251_252_smartloc/brdc2510.16g")), ["2"]),
        "v211_station": (read(os.path.join(data, "2015-200_gpstk/arlm2000.15n")), ["2"]),
        "v3_mixed": (read(os.path.join(data, "2023-008_instinct/BRDM00DLR_S_20230081000_01D_MN.rnx")),
                     ["G", "R", "C", "E", "J", "S"]),
        "v3_mixed_2016": (read(os.path.join(data, "2016-158_smartloc/BRDC00WRD_U_20161580000_01D_MN.rnx")),
                          ["G", "R", "C", "E"]),
        "v4": (read(os.path.join(data, "2023-071_073/BRD400DLR_S_20230710000_01D_MN.rnx.gz")),
               ["EPH LNAV", "EPH FDMA", "EPH D1", "EPH D2", "EPH CNAV", "STO CNVX", "EOP CNVX", "ION LNAV"]),
    }
    for name, (lines, kinds) in rinex.items():
        text = rinex_piece(lines, kinds)
        write(corpus, "rinex_nav", name, text)
        # rinex_nav_file: first byte odd means "gzip the rest".
        write(corpus, "rinex_nav_file", name + "_plain", "\x00" + text)
        write(corpus, "rinex_nav_file", name + "_gzip", "\x0b" + text)
        # A gzip file as found on disk, which the fuzzer damages byte by byte.
        with open(os.path.join(corpus, "rinex_nav_file", name + "_gz"), "wb") as f:
            f.write(b"\x00" + gzip.compress(text.encode("latin-1"), mtime=0))
    sp3 = {
        "sp3a_velocities": read(os.path.join(data, "2015-200_gpstk/test_input_sp3_nav_2015_200.sp3")),
        "sp3c_gps": read(os.path.join(data, "2009-265_267_gpstk/igs15502.sp3")),
        "sp3c_glonass": read(os.path.join(data, "2009-265_267_gpstk/igl15502.sp3")),
        "sp3c_mgex": read(os.path.join(data, "2016-251_252_smartloc/gbm19133.sp3")),
        "sp3d_mgex": read(os.path.join(data, "sp3_2019-097_106_wum/WUM0MGXFIN_20190970000_01D_15M_ORB.SP3")),
    }
    for name, lines in sp3.items():
        write(corpus, "sp3", name, sp3_piece(lines, 2, 4))


if __name__ == "__main__":
    main()
