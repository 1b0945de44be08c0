# SPDX-License-Identifier: Apache-2.0
"""Local sweeps against a fake zelsim: resume, failures, merge, compare and
plots, through the tool's command line."""
import csv
import os
import json
import shutil
import statistics

import pytest
from conftest import FAKE

from zelsweep.cli import main

SWEEP = """
title = "test sweep"
run_length_ns = 1000
seeds = [1, 2, 3]
[settings]
NUM_REQUESTS = 10
[axes]
REQUEST_SPACING = [0, 3]
"""


def run(path, out, *more):
    return main(["run", str(path), "-o", str(out), "--zelsim", str(FAKE), "-j", "2", "-q", *more])


def rows(path):
    with open(path, newline="") as f:
        return list(csv.DictReader(f))


def test_a_sweep_runs_each_point_once_and_resumes(sweep, fake, tmp_path):
    path, out = sweep(SWEEP), tmp_path / "out"
    assert run(path, out) == 0
    assert len(fake()) == 6
    results = rows(out / "results.csv")
    assert [(r["REQUEST_SPACING"], r["seed"], r["state"]) for r in results] == [
        ("0", "1", "ok"), ("0", "2", "ok"), ("0", "3", "ok"), ("3", "1", "ok"), ("3", "2", "ok"), ("3", "3", "ok")]
    assert (out / "sweep.toml").read_text() == SWEEP

    # Nothing changed: nothing runs.
    assert run(path, out) == 0
    assert len(fake()) == 6
    # One result gone: that point alone runs again.
    gone = results[4]
    (out / "points" / f"{gone['key']}.json").unlink()
    assert run(path, out) == 0
    assert len(fake()) == 7
    assert "--set REQUEST_SPACING=3" in fake()[-1] and "--seed 2 " in fake()[-1]
    # A new value on an axis: only its points run; the old ones keep their keys.
    assert run(sweep(SWEEP.replace("[0, 3]", "[0, 3, 7]")), out) == 0
    assert len(fake()) == 10
    assert all("REQUEST_SPACING=7" in c for c in fake()[7:])
    assert [r["key"] for r in rows(out / "results.csv")][:6] == [r["key"] for r in results]


def test_the_summary_averages_over_seeds_with_spread(sweep, fake, tmp_path):
    path, out = sweep(SWEEP), tmp_path / "out"
    assert run(path, out) == 0
    results = rows(out / "results.csv")
    summary = rows(out / "summary.csv")
    assert [(s["REQUEST_SPACING"], s["seeds"], s["ok"], s["failed"]) for s in summary] == [
        ("0", "3", "3", "0"), ("3", "3", "3", "0")]
    for group in summary:
        members = [r for r in results if r["REQUEST_SPACING"] == group["REQUEST_SPACING"]]
        for figure in ("total_gbps", "latency_p99_ns", "read_gbps"):
            values = [float(r[figure]) for r in members]
            assert float(group[f"{figure}_mean"]) == pytest.approx(statistics.fmean(values), rel=1e-5)
            assert float(group[f"{figure}_std"]) == pytest.approx(statistics.stdev(values), rel=1e-5)
    # The figures are zelsim's own, read from its JSON.
    doc = json.loads((out / "points" / f"{results[0]['key']}.json").read_text())
    assert float(results[0]["latency_p95_ns"]) == pytest.approx(doc["total"]["latency_ns"]["all"]["p95"])
    assert float(results[0]["write_gbps"]) == pytest.approx(doc["total"]["bandwidth_gbps"]["write"])


FAILURES = """
run_length_ns = 1000
[axes]
FAKE_FAIL = ["none", "refuse", "abort", "error-exit0", "deadlock", "nojson", "oldjson"]
"""


def test_failed_points_are_recorded_kept_and_resubmitted(sweep, fake, tmp_path, capsys):
    path, out = sweep(FAILURES), tmp_path / "out"
    assert run(path, out) == 1
    states = {r["FAKE_FAIL"]: (r["state"], r["failed"]) for r in rows(out / "results.csv")}
    assert states == {"none": ("ok", "0"), **{k: ("failed", "1") for k in list(states)[1:]}}
    reasons = {}
    for record in (out / "failed").glob("*.json"):
        failure = json.loads(record.read_text())
        kind = failure["axes"]["FAKE_FAIL"]
        reasons[kind] = failure["reason"]
        assert f"--set FAKE_FAIL={kind}" in failure["command"] and str(FAKE) in failure["command"]
        assert "fake zelsim: a few lines of output" in failure["tail"]
    assert "refused" in reasons["refuse"] and "SIGABRT" in reasons["abort"]
    assert "ERROR line" in reasons["error-exit0"] and "deadlock" in reasons["deadlock"]
    assert "no JSON" in reasons["nojson"] and "schema_version None" in reasons["oldjson"]
    # No half result is left where a resume would take it for a good one.
    assert len(list((out / "points").glob("*"))) == 1
    text = (out / "summary.txt").read_text()
    assert "1 done, 6 failed, 0 not run" in text
    assert "unknown key 'FAKE_FAIL'" in text and "ERROR - Received PRE" in text
    assert "1 done, 6 failed" in capsys.readouterr().out

    # A plain rerun keeps the failures; --resubmit-failed runs them alone.
    assert run(path, out) == 1
    assert len(fake()) == 7
    assert run(path, out, "--resubmit-failed") == 1
    assert len(fake()) == 13 and not any("FAKE_FAIL=none" in c for c in fake()[6:])


