# SPDX-License-Identifier: Apache-2.0
"""Everything the sweep tool reads from zelsim's outputs, in one place.

zelsim --json writes one object per run. The rest of the tool sees only
what the functions here return, so a change in zelsim's JSON or timeline
is adjusted in this file alone.
"""
import csv
import json
import re

SCHEMA_VERSION = 1
# The only section whose content differs between two runs of one point.
WALL_CLOCK = "wall_clock"

# The main figures of a run: name -> (what it is, unit). Bandwidths are
# decimal GB/s over the traffic's time; latencies are over all completed
# requests.
FIGURES = {
    "read_gbps": ("read bandwidth", "GB/s"),
    "write_gbps": ("write bandwidth", "GB/s"),
    "total_gbps": ("delivered bandwidth", "GB/s"),
    "offered_gbps": ("offered bandwidth", "GB/s"),
    "latency_mean_ns": ("mean latency", "ns"),
    "latency_p50_ns": ("p50 latency", "ns"),
    "latency_p95_ns": ("p95 latency", "ns"),
    "latency_p99_ns": ("p99 latency", "ns"),
    "completed": ("completed requests", ""),
}


class OutputError(Exception):
    """A zelsim output this tool can't read; the message names the file."""


def load_run(path):
    try:
        with open(path, encoding="utf-8") as f:
            doc = json.load(f)
    except OSError as e:
        raise OutputError(f"can't read '{path}': {e.strerror}")
    except ValueError as e:
        raise OutputError(f"'{path}' is not JSON: {e}")
    version = doc.get("schema_version") if isinstance(doc, dict) else None
    if version != SCHEMA_VERSION:
        raise OutputError(f"'{path}' has schema_version {version}; this tool reads {SCHEMA_VERSION}")
    return doc


def deadlocked(doc):
    return bool(doc["run"].get("deadlock"))


def figures(doc):
    """The main figures of one run (FIGURES). A latency is None when no
    request completed."""
    total = doc["total"]
    bandwidth = total["bandwidth_gbps"]
    latency = total["latency_ns"]["all"]
    return {
        "read_gbps": bandwidth["read"],
        "write_gbps": bandwidth["write"],
        "total_gbps": bandwidth["total"],
        "offered_gbps": bandwidth["offered_total"],
        "latency_mean_ns": latency.get("mean"),
        "latency_p50_ns": latency.get("p50"),
        "latency_p95_ns": latency.get("p95"),
        "latency_p99_ns": latency.get("p99"),
        "completed": total["completed"],
    }


def link_utilisation(doc):
    """{link: (request, response)}, each a share of the link's flit capacity."""
    return {link["link"]: (link["utilisation"]["request"], link["utilisation"]["response"])
            for link in doc["links"]}


def latency_histograms(doc):
    """{kind: (bounds_ns, counts)} of the total, for the kinds with requests."""
    found = {}
    for kind, stats in doc["total"]["latency_ns"].items():
        histogram = stats.get("histogram") if isinstance(stats, dict) else None
        if histogram and stats.get("count"):
            found[kind] = (histogram["bounds_ns"], histogram["counts"])
    return found


def bytes_without_wall_clock(path):
    """The file's bytes with the wall_clock member cut out. The section
    holds numbers only, so it ends at its first closing brace."""
    with open(path, "rb") as f:
        data = f.read()
    return re.sub(rb'"' + WALL_CLOCK.encode() + rb'"\s*:\s*\{[^{}]*\}\s*,?', b"", data)


# The timeline CSV: one row per interval, from start_ns to end_ns, with
# the columns of each link (linkN_...) and of all links (all_...). A row is
# drawn at the interval's end.
TIMELINE_TIME = "end_ns"
TIMELINE_COLUMNS = {
    "read_gbps": "all_read_gbps",
    "write_gbps": "all_write_gbps",
    "latency_mean_ns": "all_mean_ns",
    "latency_p99_ns": "all_p99_ns",
    "outstanding": "all_outstanding",
}


def load_timeline(path):
    """{TIMELINE_TIME: [...], figure: [...]} from a timeline CSV; empty cells
    (no request completed in the interval) become None."""
    try:
        with open(path, newline="", encoding="utf-8") as f:
            rows = list(csv.DictReader(f))
    except OSError as e:
        raise OutputError(f"can't read '{path}': {e.strerror}")
    wanted = {TIMELINE_TIME: TIMELINE_TIME, **TIMELINE_COLUMNS}
    if not rows:
        raise OutputError(f"'{path}' holds no interval")
    missing = [c for c in wanted.values() if c not in rows[0]]
    if missing:
        raise OutputError(f"'{path}' has no column {missing[0]}")
    series = {}
    for name, column in wanted.items():
        try:
            series[name] = [float(r[column]) if r[column] not in ("", None) else None for r in rows]
        except ValueError:
            raise OutputError(f"'{path}': column {column} holds a value that is not a number")
    return series
