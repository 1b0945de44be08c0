#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Stand-ins for sbatch, squeue and scontrol in the sweep tool's tests,
chosen by the name they are called by. sbatch runs the array's tasks at
once, one after the other, except task $FAKE_SLURM_LOSE, which it drops as
a task lost to a time limit would be; scontrol then reports that task as
TIMEOUT. Each sbatch call is appended to $FAKE_SLURM_CALLS."""
import os
import re
import subprocess
import sys

JOB = "42"


def sbatch(args):
    with open(os.environ["FAKE_SLURM_CALLS"], "a") as f:
        f.write(" ".join(args) + "\n")
    options = dict(a[2:].split("=", 1) for a in args if a.startswith("--") and "=" in a)
    wrap = args[args.index("--wrap") + 1]
    first, last = map(int, re.match(r"(\d+)-(\d+)", options["array"]).groups())
    for task in range(first, last + 1):
        if str(task) == os.environ.get("FAKE_SLURM_LOSE"):
            continue
        log = options["output"].replace("%A", JOB).replace("%a", str(task))
        with open(log, "w") as out:
            env = dict(os.environ, SLURM_ARRAY_TASK_ID=str(task), SLURM_ARRAY_JOB_ID=JOB)
            subprocess.run(["sh", "-c", wrap], stdout=out, stderr=subprocess.STDOUT, env=env,
                           cwd=options["chdir"])
    print(JOB)


def main():
    name = os.path.basename(sys.argv[0])
    if name == "sbatch":
        sbatch(sys.argv[1:])
    elif name == "scontrol" and os.environ.get("FAKE_SLURM_LOSE"):
        print(f"JobId=50 ArrayJobId={JOB} ArrayTaskId={os.environ['FAKE_SLURM_LOSE']} "
              "JobState=TIMEOUT Reason=TimeLimit ExitCode=0:15")
    # squeue: no task is left in the queue.
    return 0


sys.exit(main())
