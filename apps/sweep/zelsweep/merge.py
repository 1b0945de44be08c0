# SPDX-License-Identifier: Apache-2.0
"""Merging a sweep's points: the CSV of every point, the summary over seeds,
and the text a person reads at the end of a sweep."""
import csv
import statistics

from . import zelsim_output
from .zelsim_output import FIGURES


def collect(folder, plan):
    """One row per point of the plan, in its order: the point, its state,
    and its figures when it has a result."""
    rows = []
    for point in plan["points"]:
        state = folder.state(point.key)
        row = {"point": point, "state": state, "figures": {}, "links": {}, "failure": None}
        if state == "ok":
            doc = zelsim_output.load_run(folder.result(point.key))
            row["figures"] = zelsim_output.figures(doc)
            row["links"] = zelsim_output.link_utilisation(doc)
        elif state == "failed":
            row["failure"] = folder.read_failure(point.key)
        rows.append(row)
    return rows


def _cell(value):
    if value is None:
        return ""
    if isinstance(value, float):
        return f"{value:.6g}"
    return str(value)


def write_results(path, axes, rows):
    """results.csv: one row per point and seed."""
    with open(path, "w", newline="", encoding="utf-8") as f:
        out = csv.writer(f)
        out.writerow(["point", "key", *axes, "seed", "state", "failed", *FIGURES])
        for row in rows:
            p = row["point"]
            out.writerow([p.index, p.key, *(p.axes[a] for a in axes), p.seed, row["state"],
                          int(row["state"] == "failed"),
                          *(_cell(row["figures"].get(name)) for name in FIGURES)])


def summarise(axes, rows):
    """The points grouped by their axis values (all seeds together), each
    figure as the mean and the standard deviation over the good seeds."""
    groups = {}
    for row in rows:
        values = tuple(row["point"].axes[a] for a in axes)
        groups.setdefault(values, []).append(row)
    summary = []
    for values, members in groups.items():
        good = [r for r in members if r["state"] == "ok"]
        entry = {"axes": dict(zip(axes, values)), "seeds": len(members), "ok": len(good),
                 "failed": sum(r["state"] == "failed" for r in members),
                 "missing": sum(r["state"] == "missing" for r in members),
                 "mean": {}, "std": {}, "links": {}}
        for name in FIGURES:
            found = [r["figures"][name] for r in good if r["figures"].get(name) is not None]
            entry["mean"][name] = statistics.fmean(found) if found else None
            entry["std"][name] = statistics.stdev(found) if len(found) > 1 else (0.0 if found else None)
        links = sorted({link for r in good for link in r["links"]})
        for link in links:
            shares = [r["links"][link] for r in good if link in r["links"]]
            entry["links"][link] = tuple(statistics.fmean(s[i] for s in shares) for i in (0, 1))
        summary.append(entry)
    return summary


def write_summary(path, axes, summary):
    """summary.csv: one row per combination of axis values."""
    with open(path, "w", newline="", encoding="utf-8") as f:
        out = csv.writer(f)
        spread = [f"{n}_{s}" for n in FIGURES for s in ("mean", "std")]
        out.writerow([*axes, "seeds", "ok", "failed", *spread])
        for e in summary:
            out.writerow([*(e["axes"][a] for a in axes), e["seeds"], e["ok"], e["failed"],
                          *(_cell(e[s][n]) for n in FIGURES for s in ("mean", "std"))])


def _spread(entry, name, digits):
    mean, std = entry["mean"][name], entry["std"][name]
    return "-" if mean is None else f"{mean:.{digits}f} ±{std:.{digits}f}"


def summary_text(plan, rows, summary):
    """The summary a person reads: per combination of axis values, the
    bandwidth and latency over seeds; then every failed point with its
    command, log and last lines."""
    axes = plan["axes"]
    header = [*axes, "seeds ok/all", "GB/s delivered", "GB/s offered", "p50 ns", "p99 ns"]
    table = [header]
    for e in summary:
        table.append([*(str(e["axes"][a]) for a in axes), f"{e['ok']}/{e['seeds']}",
                      _spread(e, "total_gbps", 2), _spread(e, "offered_gbps", 2),
                      _spread(e, "latency_p50_ns", 1), _spread(e, "latency_p99_ns", 1)])
    widths = [max(len(r[i]) for r in table) for i in range(len(header))]
    lines = [f"Sweep: {plan['title']} ({len(rows)} points, {plan['version']})"]
    lines += ["  ".join(c.ljust(w) for c, w in zip(r, widths)).rstrip() for r in table]

    failed = [r for r in rows if r["state"] == "failed"]
    missing = [r for r in rows if r["state"] == "missing"]
    done = len(rows) - len(failed) - len(missing)
    lines.append(f"{done} done, {len(failed)} failed, {len(missing)} not run")
    for r in failed:
        f, p = r["failure"], r["point"]
        lines.append("")
        lines.append(f"FAILED point {p.index} ({p.label(axes)}, seed {p.seed}): {f['reason']}")
        lines.append(f"  command: {f['command']}")
        lines.append(f"  log: {f['log']}")
        if f.get("slurm_log"):
            lines.append(f"  task log: {f['slurm_log']}")
        lines += [f"  | {t}" for t in f["tail"]]
    if failed:
        lines.append("")
        lines.append("Failed points are kept as failed; --resubmit-failed runs them again.")
    return "\n".join(lines) + "\n"


def merge(folder, plan):
    """Writes results.csv, summary.csv and summary.txt and returns the
    summary text and the rows."""
    rows = collect(folder, plan)
    summary = summarise(plan["axes"], rows)
    write_results(folder.root / "results.csv", plan["axes"], rows)
    write_summary(folder.root / "summary.csv", plan["axes"], summary)
    text = summary_text(plan, rows, summary)
    (folder.root / "summary.txt").write_text(text, encoding="utf-8")
    return text, rows
