# SPDX-License-Identifier: Apache-2.0
"""Plots of a sweep and of one run, as PNG and SVG, through matplotlib."""
import itertools
from pathlib import Path

import matplotlib
import matplotlib.ticker

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402  (after the back end is chosen)

from . import merge, zelsim_output  # noqa: E402
from .sweepfile import RATE, SweepError  # noqa: E402

# Same input, same SVG: no date and a fixed id salt, so that plots kept in
# the repository change only when the figures do.
plt.rcParams["svg.hashsalt"] = "zelsim-sweep"
LOAD_AXES = (RATE, "REQUEST_SPACING")
PERCENTILES = (("latency_p50_ns", "p50", ":"), ("latency_p95_ns", "p95", "--"), ("latency_p99_ns", "p99", "-"))


def _save(fig, out, name):
    out.mkdir(parents=True, exist_ok=True)
    paths = []
    for suffix in ("png", "svg"):
        path = out / f"{name}.{suffix}"
        fig.savefig(path, dpi=120, metadata={"Date": None} if suffix == "svg" else None)
        paths.append(path)
    plt.close(fig)
    return paths


def _choose(axes, load, by):
    for name, given in (("--load", load), ("--by", by)):
        if given is not None and given not in axes:
            raise SweepError(f"{name} {given}: the sweep has no such axis (axes: {', '.join(axes) or 'none'})")
    if load is None:
        load = next((a for a in LOAD_AXES if a in axes), axes[0] if axes else None)
    if load is None:
        raise SweepError("the sweep has no axis to plot along")
    if by is None:
        by = next((a for a in axes if a != load), None)
    if by == load:
        raise SweepError(f"--by {by}: the curves can't be drawn along their own axis")
    return load, by


def _curves(entries, load, by):
    """{curve value: [entries along the load axis]}, in the sweep's order,
    keeping only entries with at least one good seed."""
    curves = {}
    for e in entries:
        if e["ok"]:
            curves.setdefault(e["axes"][by] if by else None, []).append(e)
    return curves


def _label(by, value):
    return "all points" if by is None else f"{by} = {value}"


def _title(plan, what, load, by, fixed):
    swept = f"swept: {load}" + (f", one curve per {by}" if by else "")
    seeds = len({p.seed for p in plan["points"]})
    where = "; ".join(f"{k} = {v}" for k, v in fixed.items())
    return f"{plan['title']}: {what}\n{swept}; mean over {seeds} seed(s)" + (f"; {where}" if where else "")


def _finish(fig, ax, xlabel, title, columns):
    """Labels, title, grid and legend of a latency plot."""
    ax.set_xlabel(xlabel)
    ax.set_ylabel("Latency (ns)")
    ax.set_title(title, fontsize=10)
    ax.grid(True, alpha=0.3)
    ax.legend(fontsize=8, ncol=columns)
    fig.tight_layout()
    return fig


def _latency_bandwidth(plan, curves, load, by, fixed):
    fig, ax = plt.subplots(figsize=(8, 5.5))
    colours = itertools.cycle(plt.rcParams["axes.prop_cycle"].by_key()["color"])
    for value, entries in curves.items():
        colour = next(colours)
        x = [e["mean"]["total_gbps"] for e in entries]
        for name, text, style, marker in (("latency_mean_ns", "mean", "-", "o"), ("latency_p99_ns", "p99", "--", "^")):
            ax.errorbar(x, [e["mean"][name] for e in entries], yerr=[e["std"][name] for e in entries],
                        color=colour, linestyle=style, marker=marker, markersize=4, capsize=2,
                        label=f"{_label(by, value)}, {text}")
    return _finish(fig, ax, "Delivered bandwidth, read + write (GB/s)",
                   _title(plan, "latency against delivered bandwidth", load, by, fixed), columns=1)


def _percentiles(plan, curves, load, by, fixed):
    fig, ax = plt.subplots(figsize=(8, 5.5))
    colours = itertools.cycle(plt.rcParams["axes.prop_cycle"].by_key()["color"])
    for value, entries in curves.items():
        colour = next(colours)
        x = [e["mean"]["offered_gbps"] for e in entries]
        for name, text, style in PERCENTILES:
            ax.plot(x, [e["mean"][name] for e in entries], color=colour, linestyle=style, marker=".",
                    label=f"{_label(by, value)}, {text}")
    return _finish(fig, ax, "Offered load, read + write (GB/s)",
                   _title(plan, "latency percentiles against offered load", load, by, fixed), columns=2)


