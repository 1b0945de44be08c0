# SPDX-License-Identifier: Apache-2.0
"""zelsim-sweep's command line."""
import argparse
import os
import sys
from pathlib import Path

from . import merge, runner, slurm, zelsim_output
from .folder import Folder
from .sweepfile import SweepError, point_key, read_sweep

# Exit statuses: 0 all points good, 1 some point failed (or differs, for
# compare), 2 bad input, 3 tasks still queued.
FAILED, BAD_INPUT, STILL_QUEUED = 1, 2, 3


def _positive(text):
    try:
        value = int(text)
    except ValueError:
        value = 0
    if value < 1:
        raise argparse.ArgumentTypeError(f"'{text}' is not a whole number above 0")
    return value


def _parser():
    top = argparse.ArgumentParser(prog="zelsim-sweep", description="Sweeps of zelsim runs: run, merge and plot.")
    commands = top.add_subparsers(dest="command", required=True, metavar="COMMAND")

    run = commands.add_parser("run", help="run a sweep file's points, here or on Slurm, and merge them")
    run.add_argument("sweep", help="the sweep file (TOML)")
    run.add_argument("-o", "--out", help="results folder (default: NAME-results in the current folder)")
    run.add_argument("--zelsim", help="the zelsim program (default: the sweep file's, $ZELSIM, beside this tool, PATH)")
    run.add_argument("-j", "--jobs", type=_positive, default=os.cpu_count() or 1,
                     help="points run at a time (default: the number of cores)")
    run.add_argument("--resubmit-failed", action="store_true", help="run only the points that failed before")
    run.add_argument("--dry-run", action="store_true", help="list the points and their commands, run nothing")
    run.add_argument("-q", "--quiet", action="store_true", help="no progress display")
    cluster = run.add_argument_group("Slurm")
    cluster.add_argument("--slurm", action="store_true", help="submit the points as one job array")
    cluster.add_argument("--partition", help="the partition (sbatch --partition)")
    cluster.add_argument("--time-limit", help="time limit of each task (sbatch --time), e.g. 10:00")
    cluster.add_argument("--throttle", type=_positive, help="tasks running at once (the array's %%N)")
    cluster.add_argument("--sbatch-arg", action="append", default=[], metavar="ARG",
                         help="another sbatch option, e.g. --sbatch-arg=--account=me (repeatable)")
    cluster.add_argument("--no-wait", action="store_true", help="return once submitted; merge later with collect")
    cluster.add_argument("--poll", type=float, default=2.0, help="seconds between queue look-ups (default 2)")
    cluster.add_argument("--wait-timeout", type=float, help="give up waiting after this many seconds")

    collect = commands.add_parser("collect", help="merge a results folder again (after Slurm tasks ended)")
    collect.add_argument("dir")
    collect.add_argument("--wait", action="store_true", help="wait for the Slurm tasks still queued")
    collect.add_argument("--poll", type=float, default=2.0)
    collect.add_argument("-q", "--quiet", action="store_true")

    plot = commands.add_parser("plot", help="draw a sweep's plots (PNG and SVG)")
    plot.add_argument("dir", help="the results folder")
    plot.add_argument("--by", help="the axis whose values make the curves (default: the first that is not the load)")
    plot.add_argument("--load", help=f"the axis of the offered load (default: request_rate, REQUEST_SPACING or the first)")
    plot.add_argument("-o", "--out", help="folder of the plots (default: DIR/plots)")

    plot_run = commands.add_parser("plot-run", help="draw one run's latency histogram and timeline")
    plot_run.add_argument("json", help="zelsim's JSON of the run")
    plot_run.add_argument("--timeline", help="the run's timeline CSV (zelsim --timeline)")
    plot_run.add_argument("-o", "--out", help="folder of the plots (default: beside the JSON)")

    compare = commands.add_parser("compare", help="compare the points two results folders share, "
                                  "leaving out the wall-clock section")
    compare.add_argument("first")
    compare.add_argument("second")

    # One Slurm array task; started by the array, not by hand.
    task = commands.add_parser("task")
    task.add_argument("dir")
    task.add_argument("listing")
    return top


def _finish(folder, plan, quiet=False):
    text, rows = merge.merge(folder, plan)
    if not quiet or any(r["state"] == "failed" for r in rows):
        sys.stdout.write(text)
    print(f"Results: {folder.root}/results.csv, summary: {folder.root}/summary.csv")
    return FAILED if any(r["state"] == "failed" for r in rows) else 0