def test_compare_leaves_out_the_wall_clock_alone(sweep, fake, tmp_path):
    path = sweep(SWEEP)
    assert run(path, tmp_path / "a") == 0 and run(path, tmp_path / "b") == 0
    assert main(["compare", str(tmp_path / "a"), str(tmp_path / "b")]) == 0
    changed = next((tmp_path / "b" / "points").glob("*.json"))
    text = changed.read_text()
    changed.write_text(text.replace('"end_time_ns": 1000.0', '"end_time_ns": 1000.5'))
    assert main(["compare", str(tmp_path / "a"), str(tmp_path / "b")]) == 1
    # A field out of place differs too, although the values are the same.
    lines = text.splitlines(keepends=True)
    assert lines[1].strip() == '"schema_version": 1,' and lines[3].strip().startswith('"seed"')
    lines[1], lines[3] = lines[3], lines[1]
    changed.write_text("".join(lines))
    assert main(["compare", str(tmp_path / "a"), str(tmp_path / "b")]) == 1


def test_bad_input_exits_2_with_one_line(sweep, tmp_path, capsys):
    assert main(["run", str(sweep("run_length_ns = 1\n[axes]\nlanes = 4\n")), "--zelsim", str(FAKE)]) == 2
    assert capsys.readouterr().err.count("\n") == 1
    assert main(["run", str(sweep("run_length_ns = 1\n")), "--zelsim", str(tmp_path / "none")]) == 2
    assert "zelsim not found" in capsys.readouterr().err
    assert main(["plot", str(tmp_path)]) == 2
    assert "not a sweep's results folder" in capsys.readouterr().err


def test_plots_of_a_sweep_and_of_a_run(sweep, fake, tmp_path):
    text = SWEEP.replace("[axes]", "[axes]\ncube_size = [0, 1]\nrequest_rate = [5, 20]").replace(
        "REQUEST_SPACING = [0, 3]", "PERCENTAGE_READ = [100, 50]")
    out = tmp_path / "out"
    assert run(sweep(text), out) == 0
    assert main(["plot", str(out), "--by", "PERCENTAGE_READ"]) == 0
    # One set per cube size, each drawn as PNG and SVG.
    names = sorted(p.name for p in (out / "plots").iterdir())
    assert len(names) == 3 * 2 * 2 and "latency-bandwidth_cube_size-1.png" in names
    assert all((out / "plots" / n).stat().st_size > 1000 for n in names)
    assert main(["plot", str(out), "--by", "nothing"]) == 2

    result = next((out / "points").glob("*.json"))
    timeline = tmp_path / "timeline.csv"
    timeline.write_text("start_ns,end_ns,all_read_gbps,all_write_gbps,all_mean_ns,all_p99_ns,all_outstanding\n"
                        "0,1000,1.5,1.2,120,300,4\n1000,2000,1.7,1.1,,,0\n")
    assert main(["plot-run", str(result), "--timeline", str(timeline), "-o", str(tmp_path / "run")]) == 0
    assert sorted(p.suffix for p in (tmp_path / "run").iterdir()) == [".png", ".png", ".svg", ".svg"]
    shutil.rmtree(tmp_path / "run")
    timeline.write_text("start_ns,end_ns,all_read_gbps\n0,1000,1\n")
    assert main(["plot-run", str(result), "--timeline", str(timeline)]) == 2


def test_a_slurm_array_runs_the_points_and_files_lost_tasks(sweep, fake, tmp_path, monkeypatch):
    bin_dir = tmp_path / "bin"
    bin_dir.mkdir()
    for name in ("sbatch", "squeue", "scontrol"):
        (bin_dir / name).symlink_to(FAKE.parent / "fake_slurm.py")
    monkeypatch.setenv("PATH", f"{bin_dir}:{os.environ['PATH']}")
    monkeypatch.setenv("FAKE_SLURM_CALLS", str(tmp_path / "sbatch.txt"))
    monkeypatch.setenv("FAKE_SLURM_LOSE", "4")
    path, out = sweep(SWEEP), tmp_path / "out"
    slurm = ["--slurm", "--partition", "p", "--time-limit", "1:00", "--throttle", "2", "--poll", "0"]
    assert run(path, out, *slurm) == 1
    assert "--array=0-5%2 " in (tmp_path / "sbatch.txt").read_text()
    assert "--partition=p --time=1:00" in (tmp_path / "sbatch.txt").read_text()
    states = [r["state"] for r in rows(out / "results.csv")]
    assert states == ["ok", "ok", "ok", "ok", "failed", "ok"]
    lost = json.loads(next((out / "failed").glob("*.json")).read_text())
    assert "ended without a result (TIMEOUT" in lost["reason"] and lost["slurm_log"].endswith("/42_4.out")
    # The same points as a local run's, wall clock aside.
    assert run(path, tmp_path / "local") == 0
    assert main(["compare", str(out), str(tmp_path / "local")]) == 0

    monkeypatch.delenv("FAKE_SLURM_LOSE")
    assert run(path, out, *slurm, "--resubmit-failed") == 0
    assert "--array=0-0%2 " in (tmp_path / "sbatch.txt").read_text().splitlines()[-1]
    assert [r["state"] for r in rows(out / "results.csv")] == ["ok"] * 6
