# SPDX-License-Identifier: Apache-2.0
"""Running points as a Slurm job array: one point per task.

Each submission writes slurm/submit-N.json, the keys of its points in task
order; task i runs the i-th point with the same code as a local run, so its
JSON is the one a local run writes. The tool then watches the array, and once
no task is left in the queue, files a failure for every task that ended
without a result (killed, out of time, node lost) and merges.
"""
import json
import os
import re
import shlex
import subprocess
import sys
import time
from pathlib import Path

from .runner import record_failure, run_point, zelsim_version, TAIL_LINES
from .sweepfile import Point, SweepError

# Every call of a Slurm command is bounded: against a dead controller they
# block for a long time.
COMMAND_TIMEOUT = 60
# Consecutive failed queue look-ups before the tool gives up waiting.
QUEUE_ERRORS = 5
PACKAGE_PARENT = Path(__file__).resolve().parent.parent


def _slurm(args):
    try:
        return subprocess.run(args, capture_output=True, text=True, timeout=COMMAND_TIMEOUT)
    except FileNotFoundError:
        raise SweepError(f"'{args[0]}' not found: --slurm needs Slurm's client commands")
    except subprocess.TimeoutExpired:
        return subprocess.CompletedProcess(args, 124, "", f"{args[0]}: no answer in {COMMAND_TIMEOUT} s")


def _submissions(folder):
    """The submissions of a results folder, oldest first."""
    found = []
    for path in folder.slurm.glob("submit-*.json"):
        number = re.fullmatch(r"submit-(\d+)\.json", path.name)
        if number:
            with open(path, encoding="utf-8") as f:
                found.append((int(number.group(1)), path, json.load(f)))
    return [(path, doc) for _, path, doc in sorted(found, key=lambda s: s[0])]


def submit(folder, points, zelsim, version, partition=None, time_limit=None, throttle=None, extra=()):
    """Submits the points as one array and returns its submission record."""
    folder.slurm.mkdir(parents=True, exist_ok=True)
    number = 1 + max((int(p.stem.split("-")[1]) for p, _ in _submissions(folder)), default=0)
    listing = folder.slurm / f"submit-{number}.json"
    # The points themselves go with the submission: a later `run` may
    # rewrite the plan while the array waits in the queue.
    record = {"keys": [p.key for p in points], "zelsim": zelsim, "version": version, "job": None,
              "points": [{"index": p.index, "key": p.key, "axes": p.axes, "seed": p.seed, "args": p.args}
                         for p in points]}
    folder.write_json(listing, record)
    # A task reruns a point from scratch: an old failure record must not
    # pass for the new run's.
    for p in points:
        folder.failure(p.key).unlink(missing_ok=True)

    task = ["env", f"PYTHONPATH={PACKAGE_PARENT}", sys.executable, "-m", "zelsweep",
            "task", str(folder.root), str(listing)]
    array = f"0-{len(points) - 1}" + (f"%{throttle}" if throttle else "")
    command = ["sbatch", "--parsable", f"--array={array}", "--job-name=zelsim-sweep",
               f"--output={folder.slurm}/%A_%a.out", f"--chdir={folder.root}"]
    if partition:
        command.append(f"--partition={partition}")
    if time_limit:
        command.append(f"--time={time_limit}")
    command += [*extra, "--wrap", shlex.join(task)]
    done = _slurm(command)
    if done.returncode != 0:
        listing.unlink()
        raise SweepError(f"sbatch failed (status {done.returncode}): {done.stderr.strip()}")
    record["job"] = done.stdout.strip().split(";")[0]
    record["command"] = shlex.join(command)
    folder.write_json(listing, record)
    return record


def run_task(folder, listing_path):
    """One array task: the point of $SLURM_ARRAY_TASK_ID. Exits non-zero when
    the point failed, so that Slurm shows the task as failed too."""
    with open(listing_path, encoding="utf-8") as f:
        listing = json.load(f)
    task = int(os.environ["SLURM_ARRAY_TASK_ID"])
    log = str(folder.slurm / f"{os.environ.get('SLURM_ARRAY_JOB_ID', '')}_{task}.out")
    p = listing["points"][task]
    point = Point(p["index"], p["axes"], p["seed"], p["args"], p["key"])
    zelsim = listing["zelsim"]
    version = zelsim_version(zelsim)
    if version != listing["version"]:
        # A node with another zelsim would file results under the wrong key.
        record_failure(folder, point, f"zelsim on this node is '{version}', the sweep was planned with "
                       f"'{listing['version']}'", zelsim, "", [], slurm_log=log)
        return 1
    ok, _ = run_point(point, zelsim, folder, slurm_log=log)
    return 0 if ok else 1