def _run(args):
    sweep = read_sweep(args.sweep)
    zelsim = runner.find_zelsim(args.zelsim or sweep.zelsim or os.environ.get("ZELSIM"))
    version = runner.zelsim_version(zelsim)
    for point in sweep.points:
        point.key = point_key(point.args, version)
    out = args.out or Path(Path(args.sweep).stem + "-results")
    folder = Folder(out)
    if args.dry_run:
        for p in sweep.points:
            print(f"{p.index} {p.key} {p.label()} seed={p.seed}: {zelsim} {' '.join(p.args)}")
        return 0
    folder.save_sweep(sweep, zelsim, version)
    plan = folder.load_plan()

    states = {p.key: folder.state(p.key) for p in sweep.points}
    wanted = "failed" if args.resubmit_failed else "missing"
    todo = [p for p in sweep.points if states[p.key] == wanted]
    queued = slurm.queued_keys(folder, [p.key for p in todo])
    if queued:
        raise SweepError(f"{len(queued)} of these points are still queued on Slurm; "
                         f"`zelsim-sweep collect {folder.root}` first")
    kept = sum(s == "ok" for s in states.values())
    print(f"{len(sweep.points)} points: {kept} with results, {len(todo)} to run"
          + ("" if args.resubmit_failed else f", {sum(s == 'failed' for s in states.values())} failed before"))
    if todo and args.slurm:
        submission = slurm.submit(folder, todo, zelsim, version, args.partition, args.time_limit,
                                  args.throttle, args.sbatch_arg)
        print(f"Submitted job {submission['job']}: {len(todo)} tasks")
        if args.no_wait:
            print(f"`zelsim-sweep collect {folder.root}` merges once the tasks are done")
            return 0
        progress = runner.Progress(len(todo), enabled=not args.quiet)
        slurm.wait(folder, submission, progress, args.poll, args.wait_timeout)
        slurm.file_lost_tasks(folder)
    elif todo:
        runner.run_local(todo, zelsim, folder, args.jobs, runner.Progress(len(todo), enabled=not args.quiet))
    return _finish(folder, plan, args.quiet)


def _collect(args):
    folder = Folder(args.dir)
    plan = folder.load_plan()
    for submission in slurm.pending_submissions(folder):
        if not args.wait:
            print(f"job {submission['job']} still has tasks queued; collect again later, or with --wait")
            return STILL_QUEUED
        progress = runner.Progress(len(submission["keys"]), enabled=not args.quiet)
        slurm.wait(folder, submission, progress, args.poll)
    slurm.file_lost_tasks(folder)
    return _finish(folder, plan, args.quiet)


def _compare(args):
    """Every point both folders hold must be the same byte for byte, its
    wall_clock section aside."""
    first, second = Folder(args.first), Folder(args.second)
    shared = sorted(p.name for p in first.points.glob("*.json") if (second.points / p.name).exists())
    differ = []
    for name in shared:
        if zelsim_output.bytes_without_wall_clock(first.points / name) != \
                zelsim_output.bytes_without_wall_clock(second.points / name):
            differ.append(name)
    for name in differ:
        print(f"differs: {name}")
    print(f"{len(shared)} points in both, {len(differ)} differ (wall_clock left out)")
    return FAILED if differ or not shared else 0


def main(argv=None):
    args = _parser().parse_args(argv)
    try:
        if args.command == "run":
            return _run(args)
        if args.command == "collect":
            return _collect(args)
        if args.command == "compare":
            return _compare(args)
        if args.command == "task":
            return slurm.run_task(Folder(args.dir), args.listing)
        try:
            from . import plots  # matplotlib only where it is needed
        except ImportError as e:
            print(f"zelsim-sweep: the plots need matplotlib (Debian's python3-matplotlib): {e}", file=sys.stderr)
            return BAD_INPUT
        if args.command == "plot":
            written = plots.plot_sweep(Folder(args.dir), args.out, args.load, args.by)
        else:
            written = plots.plot_run(args.json, args.timeline, args.out)
        for path in written:
            print(path)
        return 0
    except (SweepError, zelsim_output.OutputError) as e:
        print(f"zelsim-sweep: {e}", file=sys.stderr)
        return BAD_INPUT
    except KeyboardInterrupt:
        print("\nzelsim-sweep: interrupted; the points cut short run again next time", file=sys.stderr)
        return 130
    except BrokenPipeError:
        # Output piped into `head` and the like: the reader has gone.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return FAILED