def _utilisation(plan, curves, load, by, fixed):
    fig, panels = plt.subplots(1, len(curves), figsize=(5 * len(curves) + 1, 5), squeeze=False, sharey=True)
    for ax, (value, entries) in zip(panels[0], curves.items()):
        x = [e["mean"]["offered_gbps"] for e in entries]
        colours = itertools.cycle(plt.rcParams["axes.prop_cycle"].by_key()["color"])
        for link in sorted({link for e in entries for link in e["links"]}):
            colour = next(colours)
            for side, text, style in ((1, "response", "-"), (0, "request", "--")):
                ax.plot(x, [100 * e["links"][link][side] if link in e["links"] else None for e in entries],
                        color=colour, linestyle=style, marker=".", label=f"link {link}, {text}")
        ax.set_title(_label(by, value), fontsize=9)
        ax.set_xlabel("Offered load, read + write (GB/s)")
        ax.grid(True, alpha=0.3)
        ax.legend(fontsize=7)
    panels[0][0].set_ylabel("Link utilisation (% of flit capacity)")
    fig.suptitle(_title(plan, "link utilisation against offered load", load, by, fixed), fontsize=10)
    fig.tight_layout()
    return fig


def plot_sweep(folder, out=None, load=None, by=None):
    """The three plots of a sweep's results; one set per combination of the
    axes that are neither the load nor the curves. Returns the files."""
    plan = folder.load_plan()
    axes = plan["axes"]
    load, by = _choose(axes, load, by)
    rest = [a for a in axes if a not in (load, by)]
    summary = merge.summarise(axes, merge.collect(folder, plan))
    out = Path(out) if out else folder.plots
    written = []
    groups = {}
    for e in summary:
        groups.setdefault(tuple(e["axes"][a] for a in rest), []).append(e)
    for values, entries in groups.items():
        fixed = dict(zip(rest, values))
        curves = _curves(entries, load, by)
        if not curves:
            continue
        suffix = "".join(f"_{k}-{v}" for k, v in fixed.items())
        for name, draw in (("latency-bandwidth", _latency_bandwidth), ("latency-percentiles", _percentiles),
                           ("link-utilisation", _utilisation)):
            written += _save(draw(plan, curves, load, by, fixed), out, name + suffix)
    if not written:
        raise SweepError(f"'{folder.root}' has no finished point to plot")
    return written


def plot_run(path, timeline=None, out=None):
    """One run's latency histogram, and its timeline when given."""
    path = Path(path)
    doc = zelsim_output.load_run(path)
    out = Path(out) if out else path.parent
    written = []
    histograms = zelsim_output.latency_histograms(doc)
    if not histograms:
        raise SweepError(f"'{path}': no request completed, so there is no latency to draw")
    fig, ax = plt.subplots(figsize=(8, 5))
    for kind, (bounds, counts) in histograms.items():
        # Buckets differ in width: drawn as requests per ns, so that a wider
        # bucket doesn't look like a peak.
        density = [c / (hi - lo) if hi > lo else 0 for c, lo, hi in zip(counts, bounds, bounds[1:])]
        ax.stairs(density, bounds, label=f"{kind} ({sum(counts)} requests)", linewidth=1.5)
    ax.set_xscale("log")
    # Plain numbers at 1, 2 and 5 of each decade rather than powers of ten.
    ax.xaxis.set_major_locator(matplotlib.ticker.LogLocator(subs=(1, 2, 5)))
    ax.xaxis.set_major_formatter(matplotlib.ticker.ScalarFormatter())
    ax.xaxis.set_minor_formatter(matplotlib.ticker.NullFormatter())
    ax.set_xlabel("Latency (ns)")
    ax.set_ylabel("Requests per ns of latency")
    ax.set_title(f"Latency histogram of {path.name} (seed {doc.get('seed')})\n{doc.get('version', '')}", fontsize=10)
    ax.grid(True, alpha=0.3)
    ax.legend(fontsize=8)
    fig.tight_layout()
    written += _save(fig, out, f"{path.stem}-histogram")
    if timeline:
        series = zelsim_output.load_timeline(timeline)
        t = [v / 1000 for v in series[zelsim_output.TIMELINE_TIME]]
        fig, (top, bottom) = plt.subplots(2, 1, figsize=(8, 6.5), sharex=True)
        top.plot(t, series["read_gbps"], label="read")
        top.plot(t, series["write_gbps"], label="write")
        top.set_ylabel("Bandwidth (GB/s)")
        bottom.plot(t, series["latency_mean_ns"], label="mean")
        bottom.plot(t, series["latency_p99_ns"], label="p99")
        bottom.set_ylabel("Latency (ns)")
        bottom.set_xlabel("Simulated time (µs)")
        for ax in (top, bottom):
            ax.grid(True, alpha=0.3)
            ax.legend(fontsize=8)
        top.set_title(f"Timeline of {path.name}: bandwidth and latency per interval", fontsize=10)
        fig.tight_layout()
        written += _save(fig, out, f"{path.stem}-timeline")
    return written
