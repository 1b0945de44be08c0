# SPDX-License-Identifier: Apache-2.0
"""Running points: one zelsim run, its verdict, and many runs at a time."""
import os
import shlex
import shutil
import signal
import subprocess
import sys
import threading
import time
from concurrent.futures import ThreadPoolExecutor, as_completed
from pathlib import Path

from . import zelsim_output
from .sweepfile import SweepError

# Lines of a failed point's output kept in its record.
TAIL_LINES = 20

# zelsim's exit statuses (docs/usage.md).
STATUS_REASONS = {
    1: "mismatched responses, a cube not at rest, or the JSON not written (status 1)",
    2: "refused by zelsim (status 2)",
    3: "the model stopped the run (status 3)",
    4: "deadlock (status 4)",
}


def find_zelsim(given=None):
    """zelsim's path: as given (--zelsim, the sweep file's `zelsim`, or the
    ZELSIM variable), else beside this tool, as installed, else on PATH."""
    if given:
        found = shutil.which(given) if "/" not in given else (given if os.access(given, os.X_OK) else None)
        if not found:
            raise SweepError(f"zelsim not found at '{given}'")
        return str(Path(found).resolve())
    beside = Path(sys.argv[0]).parent / "zelsim"
    if os.access(beside, os.X_OK) and beside.is_file():
        return str(beside.resolve())
    found = shutil.which("zelsim")
    if not found:
        raise SweepError("zelsim not found beside the tool nor on PATH; give it with --zelsim")
    return str(Path(found).resolve())


def zelsim_version(zelsim):
    """The version line of `zelsim --version`, part of every point's key."""
    try:
        done = subprocess.run([zelsim, "--version"], capture_output=True, text=True, timeout=60)
    except (OSError, subprocess.TimeoutExpired) as e:
        raise SweepError(f"can't run '{zelsim} --version': {e}")
    lines = [line.strip() for line in done.stdout.splitlines() if line.strip()]
    if done.returncode != 0 or not lines:
        raise SweepError(f"'{zelsim} --version' failed (status {done.returncode})")
    return next((line for line in lines if line.startswith("zelsim")), lines[0])


def verdict(status, output, doc, json_error=None):
    """Why a run failed, or None when it is a good result. `json_error` says
    why a JSON that zelsim wrote can't be read."""
    if status < 0:
        name = signal.Signals(-status).name if -status in signal.Signals._value2member_map_ else str(-status)
        return f"ended by signal {name}" + (" (the model stopped the run)" if name == "SIGABRT" else "")
    if status:
        return STATUS_REASONS.get(status, f"exit status {status}")
    # The model may end a run by exit(0) after an ERROR line of its own.
    if any(line.lstrip().startswith("ERROR") for line in output.splitlines()):
        return "the model reported an error (ERROR line in the output)"
    if json_error:
        return json_error
    if doc is None:
        return "no JSON written"
    if zelsim_output.deadlocked(doc):
        return "deadlock (run.deadlock in the JSON)"
    return None


class Stopping:
    """Set once the user interrupts: the runs still going are ended, and
    runs cut short are no failures."""
    flag = threading.Event()
    lock = threading.Lock()
    running = set()

    @classmethod
    def stop_all(cls):
        cls.flag.set()
        with cls.lock:
            for process in cls.running:
                process.kill()


def run_point(point, zelsim, folder, **extra):
    """Runs one point and files its result or its failure (with `extra` in
    the record). Returns (ok, seconds); (None, seconds) when the run was
    interrupted."""
    work = folder.work(point.key)
    work.mkdir(parents=True, exist_ok=True)
    partial = folder.points / f"{point.key}.json.part"
    partial.unlink(missing_ok=True)
    command = [zelsim, *point.args, "--json", str(partial)]
    log = work / "output.log"
    start = time.monotonic()
    with open(log, "wb") as out:
        # Its own session: an interrupt of the tool ends the runs through
        # the tool, which then knows they were cut short.
        with Stopping.lock:
            if Stopping.flag.is_set():
                return None, 0.0
            process = subprocess.Popen(command, cwd=work, stdout=out, stderr=subprocess.STDOUT,
                                       stdin=subprocess.DEVNULL, start_new_session=True)
            Stopping.running.add(process)
        try:
            status = process.wait()
        finally:
            with Stopping.lock:
                Stopping.running.discard(process)
    seconds = time.monotonic() - start
    if Stopping.flag.is_set():
        partial.unlink(missing_ok=True)
        return None, seconds
    output = log.read_text(encoding="utf-8", errors="replace")
    doc, unreadable = None, None
    if partial.exists():
        try:
            doc = zelsim_output.load_run(partial)
        except zelsim_output.OutputError as e:
            unreadable = str(e)
    reason = verdict(status, output, doc, unreadable)
    if reason is None:
        os.replace(partial, folder.result(point.key))
        folder.failure(point.key).unlink(missing_ok=True)
        return True, seconds
    partial.unlink(missing_ok=True)
    record_failure(folder, point, reason, shlex.join(command), log,
                   output.splitlines()[-TAIL_LINES:], status, **extra)
    return False, seconds


