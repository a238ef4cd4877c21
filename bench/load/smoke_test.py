#!/usr/bin/env python3
"""Runs everything that bench/load/measure does for a moment, and checks that the results are whole. No figure is judged:
how fast a machine is under test says nothing.

usage: smoke_test.py BUILD BACKEND...
"""

import json
import pathlib
import subprocess
import sys
import tempfile
import xml.etree.ElementTree

RUN = ("requests_per_second", "p50_us", "p90_us", "p99_us", "max_us", "answers", "seconds")
POSITIVE = {"start": ("daemon_ms", "floor_ms"),
            "memory": ("idle_kib", "backend_idle_kib", "with_idle_peers_kib", "idle_after_load_kib"),
            "big_files": ("gigabytes_per_second", "floor_gigabytes_per_second", "ungated_gigabytes_per_second", "peak_kib",
                          "idle_kib", "processors")}


def problems_of(entry):
    for service in ("daemon", "pass", "digest") if entry["client"] == "wire" else ("daemon",):
        yield from (f"{service}: {field}" for field in RUN if not entry[service][field] > 0)
        yield from (f"{service}: unanswered" for _ in range(int(entry[service]["unanswered"])))
        if not entry[service]["p50_us"] <= entry[service]["p99_us"] <= entry[service]["max_us"]:
            yield f"{service}: percentiles out of order"
    if not all(value > 0 for value in entry["daemon"]["cpu_us_per_request"].values()):
        yield "no processor time"


def problems(results, backends):
    if sorted(results["backends"]) != sorted(backends):
        yield "backends"
    for backend, found in results["backends"].items():
        loads = {(entry["file_bytes"], entry["in_flight"], entry["idle_peers"], entry["files"], entry["client"])
                 for entry in found["requests"]}
        if len(loads) != len(found["requests"]) or len(loads) < 10:
            yield f"{backend}: loads"
        for entry in found["requests"]:
            yield from (f"{backend} {entry['file_bytes']} {entry['in_flight']}: {what}" for what in problems_of(entry))
        for part, fields in POSITIVE.items():
            yield from (f"{backend} {part}: {field}" for field in fields if not found[part][field] > 0)
        if not any(name.startswith("libcrypto") for name in found["memory"]["mappings"]):
            yield f"{backend}: the daemon's mappings"
        # So few big ones may be through before the first small one.
        if not {"answers", "unanswered", "p50_us", "p99_us"} <= set(found["big_files"]["small_beside"]):
            yield f"{backend}: small files beside the big ones"
    if len(results["aims"]) != 11 * len(backends) or any(aim["measured"] is None for aim in results["aims"]):
        yield "aims"


def main():
    build, *backends = sys.argv[1:]
    measure = pathlib.Path(__file__).resolve().parent / "measure"
    with tempfile.TemporaryDirectory() as folder:
        chosen = [word for backend in backends for word in ("--backend", backend)]
        subprocess.run([measure, "--smoke", "--build", build, "--output", folder, *chosen], check=True)
        found = list(problems(json.loads(pathlib.Path(folder, "results.json").read_text()), backends))
        if len(xml.etree.ElementTree.parse(pathlib.Path(folder, "latency.svg")).findall(".//{*}circle")) < 4:
            found.append("the picture")
    print("\n".join(found) or "whole")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
