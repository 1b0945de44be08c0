# SPDX-License-Identifier: Apache-2.0
"""The results folder of a sweep and what lies where in it.

    sweep.toml           the sweep file, as given
    plan.json            the points: axes, seed, zelsim's arguments and key
    points/KEY.json      zelsim's JSON of each finished point, as zelsim wrote it
    failed/KEY.json      the record of each failed point
    work/KEY/            each point's working folder: output.log and any
                         file zelsim writes there
    results.csv          one row per point
    summary.csv          the points averaged over seeds
    summary.txt          the same for a person, with the failed points
    slurm/               submissions and the tasks' logs
    plots/               the plots

A point is found by its key alone, so points of an edited sweep file that
did not change keep their results.
"""
import json
import os
import shutil
from pathlib import Path

from .sweepfile import Point, SweepError

PLAN_FORMAT = 1


class Folder:
    def __init__(self, root):
        self.root = Path(root).resolve()
        self.points = self.root / "points"
        self.failed = self.root / "failed"
        self.slurm = self.root / "slurm"
        self.plots = self.root / "plots"
        self.plan_path = self.root / "plan.json"

    def make(self):
        for d in (self.root, self.points, self.failed, self.root / "work"):
            d.mkdir(parents=True, exist_ok=True)

    def result(self, key):
        return self.points / f"{key}.json"

    def failure(self, key):
        return self.failed / f"{key}.json"

    def work(self, key):
        return self.root / "work" / key

    def state(self, key):
        """'ok', 'failed' or 'missing' (not run, or still running)."""
        if self.result(key).exists():
            return "ok"
        if self.failure(key).exists():
            return "failed"
        return "missing"

    def read_failure(self, key):
        with open(self.failure(key), encoding="utf-8") as f:
            return json.load(f)

    def write_json(self, path, doc):
        """Written whole or not at all: a reader never sees half a file."""
        partial = Path(f"{path}.part")
        with open(partial, "w", encoding="utf-8") as f:
            json.dump(doc, f, indent=2)
            f.write("\n")
        os.replace(partial, path)

    def save_sweep(self, sweep, zelsim, version):
        self.make()
        if sweep.path.resolve() != (self.root / "sweep.toml"):
            shutil.copyfile(sweep.path, self.root / "sweep.toml")
        self.write_json(self.plan_path, {
            "format": PLAN_FORMAT,
            "title": sweep.title,
            "zelsim": zelsim,
            "version": version,
            "run_length_ns": sweep.run_length_ns,
            "axes": sweep.axis_names,
            "points": [{"index": p.index, "key": p.key, "axes": p.axes, "seed": p.seed, "args": p.args}
                       for p in sweep.points],
        })

    def load_plan(self):
        try:
            with open(self.plan_path, encoding="utf-8") as f:
                plan = json.load(f)
        except OSError:
            raise SweepError(f"'{self.root}' is not a sweep's results folder (no plan.json)")
        except ValueError as e:
            raise SweepError(f"'{self.plan_path}' is damaged: {e}")
        if plan.get("format") != PLAN_FORMAT:
            raise SweepError(f"'{self.plan_path}' was written by another version of the tool")
        plan["points"] = [Point(p["index"], p["axes"], p["seed"], p["args"], p["key"]) for p in plan["points"]]
        return plan