def record_failure(folder, point, reason, command, log, tail, status=None, **extra):
    folder.write_json(folder.failure(point.key), {
        "key": point.key, "index": point.index, "axes": point.axes, "seed": point.seed,
        "reason": reason, "status": status, "command": command, "log": str(log),
        "tail": tail, **extra,
    })


def _clock(seconds):
    seconds = int(seconds + 0.5)
    return f"{seconds // 3600}:{seconds // 60 % 60:02d}:{seconds % 60:02d}" if seconds >= 3600 \
        else f"{seconds // 60}:{seconds % 60:02d}"


class Progress:
    """Points done, failed and running, and an estimate of the time left.
    Redrawn in place on a terminal; on a pipe or a file one line per
    finished point, so that a log reads well."""

    WIDTH = 30

    def __init__(self, total, stream=sys.stderr, enabled=True):
        self.total, self.stream, self.enabled = total, stream, enabled
        self.tty = enabled and stream.isatty()
        self.done = self.failed = self.running = 0
        self.start = time.monotonic()
        self.last_draw = 0.0

    def left(self):
        finished = self.done + self.failed
        if not finished:
            return "?"
        elapsed = time.monotonic() - self.start
        return _clock(elapsed / finished * (self.total - finished))

    def line(self):
        finished = self.done + self.failed
        filled = self.WIDTH * finished // self.total if self.total else self.WIDTH
        bar = "#" * filled + "." * (self.WIDTH - filled)
        return (f"[{bar}] {finished}/{self.total}: {self.done} done, {self.failed} failed, "
                f"{self.running} running, {self.left()} left")

    def update(self, done=None, failed=None, running=None, finished_point=None, force=False):
        self.done = self.done if done is None else done
        self.failed = self.failed if failed is None else failed
        self.running = self.running if running is None else running
        if not self.enabled:
            return
        if self.tty:
            now = time.monotonic()
            if force or now - self.last_draw > 0.2:
                self.stream.write("\r\033[K" + self.line())
                self.stream.flush()
                self.last_draw = now
        elif finished_point is not None:
            self.stream.write(f"{self.line()}  ({finished_point})\n")
            self.stream.flush()

    def close(self):
        if self.enabled and self.tty:
            self.stream.write("\r\033[K" + self.line() + "\n")
            self.stream.flush()


def run_local(points, zelsim, folder, jobs, progress):
    """Runs the points, `jobs` at a time. An interrupt stops the sweep and
    leaves the points cut short to be run again."""
    lock = threading.Lock()
    counts = {"done": 0, "failed": 0, "running": 0}

    def one(point):
        with lock:
            counts["running"] += 1
            progress.update(running=counts["running"])
        try:
            return run_point(point, zelsim, folder)
        finally:
            with lock:
                counts["running"] -= 1

    pool = ThreadPoolExecutor(max_workers=jobs)
    try:
        futures = {pool.submit(one, p): p for p in points}
        for future in as_completed(futures):
            ok, _ = future.result()
            point = futures[future]
            with lock:
                if ok:
                    counts["done"] += 1
                elif ok is False:
                    counts["failed"] += 1
                shown = f"point {point.index}: {point.label()}, seed {point.seed}" + ("" if ok else ": FAILED")
                progress.update(**counts, finished_point=shown, force=True)
    except KeyboardInterrupt:
        Stopping.stop_all()
        pool.shutdown(wait=True, cancel_futures=True)
        raise
    finally:
        pool.shutdown(wait=True)
        progress.close()
    return counts
