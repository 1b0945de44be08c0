#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""A stand-in for zelsim in the sweep tool's tests: it answers --version,
writes a JSON of zelsim's form whose figures follow from REQUEST_SPACING and
the seed, and fails on demand through the key FAKE_FAIL:

  refuse       status 2 and a refusal line, as zelsim refuses a key
  abort        an ERROR line, then SIGABRT, as the model stops on an assertion
  error-exit0  an ERROR line, a JSON and status 0, as the model's exit(0)
  deadlock     status 0 and run.deadlock true in the JSON
  nojson       status 0 and no JSON
  oldjson      status 0 and a JSON of another schema

Each run appends its arguments to the file $FAKE_ZELSIM_CALLS.
"""
import json
import os
import sys
import time


def link(n, gbps, latency, share):
    return {
        "link": n, "issued": 1000, "completed": 990, "outstanding": 10, "posted": 0,
        "reads": 500, "writes": 500, "atomics": 0, "bytes_read": 32000, "bytes_written": 32000,
        "request_flits": 3000, "response_flits": 3000,
        "bandwidth_gbps": {"read": gbps / 2, "write": gbps / 2, "total": gbps,
                           "offered_read": share * gbps, "offered_write": share * gbps,
                           "offered_total": 2 * share * gbps},
        "utilisation": {"request": 0.1 * (n + 1) * share, "response": 0.2 * (n + 1) * share},
        "latency_ns": {
            kind: {"count": 990, "min": latency / 2, "mean": latency, "p50": latency, "p90": latency * 1.5,
                   "p95": latency * 2, "p99": latency * 3, "p999": latency * 4, "max": latency * 5,
                   "histogram": {"bounds_ns": [0, latency, 2 * latency, 4 * latency], "counts": [400, 500, 90]}}
            for kind in ("all", "read", "write")
        } | {"atomic": {"count": 0, "min": None, "mean": None, "p50": None, "p90": None, "p95": None,
                        "p99": None, "p999": None, "max": None,
                        "histogram": {"bounds_ns": [0], "counts": []}}},
    }


def main(argv):
    version = os.environ.get("FAKE_ZELSIM_VERSION", "zelsim 0.0.0 (fake)")
    if argv == ["--version"]:
        print(version)
        return 0
    calls = os.environ.get("FAKE_ZELSIM_CALLS")
    if calls:
        with open(calls, "a") as f:
            f.write(" ".join(argv) + "\n")
    keys, seed, out = {}, 1, None
    for i, arg in enumerate(argv):
        if arg == "--set":
            name, value = argv[i + 1].split("=", 1)
            keys[name] = value
        elif arg == "--seed":
            seed = int(argv[i + 1])
        elif arg == "--json":
            out = argv[i + 1]
    fail = keys.get("FAKE_FAIL", "none")
    print("fake zelsim: a few lines of output")
    if fail == "refuse":
        print("zelsim: --set FAKE_FAIL=refuse: unknown key 'FAKE_FAIL'", file=sys.stderr)
        return 2
    if fail in ("abort", "error-exit0"):
        print("ERROR - Received PRE in Vault 3 when we expected nothing")
        sys.stdout.flush()
        if fail == "abort":
            os.abort()
    if fail == "nojson":
        return 0
    if fail == "oldjson":
        with open(out, "w") as f:
            json.dump({"version": version, "seed": seed}, f)
        return 0
    spacing = int(keys.get("REQUEST_SPACING", "0"))
    share = 1.0 / (1 + spacing)
    gbps = 10 * share + 0.1 * seed
    latency = 100 + 10 * seed + 50 * share
    links = [link(n, gbps / 2, latency, share) for n in range(2)]
    total = {k: v for k, v in link(0, gbps, latency, share).items() if k != "link"}
    doc = {
        "schema_version": 1, "version": version, "seed": seed, "corrections": [],
        "config": {"SIM_TIME": float(keys.get("SIM_TIME", "100000")), "REQUEST_SPACING": spacing},
        "run": {"sim_time_ns": float(keys.get("SIM_TIME", "100000")), "end_time_ns": 1000.0,
                "traffic_time_ns": 900.0, "drained": False, "deadlock": fail == "deadlock", "mismatches": 0},
        "links": links, "total": total,
        "generators": [{"generator": 0, "generated": 1000, "issued": 1000, "done": False}],
        "wall_clock": {"seconds": time.monotonic() % 1, "sim_ns_per_second": time.time() % 1000},
    }
    with open(out, "w") as f:
        json.dump(doc, f, indent=2)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
