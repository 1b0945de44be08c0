#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Instructions per completed request of zelsim, counted by callgrind.

Runs a standard workload of run_bench (its own command line, through
`run_bench --print-command`) under callgrind for a short and a long
simulated time and divides the difference of the instructions by the
difference of the completed requests, so that start-up and the end of the
run cancel out (docs/performance.md, "10 us against 30 us"). The counts are
exact and repeat from run to run, unlike times on a shared machine.
"""

import argparse
import json
import os
import re
import subprocess
import sys
import tempfile

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def instructions_and_requests(run_bench, zelsim, workload, sim_us, workdir):
    command = subprocess.run([run_bench, "--print-command", workload, "--sim-us", str(sim_us),
                              "--zelsim", zelsim], stdout=subprocess.PIPE, text=True, check=True)
    out_file = os.path.join(workdir, f"callgrind-{workload}-{sim_us}.out")
    subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=" + out_file]
                   + command.stdout.split(), cwd=workdir, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL, check=True)
    instructions = None
    with open(out_file) as f:
        for line in f:
            m = re.match(r"(?:summary|totals):\s+(\d+)", line)
            if m:
                instructions = int(m.group(1))
    os.remove(out_file)
    with open(os.path.join(workdir, "results.json")) as f:
        total = json.load(f)["total"]
    return instructions, total["completed"] + total.get("posted", 0)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--zelsim", default=os.path.join(REPO, "build", "apps", "zelsim", "zelsim"))
    parser.add_argument("--run-bench", default=os.path.join(REPO, "build", "bench", "run_bench"))
    parser.add_argument("--short-us", type=float, default=10)
    parser.add_argument("--long-us", type=float, default=30)
    parser.add_argument("workloads", nargs="*", default=["read64", "mixed64"])
    opts = parser.parse_args()
    opts.zelsim = os.path.abspath(opts.zelsim)
    for workload in opts.workloads:
        with tempfile.TemporaryDirectory() as workdir:
            i1, r1 = instructions_and_requests(opts.run_bench, opts.zelsim, workload, opts.short_us, workdir)
            i2, r2 = instructions_and_requests(opts.run_bench, opts.zelsim, workload, opts.long_us, workdir)
        print(f"{workload}: {i2 - i1} instructions for {r2 - r1} requests "
              f"({opts.short_us:g} us: {i1}, {r1}; {opts.long_us:g} us: {i2}, {r2}): "
              f"{(i2 - i1) / (r2 - r1):.0f} per request", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
