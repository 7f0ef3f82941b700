#!/usr/bin/python3
"""Plots the error growth of predicted ephemerides against prediction age.

Reads the ERRORS.csv written by 'zarn evaluate --csv' and draws, per truth and
constellation group (GPS, GLONASS, BeiDou MEO/IGSO/GEO), the median and 95th percentile
of the 3D orbit error in hourly bins of prediction age, on a logarithmic scale;
and, where the truth has clocks, the median user range error (orbit and clock)
and the RMS clock error in a second panel.

usage: scripts/plot_errors.py ERRORS.csv OUT.png [--title TEXT]
"""
import argparse
import csv
import math
import sys
from collections import defaultdict

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402

BIN_HOURS = 1.0


def percentile(sorted_values, q):
    """Linear interpolation between order statistics (Hyndman and Fan 7)."""
    h = (len(sorted_values) - 1) * q
    lo = math.floor(h)
    hi = min(lo + 1, len(sorted_values) - 1)
    return sorted_values[lo] + (h - lo) * (sorted_values[hi] - sorted_values[lo])


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("csv_file")
    parser.add_argument("png_file")
    parser.add_argument("--title", default="Predicted ephemeris error against prediction age")
    args = parser.parse_args()

    bins = defaultdict(lambda: defaultdict(list))  # (truth, group) -> bin -> errors
    ure = defaultdict(lambda: defaultdict(list))  # (truth, group) -> bin -> user range errors
    clock = defaultdict(lambda: defaultdict(list))  # (truth, group) -> bin -> clock errors
    try:
        with open(args.csv_file, newline="") as f:
            for row in csv.DictReader(f):
                age = max(float(row["age_h"]), 0.0)
                key, b = (row["truth"], row["group"]), math.floor(age / BIN_HOURS)
                bins[key][b].append(float(row["error_3d_m"]))
                if row.get("ure_m"):
                    ure[key][b].append(float(row["ure_m"]))
                    clock[key][b].append(float(row["clock_m"]))
    except (OSError, KeyError, ValueError) as e:
        sys.exit(f"plot_errors: cannot read {args.csv_file}: {e}")
    if not bins:
        sys.exit(f"plot_errors: {args.csv_file} holds no error samples")

    if ure:
        fig, (ax, ax2) = plt.subplots(2, 1, figsize=(10, 9), sharex=True)
    else:
        fig, ax = plt.subplots(figsize=(10, 6))
    for (truth, group), by_bin in sorted(bins.items()):
        ages, medians, p95 = [], [], []
        for b in sorted(by_bin):
            values = sorted(by_bin[b])
            ages.append((b + 0.5) * BIN_HOURS / 24.0)
            medians.append(percentile(values, 0.5))
            p95.append(percentile(values, 0.95))
        line, = ax.plot(ages, medians, label=f"{group} median ({truth})")
        ax.plot(ages, p95, linestyle="--", color=line.get_color(), label=f"{group} 95% ({truth})")
    if ure:
        for key in sorted(ure):
            truth, group = key
            ages = [(b + 0.5) * BIN_HOURS / 24.0 for b in sorted(ure[key])]
            medians = [percentile(sorted(ure[key][b]), 0.5) for b in sorted(ure[key])]
            rms = [math.sqrt(sum(x * x for x in clock[key][b]) / len(clock[key][b])) for b in sorted(ure[key])]
            line, = ax2.plot(ages, medians, label=f"{group} URE median ({truth})")
            ax2.plot(ages, rms, linestyle=":", color=line.get_color(), label=f"{group} clock RMS ({truth})")
        ax2.set_xlabel("prediction age (days)")
        ax2.set_ylabel("user range / clock error (m)")
        ax2.grid(True, alpha=0.3)
        ax2.legend(fontsize="small")
    ax.set_yscale("log")
    ax.set_xlabel("prediction age (days)")
    ax.set_ylabel("3D orbit error (m)")
    ax.set_title(args.title)
    ax.grid(True, which="both", alpha=0.3)
    ax.legend(fontsize="small")
    fig.tight_layout()
    fig.savefig(args.png_file, dpi=120)
    print(f"plot_errors: wrote {args.png_file}")


if __name__ == "__main__":
    main()
