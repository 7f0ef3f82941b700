#!/usr/bin/env python3
"""Generates libs/host/src/tables/satellite_history_table.cpp.

Which GPS, GLONASS and BeiDou satellite flew each PRN on the dates of the reference
summary, with the model parameters of that satellite, so that the host can give
the force model the parameters of the satellite actually flying when its data
were taken (a PRN passes from satellite to satellite over the years: GPS PRN 11
was a Block IIR satellite of 1080 kg in 2016 and a Block IIIA of 2161 kg in
2025). Derived from:

  satellite_blocks_summary.txt  PRN -> SVN/block on fixed dates, block PCO
                                medians, masses, a-priori direct radiation-
                                pressure forces
  satellite_pco.txt             IGS ANTEX phase-centre offsets per SVN
                                (ionosphere-free, body frame, m)

The parameters follow the library's default table:
  srpScale  a-priori direct force F of the block divided by the satellite's
            mass and by K = 4.56e-6 * 1.21 * 13.4 / 1075 m/s^2, the force
            model's acceleration per unit scale. F: GAMIT ertorb.f for GPS; the
            ECOM table for BeiDou (GAMIT's BeiDou GEO/IGSO figure assumes a
            mass three times too large). BeiDou-3 blocks without an ECOM value
            take the value of the nearest bus: GEO-CAST that of IGSO-CAST, the
            experimental IGSO-SECM that of MEO-SECM.
  pco       the IGS value of the SVN when there is one; else the IGS median of
            its block; else the receiver-software nominal of its block (NRCan),
            the only published number for GPS IIIA and BeiDou-2.
  mass      the IGS metadata mass of the SVN; else the block median (the
            placeholder mass 1000 kg of the PRN table is not used).

Usage: scripts/gen_satellite_history.py [reference_dir] [output]
"""

import os
import sys

from reference_tables import literal, read_pco, read_summary

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DEFAULT_REFERENCE = os.path.join(ROOT, "..", "shared", "reference")
DEFAULT_OUTPUT = os.path.join(ROOT, "libs", "host", "src", "tables", "satellite_history_table.cpp")

SYSTEMS = ("G", "R", "C")
K_SRP = 4.56e-6 * 1.21 * 13.4 / 1075.0
PLACEHOLDER_MASS = 1000.0

# Block of the PRN table -> (row of the force table, column).
FORCE_BLOCK = {
    ("G", "BLOCK_I"): ("BLOCK_I", "G"), ("G", "BLOCK_II"): ("BLOCK_II", "G"),
    ("G", "BLOCK_IIA"): ("BLOCK_IIA", "G"), ("G", "BLOCK_IIR-A"): ("BLOCK_IIR", "G"),
    ("G", "BLOCK_IIR-B"): ("BLOCK_IIR", "G"), ("G", "BLOCK_IIR-M"): ("BLOCK_IIR", "G"),
    ("G", "BLOCK_IIF"): ("BLOCK_IIF", "G"), ("G", "BLOCK_IIIA"): ("BLOCK_IIIA", "G"),
    ("R", "GLONASS"): ("GLONASS", "G"), ("R", "GLONASS-M"): ("GLONASS-M", "G"),
    ("R", "GLONASS-K1"): ("GLONASS-K1", "G"), ("R", "GLONASS-K2"): ("GLONASS-K1", "G"),
    ("C", "BEIDOU-2G"): ("BEIDOU-2G", "F"), ("C", "BEIDOU-2I"): ("BEIDOU-2I", "F"),
    ("C", "BEIDOU-2M"): ("BEIDOU-2M", "F"),
    ("C", "BEIDOU-3M-CAST"): ("BEIDOU-3M-CAST", "F"), ("C", "BEIDOU-3M-SECM"): ("BEIDOU-3M-SECM", "F"),
    ("C", "BEIDOU-3SI-CAST"): ("BEIDOU-3SI-CAST", "F"), ("C", "BEIDOU-3SM-CAST"): ("BEIDOU-3SM-CAST", "F"),
    ("C", "BEIDOU-3SI-SECM"): ("BEIDOU-3M-SECM", "F"),
    ("C", "BEIDOU-3I"): ("BEIDOU-3I-CAST", "F"), ("C", "BEIDOU-3G-CAST"): ("BEIDOU-3I-CAST", "F"),
}

