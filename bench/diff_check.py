#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Differential check: zelsim of a reference revision against the working tree.

Builds the reference revision in a scratch git worktree (the build is kept
and reused while the revision is the same), builds the working tree, takes
configurations from the soak's matrix (`zelsim-soak --sample N --list`) and
runs both zelsim programs on each, every run in its own scratch directory.
Half the configurations run with every correction on (LIBZEL_CORRECTIONS=all),
half without. Each run also dumps the state at the end, writes the DRAM trace
and, where both programs have the option, the responses file.

Everything a run leaves is compared byte for byte: its exit status, standard
output, standard error and every file in its directory (the JSON results, the
DRAM trace, the responses, any other trace). Masked, because they name the
build and not the behaviour: the build revision (banner and JSON "version"),
the name of zelsim's temporary configuration file, and the source directory
of the build and the line number in an assertion's message. A top-level JSON key naming wall-clock
time is left out of the comparison. Nothing else is masked.

Reports the first differing line of the first differing configuration with
its command line, and the figures. Exit status 0 when every run matched, 1 on
a difference, 2 on a bad command line or a build that failed.
"""

import argparse
import concurrent.futures
import json
import os
import re
import shlex
import shutil
import subprocess
import sys
import time

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

# The build's own names, which differ between two builds of the same behaviour.
MASKS = [
    (re.compile(rb"(built from revision: )\S+"), rb"\1<revision>"),
    (re.compile(rb"(Reading ini file ')[^']*(')"), rb"\1<config file>\2"),
    (re.compile(rb"(\(revision )[^)]*(\))"), rb"\1<revision>\2"),
]
WALL_CLOCK_KEY = re.compile(r"wall|elapsed|host_seconds|timing", re.IGNORECASE)


def fail(message):
    print("diff-check: " + message, file=sys.stderr)
    sys.exit(2)


def run_quiet(cmd, cwd, what):
    proc = subprocess.run(cmd, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    if proc.returncode != 0:
        sys.stderr.write(proc.stdout.decode(errors="replace")[-4000:])
        fail(f"{what} failed: {' '.join(cmd)}")


def build_tree(source, build_dir, jobs, targets):
    run_quiet(["cmake", "-S", source, "-B", build_dir, "-DCMAKE_BUILD_TYPE=Release"], source,
              f"configuring {source}")
    run_quiet(["cmake", "--build", build_dir, "-j", str(jobs), "--target"] + targets, source,
              f"building {source}")


def prepare_reference(ref, scratch, jobs):
    """Checks REF out into scratch/ref-src and builds it in scratch/ref-build,
    unless that build is already of the same commit. Returns zelsim's path."""
    proc = subprocess.run(["git", "-C", REPO, "rev-parse", "--verify", ref + "^{commit}"],
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    if proc.returncode != 0:
        fail(f"unknown revision '{ref}'")
    commit = proc.stdout.strip()
    src = os.path.join(scratch, "ref-src")
    build = os.path.join(scratch, "ref-build")
    stamp = os.path.join(build, "diff-check-commit")
    zelsim = os.path.join(build, "apps", "zelsim", "zelsim")
    if os.path.exists(stamp) and open(stamp).read().strip() == commit and os.path.exists(zelsim):
        return commit, zelsim
    if os.path.exists(src):
        run_quiet(["git", "-C", src, "checkout", "--detach", "--force", commit], REPO,
                  "checking out the reference")
    else:
        subprocess.run(["git", "-C", REPO, "worktree", "prune"], check=False)
        run_quiet(["git", "-C", REPO, "worktree", "add", "--detach", src, commit], REPO,
                  "adding the reference worktree")
    if os.path.exists(stamp):
        os.remove(stamp)
    print(f"diff-check: building the reference {commit[:12]} in {build}", flush=True)
    build_tree(src, build, jobs, ["zelsim_app"])
    with open(stamp, "w") as out:
        out.write(commit + "\n")
    return commit, zelsim


def has_option(zelsim, option):
    proc = subprocess.run([zelsim, "--help"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    return option.encode() in proc.stdout


def soak_cases(soak, count, pick_seed, sim_ns):
    """The soak's command lines: (label, argument list without the program)."""
    proc = subprocess.run([soak, "--sample", str(count), "--pick-seed", str(pick_seed), "--time",
                           str(sim_ns), "--list"], stdout=subprocess.PIPE, text=True)
    if proc.returncode != 0:
        fail("the soak could not list its cases")
    cases = []
    label = None
    for line in proc.stdout.splitlines():
        if line.startswith("  "):
            args = shlex.split(line)[1:]
            # The soak names a placeholder for its JSON file: every run writes its own.
            args = ["results.json" if (a == "FILE" and i > 0 and args[i - 1] == "--json") else a
                    for i, a in enumerate(args)]
            cases.append((label, args))
        elif line.strip():
            label = line.strip()
    return cases


def mask(data):
    for pattern, replacement in MASKS:
        data = pattern.sub(replacement, data)
    return data


def normalise(name, data, source_dir):
    data = mask(data)
    # An assertion names the source file by the path it was built from, and
    # the line where the check stands, which moves with every edit above it.
    # The file, the function and the condition are compared.
    data = re.sub(re.escape(source_dir.encode()) + rb"/([^:\s]+):[0-9]+: ", rb"<source>/\1:<line>: ", data)
    if name.endswith(".json"):
        try:
            doc = json.loads(data)
        except ValueError:
            return data
        wall = [k for k in doc if WALL_CLOCK_KEY.search(k)] if isinstance(doc, dict) else []
        if wall:
            # Only then rewritten, so that the text of every other JSON is compared as written.
            for key in wall:
                del doc[key]
            data = json.dumps(doc, indent=1).encode() + b"\n"
    return data


def run_one(zelsim, args, env_extra, workdir, timeout):
    os.makedirs(workdir, exist_ok=True)
    env = dict(os.environ)
    env.pop("LIBZEL_CORRECTIONS", None)
    env.update(env_extra)
    try:
        proc = subprocess.run([zelsim] + args, cwd=workdir, env=env, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, timeout=timeout)
        status = str(proc.returncode)
        out, err = proc.stdout, proc.stderr
    except subprocess.TimeoutExpired as e:
        status, out, err = "timeout", e.stdout or b"", e.stderr or b""
    files = {"<exit status>": status.encode() + b"\n", "<stdout>": out, "<stderr>": err}
    names = sorted(os.listdir(workdir))
    # Kept beside the run's files for a look at a difference.
    for name, data in (("exit-status.txt", files["<exit status>"]), ("stdout.txt", out),
                       ("stderr.txt", err)):
        with open(os.path.join(workdir, name), "wb") as f:
            f.write(data)
    for name in names:
        path = os.path.join(workdir, name)
        if os.path.isfile(path):
            with open(path, "rb") as f:
                files[name] = f.read()
    return files


def first_difference(a, b):
    """(line number from 1, line of a, line of b) of the first differing line."""
    la, lb = a.split(b"\n"), b.split(b"\n")
    for i in range(max(len(la), len(lb))):
        x = la[i] if i < len(la) else b"<end of file>"
        y = lb[i] if i < len(lb) else b"<end of file>"
        if x != y:
            return i + 1, x.decode(errors="replace"), y.decode(errors="replace")
    return None


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--ref", required=True, help="the reference revision (a commit, tag or branch)")
    parser.add_argument("--cases", type=int, default=200, help="configurations (default 200)")
    parser.add_argument("--pick-seed", type=int, default=7, help="seed of the soak's draw (default 7)")
    parser.add_argument("--time", type=int, default=5000, help="SIM_TIME of a run in ns (default 5000)")
    parser.add_argument("--jobs", type=int, default=2, help="runs at a time, and build jobs (default 2)")
    parser.add_argument("--build-dir", default=os.path.join(REPO, "build"),
                        help="the working tree's build (default build)")
    parser.add_argument("--scratch", default=os.path.join(REPO, "build-diff"),
                        help="reference worktree, its build and the runs (default build-diff)")
    parser.add_argument("--timeout", type=int, default=600, help="limit of one run in s (default 600)")
    parser.add_argument("--keep", action="store_true", help="keep the directories of matching runs")
    parser.add_argument("--no-build", action="store_true", help="use the working tree's build as it is")
    opts = parser.parse_args()
    if opts.cases < 1 or opts.jobs < 1 or opts.time < 1:
        fail("--cases, --jobs and --time must be positive")

    started = time.monotonic()
    scratch = os.path.abspath(opts.scratch)
    build_dir = os.path.abspath(opts.build_dir)
    os.makedirs(scratch, exist_ok=True)
    commit, ref_zelsim = prepare_reference(opts.ref, scratch, opts.jobs)
    if not opts.no_build:
        build_tree(REPO, build_dir, opts.jobs, ["zelsim_app", "zelsim_soak"])
    new_zelsim = os.path.join(build_dir, "apps", "zelsim", "zelsim")
    soak = os.path.join(build_dir, "apps", "soak", "zelsim-soak")
    for program in (new_zelsim, soak):
        if not os.path.exists(program):
            fail(f"missing {program}")

    extra = ["--dump-state", "--set", "DRAM_TRACING=true"]
    responses = has_option(ref_zelsim, "--responses") and has_option(new_zelsim, "--responses")
    if responses:
        extra += ["--responses", "responses.txt"]
    cases = soak_cases(soak, opts.cases, opts.pick_seed, opts.time)
    runs_dir = os.path.join(scratch, "runs")
    shutil.rmtree(runs_dir, ignore_errors=True)
    sources = {"ref": os.path.join(scratch, "ref-src"), "new": REPO}

    def check(index):
        label, args = cases[index]
        args = args + extra
        env = {"LIBZEL_CORRECTIONS": "all"} if index % 2 == 1 else {}
        case_dir = os.path.join(runs_dir, f"case{index:04d}")
        got = {}
        for side, program in (("ref", ref_zelsim), ("new", new_zelsim)):
            files = run_one(program, args, env, os.path.join(case_dir, side), opts.timeout)
            got[side] = {n: normalise(n, d, sources[side]) for n, d in files.items()}
        result = {"index": index, "label": label, "args": args, "env": env, "bytes": 0,
                  "responses": 0, "status": got["new"]["<exit status>"].decode().strip(),
                  "difference": None}
        for name in sorted(set(got["ref"]) | set(got["new"])):
            a, b = got["ref"].get(name), got["new"].get(name)
            if a is None or b is None:
                result["difference"] = (name, 0, "<present>" if a is not None else "<missing>",
                                        "<present>" if b is not None else "<missing>")
                break
            if a != b:
                result["difference"] = (name,) + first_difference(a, b)
                break
            result["bytes"] += len(a)
            if name == "responses.txt":
                result["responses"] = a.count(b"\n")
        if result["difference"] is None and not opts.keep:
            shutil.rmtree(case_dir, ignore_errors=True)
        return result

    print(f"diff-check: {len(cases)} configurations, reference {commit[:12]}, "
          f"{opts.time} ns each, {opts.jobs} jobs, responses file "
          f"{'compared' if responses else 'not available'}", flush=True)
    results = []
    with concurrent.futures.ThreadPoolExecutor(max_workers=opts.jobs) as pool:
        for result in pool.map(check, range(len(cases))):
            results.append(result)
            if result["difference"] is not None:
                print(f"diff-check: configuration {result['index']} differs", flush=True)
    elapsed = time.monotonic() - started

    differing = [r for r in results if r["difference"] is not None]
    if differing:
        r = differing[0]
        name, line, a, b = r["difference"]
        env = " ".join(f"{k}={v}" for k, v in r["env"].items())
        print(f"\nFIRST DIFFERENCE: configuration {r['index']} ({r['label']})")
        print(f"  command: {env + ' ' if env else ''}zelsim {shlex.join(r['args'])}")
        print(f"  in {name}, line {line}:")
        print(f"    reference: {a}")
        print(f"    working:   {b}")
        print(f"  both runs kept in {os.path.join(runs_dir, 'case%04d' % r['index'])}")
    statuses = {}
    for r in results:
        statuses[r["status"]] = statuses.get(r["status"], 0) + 1
    corrected = sum(1 for r in results if r["env"])
    print(f"\nconfigurations: {len(results)} ({corrected} with LIBZEL_CORRECTIONS=all)")
    print(f"runs: {2 * len(results)}")
    print("exit statuses: " + ", ".join(f"{k}: {v}" for k, v in sorted(statuses.items())))
    print(f"bytes compared: {sum(r['bytes'] for r in results)}")
    print(f"responses compared: {sum(r['responses'] for r in results) if responses else 'n/a'}")
    print(f"differences: {len(differing)}")
    print(f"time: {elapsed:.0f} s")
    return 1 if differing else 0


if __name__ == "__main__":
    sys.exit(main())
