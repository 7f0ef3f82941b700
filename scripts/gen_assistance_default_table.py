#!/usr/bin/env python3
"""Generates libs/support/src/tables/assistance_default_table.cpp.

The built-in assistance data for GPS svId 1-32, GLONASS 1-24 and BeiDou 1-14,
derived from two published-data summaries:

  satellite_pco.txt            IGS ANTEX satellite phase-centre offsets
                               (igs08.atx release IGS08_1805; BeiDou-3 entries
                               of igs20_2270), ionosphere-free, body frame, m
  satellite_blocks_summary.txt per-block PCO medians, masses (IGS satellite
                               metadata SINEX), a-priori direct radiation-
                               pressure forces, PRN -> SVN/block by date

For each PRN the satellite flying it on CONSTELLATION_DATE is used:
  antPhase  the IGS value of that SVN if it has one; else the IGS08 median of
            its block; else (GPS IIIA, BeiDou-2, GLONASS-K2) the receiver-
            software nominal per block quoted in the summary (NRCan), the only
            published number available for those blocks.
  srp[0]    a-priori direct acceleration F / m divided by the acceleration
            per unit scale of the force model, K = 4.56e-6 * 1.21 * 13.4 /
            1075 m/s^2 (fixed area and mass), so that the model starts from
            the published a-priori force of the block. F: GAMIT ertorb.f for
            GPS and GLONASS, the ECOM table for BeiDou-2 (GAMIT's BeiDou-2
            GEO/IGSO figure assumes a mass three times too large); m: the IGS
            metadata mass of the SVN.
  srp[1]    0: the Y-bias has no useful a-priori value; it is estimated.
  maxPredictionLength
            the default re-initialisation period of the constellation, hours.
  errorParams
            GLONASS: the tuned GLONASS model below for every satellite. GPS
            and BeiDou: the same model scaled by the ratio of typical broadcast
            SISRE (about 0.6 m GPS, 1.3 m BeiDou-2, 1.9 m GLONASS); to be
            calibrated against precise orbits.
  clock     no a-priori clock model: zero.
The svId 1 rows keep the values the predictor was tuned with (TUNED below).

Usage: scripts/gen_assistance_default_table.py [reference_dir] [output]
"""

import os
import sys

from reference_tables import literal, read_pco, read_summary

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DEFAULT_REFERENCE = os.path.join(ROOT, "..", "shared", "reference")
DEFAULT_OUTPUT = os.path.join(ROOT, "libs", "support", "src", "tables", "assistance_default_table.cpp")

CONSTELLATION_DATE = "2025-07-04"
SYSTEMS = [("G", "Gps", 32), ("R", "Glonass", 24), ("C", "Beidou", 14)]

# Acceleration of the force model per unit of srp[0] at 1 AU, m/s^2.
K_SRP = 4.56e-6 * 1.21 * 13.4 / 1075.0

# Hours: the constellation analyzer's default initialisation periods.
MAX_PREDICTION_HOURS = {"G": 336, "R": 336, "C": 72}

GLONASS_ERROR_MODEL = (3e-12, 1.9658356e-05, 3.455121095089)
SISRE_RATIO = {"G": 0.6 / 1.9, "R": 1.0, "C": 1.3 / 1.9}

# svId 1 values the predictor was tuned with; they replace the derived ones.
TUNED = {
    "G": {"srp": (1.55667, 0.0384716), "antPhase": (0.301460335686, -0.006090886982, 1.092374686083)},
    "R": {"srp": (2.16433, 0.112063), "antPhase": (-0.465170834085, 0.027058357401, 2.051609220407),
          "errorParams": GLONASS_ERROR_MODEL},
    "C": {"srp": (1.52657605931, -0.139998837815)},
}

# Block of the PRN table -> key of the a-priori force table and its source column.
FORCE_BLOCK = {
    ("G", "BLOCK_I"): ("BLOCK_I", "G"), ("G", "BLOCK_II"): ("BLOCK_II", "G"),
    ("G", "BLOCK_IIA"): ("BLOCK_IIA", "G"), ("G", "BLOCK_IIR-A"): ("BLOCK_IIR", "G"),
    ("G", "BLOCK_IIR-B"): ("BLOCK_IIR", "G"), ("G", "BLOCK_IIR-M"): ("BLOCK_IIR", "G"),
    ("G", "BLOCK_IIF"): ("BLOCK_IIF", "G"), ("G", "BLOCK_IIIA"): ("BLOCK_IIIA", "G"),
    ("R", "GLONASS"): ("GLONASS", "G"), ("R", "GLONASS-M"): ("GLONASS-M", "G"),
    ("R", "GLONASS-K1"): ("GLONASS-K1", "G"), ("R", "GLONASS-K2"): ("GLONASS-K1", "G"),
    ("C", "BEIDOU-2G"): ("BEIDOU-2G", "F"), ("C", "BEIDOU-2I"): ("BEIDOU-2I", "F"),
    ("C", "BEIDOU-2M"): ("BEIDOU-2M", "F"),
}