def _queued(job):
    """(tasks left in the queue, of which running), or None when the queue
    can't be read. A job the controller no longer knows has none left."""
    done = _slurm(["squeue", "-h", "-r", "-j", str(job), "-o", "%T"])
    if done.returncode != 0:
        return (0, 0) if "Invalid job id" in done.stderr else None
    states = done.stdout.split()
    return len(states), states.count("RUNNING")


def wait(folder, submission, progress, poll=2.0, timeout=None):
    """Waits until no task of the submission is left in the queue, showing
    how many of its points have a result."""
    keys = submission["keys"]
    start = time.monotonic()
    errors = 0
    while True:
        states = [folder.state(k) for k in keys]
        queued = _queued(submission["job"])
        errors = errors + 1 if queued is None else 0
        if errors >= QUEUE_ERRORS:
            raise SweepError(f"can't read the queue of job {submission['job']} (squeue failed {errors} times)")
        progress.update(done=states.count("ok"), failed=states.count("failed"),
                        running=queued[1] if queued else progress.running, force=True)
        if queued is not None and queued[0] == 0:
            progress.close()
            return
        if timeout is not None and time.monotonic() - start > timeout:
            progress.close()
            raise SweepError(f"job {submission['job']} still has tasks after {timeout:.0f} s; "
                             f"`zelsim-sweep collect {folder.root}` merges once they are done")
        time.sleep(poll)


def _task_states(job):
    """{task: 'STATE exit code'} from the controller, as far as it still
    knows the job; empty otherwise."""
    done = _slurm(["scontrol", "-o", "show", "job", str(job)])
    states = {}
    for line in done.stdout.splitlines() if done.returncode == 0 else []:
        fields = dict(f.split("=", 1) for f in line.split() if "=" in f)
        if fields.get("ArrayTaskId", "").isdigit():
            states[int(fields["ArrayTaskId"])] = f"{fields.get('JobState', '?')}, exit code {fields.get('ExitCode', '?')}"
    return states


def file_lost_tasks(folder):
    """Files a failure for every point whose last task ended without any
    result. Returns the number of such points."""
    last = {}
    for _, submission in _submissions(folder):
        for task, p in enumerate(submission["points"]):
            last[p["key"]] = (submission, task, p)
    states = {}
    lost = 0
    for key, (submission, task, p) in last.items():
        if folder.state(key) != "missing" or not submission.get("job"):
            continue
        job = submission["job"]
        if job not in states:
            states[job] = _task_states(job)
        state = states[job].get(task, "state no longer known to the controller")
        log = folder.slurm / f"{job}_{task}.out"
        try:
            tail = log.read_text(encoding="utf-8", errors="replace").splitlines()[-TAIL_LINES:]
        except OSError:
            tail = ["(no task log)"]
        point = Point(p["index"], p["axes"], p["seed"], p["args"], key)
        record_failure(folder, point, f"Slurm task {job}_{task} ended without a result ({state})",
                       submission.get("command", ""), folder.work(key) / "output.log", tail, slurm_log=str(log))
        lost += 1
    return lost


def queued_keys(folder, keys):
    """The keys among `keys` that a submission still has in the queue (none
    when Slurm's commands aren't here to ask)."""
    keys = set(keys)
    found = set()
    for _, submission in _submissions(folder):
        mine = keys & set(submission["keys"])
        if mine and submission.get("job"):
            try:
                queued = _queued(submission["job"])
            except SweepError:
                return found
            if queued is None or queued[0]:
                found |= mine
    return found


def pending_submissions(folder):
    """The submissions that still have tasks in the queue."""
    waiting = []
    for _, submission in _submissions(folder):
        if submission.get("job"):
            queued = _queued(submission["job"])
            if queued is None or queued[0]:
                waiting.append(submission)
    return waiting