# Blocks of the PRN table -> block of the mass table (IGS metadata names).
MASS_BLOCK = {
    "BLOCK_IIA": "GPS-IIA", "BLOCK_IIR-A": "GPS-IIR-A", "BLOCK_IIR-B": "GPS-IIR-B", "BLOCK_IIR-M": "GPS-IIR-M",
    "BLOCK_IIF": "GPS-IIF", "BLOCK_IIIA": "GPS-IIIA",
    "BEIDOU-2G": "BDS-2G", "BEIDOU-2I": "BDS-2I", "BEIDOU-2M": "BDS-2M",
    "BEIDOU-3M-CAST": "BDS-3M-CAST", "BEIDOU-3M-SECM": "BDS-3M-SECM-A", "BEIDOU-3SI-CAST": "BDS-3SI-CAST",
    "BEIDOU-3SI-SECM": "BDS-3SI-SECM", "BEIDOU-3SM-CAST": "BDS-3SM-CAST", "BEIDOU-3I": "BDS-3I",
    "BEIDOU-3G-CAST": "BDS-3G", "GLONASS-K2": "GLO-K1A",
}

# Blocks without an IGS value -> row of the nominal (NRCan) table.
NOMINAL_BLOCK = {
    ("G", "BLOCK_IIIA"): "BLOCK_IIIA",
    ("R", "GLONASS-K2"): "GLONASS-K", ("R", "GLONASS-K1"): "GLONASS-K",
    ("C", "BEIDOU-2G"): "BDS-2_GEO", ("C", "BEIDOU-2I"): "BDS-2_IGSO", ("C", "BEIDOU-2M"): "BDS-2_MEO",
}








def derive(sat, pco, medians, nominal, masses, forces):
    sys_id, svn, block = sat["sys"], sat["svn"], sat["block"]
    if svn in pco:
        ant, ant_src = pco[svn], "IGS " + svn
    elif (sys_id, block) in medians:
        ant, ant_src = medians[(sys_id, block)], "IGS median"
    else:
        ant, ant_src = nominal[(sys_id, NOMINAL_BLOCK[(sys_id, block)])], "nominal"
    mass = sat["massM"]
    if mass is None:
        mass = sat["massP"] if sat["massP"] != PLACEHOLDER_MASS else masses[MASS_BLOCK[block]]
    force_key, column = FORCE_BLOCK[(sys_id, block)]
    force = forces[(sys_id, force_key)][column]
    return force / mass / K_SRP, ant, "%.4g N / %.1f kg, PCO %s" % (force, mass, ant_src)




def main():
    ref = sys.argv[1] if len(sys.argv) > 1 else DEFAULT_REFERENCE
    dst = sys.argv[2] if len(sys.argv) > 2 else DEFAULT_OUTPUT
    pco = {svn: v[1:4] for svn, v in read_pco(os.path.join(ref, "satellite_pco.txt")).items()}
    medians, nominal, masses, forces, history = read_summary(os.path.join(ref, "satellite_blocks_summary.txt"))
    history = [h for h in history if h["sys"] in SYSTEMS]
    doc = __doc__.split("Usage:")[0].strip().splitlines()[2:]
    out = ["// Generated by scripts/gen_satellite_history.py from satellite_blocks_summary.txt and",
           "// satellite_pco.txt; do not edit.",
           "//"] + [("// " + l).rstrip() for l in doc] + [
           "//", "// K = %r m/s^2." % K_SRP,
           '#include "satellite_history_table.hpp"', "",
           "namespace zarn {", "namespace host {", "namespace tables {", "",
           "SatelliteHistoryRow const kSatelliteHistory[] = {"]
    for sat in history:
        p1, ant, note = derive(sat, pco, medians, nominal, masses, forces)
        date = int(sat["date"].replace("-", ""))
        out.append("    {%d, '%s', %d, %s, {%s}},  // %s %s: %s" % (
            date, sat["sys"], sat["prn"], literal(p1), ", ".join(map(literal, ant)), sat["svn"], sat["block"], note))
    out += ["};", "", "std::size_t const kSatelliteHistorySize = sizeof kSatelliteHistory / sizeof kSatelliteHistory[0];",
            "", "}  // namespace tables", "}  // namespace host", "}  // namespace zarn", ""]
    os.makedirs(os.path.dirname(dst), exist_ok=True)
    with open(dst, "w") as f:
        f.write("\n".join(out))


if __name__ == "__main__":
    main()