# Blocks without an IGS value -> row of the nominal (NRCan) table.
NOMINAL_BLOCK = {
    ("G", "BLOCK_IIIA"): "BLOCK_IIIA", ("R", "GLONASS-K2"): "GLONASS-K",
    ("C", "BEIDOU-2G"): "BDS-2_GEO", ("C", "BEIDOU-2I"): "BDS-2_IGSO", ("C", "BEIDOU-2M"): "BDS-2_MEO",
}








def derive(sys_id, svid, pco, medians, nominal, forces, prns):
    sat = prns.get((sys_id, svid))
    if sat is None:
        sys.exit("no satellite for %s%02d on %s" % (sys_id, svid, CONSTELLATION_DATE))
    svn, block = sat["svn"], sat["block"]
    if svn in pco:
        ant = pco[svn][1:4]
        ant_src = "IGS %s %s" % ("igs08" if pco[svn][4] == "A" else "igs20", svn)
    elif (sys_id, block) in medians:
        ant = medians[(sys_id, block)]
        ant_src = "IGS igs08 median " + block
    else:
        ant = nominal[(sys_id, NOMINAL_BLOCK[(sys_id, block)])]
        ant_src = "NRCan nominal " + NOMINAL_BLOCK[(sys_id, block)]
    mass = sat["massM"] if sat["massM"] is not None else sat["massP"]
    force_key, column = FORCE_BLOCK[(sys_id, block)]
    force = forces[(sys_id, force_key)][column]
    p1 = force / mass / K_SRP
    ratio = SISRE_RATIO[sys_id]
    row = {
        "max": MAX_PREDICTION_HOURS[sys_id],
        "srp": (p1, 0.0),
        "antPhase": ant,
        "errorParams": tuple(c * ratio for c in GLONASS_ERROR_MODEL),
    }
    sources = {
        "srp": "srp %.4g N / %.1f kg (%s)" % (force, mass, "GAMIT" if column == "G" else "ECOM"),
        "antPhase": "PCO " + ant_src,
    }
    tuned = TUNED[sys_id] if svid == 1 else {}
    row.update(tuned)
    notes = [("tuned " + k) if k in tuned else sources[k] for k in ("srp", "antPhase") if k in tuned or k in sources]
    row["comment"] = "%s%02d %s %s: %s" % (sys_id, svid, svn, block, "; ".join(notes))
    return row




def emit(sys_id, name, count, rows):
    out = ["DefaultAssistanceRow const k%sDefaultAssistance[k%sSatellites] = {" % (name, name)]
    for row in rows:
        out.append("    // " + row["comment"])
        out.append("    {%d, {%s}, {%s},\n     {%s}}," % (
            row["max"], ", ".join(map(literal, row["srp"])), ", ".join(map(literal, row["antPhase"])),
            ", ".join(map(literal, row["errorParams"]))))
    out.append("};")
    width = 3 if sys_id == "R" else 4
    out.append("double const k%sDefaultClock[k%sSatellites][%d] = {};" % (name, name, width))
    return "\n".join(out)


def main():
    ref = sys.argv[1] if len(sys.argv) > 1 else DEFAULT_REFERENCE
    dst = sys.argv[2] if len(sys.argv) > 2 else DEFAULT_OUTPUT
    pco = read_pco(os.path.join(ref, "satellite_pco.txt"))
    medians, nominal, _, forces, history = read_summary(os.path.join(ref, "satellite_blocks_summary.txt"))
    prns = {(h["sys"], h["prn"]): h for h in history if h["date"] == CONSTELLATION_DATE}
    doc = __doc__.split("Usage:")[0].strip().splitlines()[2:]
    parts = ["// Generated by scripts/gen_assistance_default_table.py from satellite_pco.txt and",
             "// satellite_blocks_summary.txt; do not edit.",
             "//"] + [("// " + l).rstrip() for l in doc] + [
             "//",
             "// Satellites as flying on %s. K = %r m/s^2." % (CONSTELLATION_DATE, K_SRP),
             '#include "tables/assistance_default_table.hpp"', "",
             "namespace zarn {", "namespace support {", "namespace tables {", ""]
    for sys_id, name, count in SYSTEMS:
        rows = [derive(sys_id, svid, pco, medians, nominal, forces, prns) for svid in range(1, count + 1)]
        parts += [emit(sys_id, name, count, rows), ""]
    parts += ["}  // namespace tables", "}  // namespace support", "}  // namespace zarn", ""]
    with open(dst, "w") as f:
        f.write("\n".join(parts))


if __name__ == "__main__":
    main()
