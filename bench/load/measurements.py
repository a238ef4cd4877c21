"""The measurements: each a function of the installation and the scale, with a dictionary for the results."""

import collections
import contextlib
import json
import pathlib
import re
import statistics
import time

import installation as stage

KIB, MIB = 1024, 1024 * 1024
FLOORS = ("pass", "digest")

# How much is measured. Sizes and counts in the order of the report.
Scale = collections.namedtuple("Scale", "rounds seconds idle_peers in_flight starts big_count big_size once_count settle")
FULL = Scale(5, 1.0, (1, 10, 100, 1000), (1, 2, 4, 8, 16, 32, 64), 10, 64, 512 * MIB, {4 * KIB: 2000, MIB: 200}, 8)
SMOKE = Scale(1, 0.05, (1, 2), (1, 32), 1, 4, 4 * MIB, {4 * KIB: 20, MIB: 8}, 0)

# One load: `files` is "same" (a few that are asked about again and again) or "fresh" (each asked about once).
Load = collections.namedtuple("Load", "file_bytes in_flight idle_peers files client")


def loads_beside(scale, idle_peers):
    """The corners of the grid beside any number of idle peers; everything else beside the fewest."""
    sizes = (4 * KIB, MIB)
    depths = scale.in_flight if idle_peers == scale.idle_peers[0] else (1, 32)
    loads = [Load(size, depth, idle_peers, "same", "wire") for size in sizes for depth in depths
             if size == 4 * KIB or depth in (1, 32)]
    if idle_peers == scale.idle_peers[0]:
        loads += [Load(size, 1, idle_peers, "fresh", "wire") for size in sizes]
        loads += [Load(4 * KIB, depth, idle_peers, "same", "library") for depth in (1, 32)]
    return loads


class Files:
    """The files that are asked about. A pool of fresh ones is made anew each time it is used."""

    def __init__(self, root, scale):
        self._root, self._scale, self._used = root, scale, 0
        self._same = {size: stage.make_files(root / f"same-{size}", size, 16) for size in (4 * KIB, MIB)}

    def list_for(self, load):
        if load.files == "same":
            return self._same[load.file_bytes]
        self._used += 1
        return stage.make_files(self._root / f"fresh-{load.file_bytes}", load.file_bytes,
                                self._scale.once_count[load.file_bytes])


def outcome(client):
    return json.loads(client.finish().splitlines()[-1])


def ask(staged, service, load, files, seconds, processes):
    """One run of the client; what it printed."""
    kind, socket = ("daemon", staged.daemon_socket)
    if service in FLOORS:
        kind, socket = "floor", staged.floor_socket(service)
    elif load.client == "library":
        kind = "library"
    arguments = ["ask", "--service", kind, "--socket", socket, "--files", files, "--in-flight", load.in_flight,
                 "--warm-up", 4 if load.files == "fresh" else load.in_flight * 10 + 50,
                 "--seconds", seconds]
    arguments += ["--each-once"] if load.files == "fresh" else []
    for process in processes:
        arguments += ["--process", process.pid]
    result = outcome(staged.start_client(*arguments))
    result["cpu_us_per_request"] = dict(zip(("service", "backend"), result["cpu_us_per_request"]))
    return result


def one_round(staged, scale, files, services, samples):
    """All loads once, the daemon and the floors by turns."""
    for idle_peers in scale.idle_peers:
        with staged.idle_peers(idle_peers):
            for load in loads_beside(scale, idle_peers):
                for service, processes in services.items():
                    if load.client == "library" and service in FLOORS:
                        continue
                    result = ask(staged, service, load, files.list_for(load), scale.seconds, processes)
                    if result["cpu_us_per_request"].get("backend") == 0:
                        raise RuntimeError("the daemon answers without asking its agent")
                    samples[load][service].append(result)


def median_of(results):
    """Field by field; the fields of a result that are dictionaries, too."""
    fields = {}
    for name, value in results[0].items():
        values = [result[name] for result in results]
        fields[name] = median_of(values) if isinstance(value, dict) else statistics.median(values)
    return fields


def ratio(above, below, field):
    """Of the runs of each round, which the same noise met; then the median."""
    return statistics.median(a[field] / b[field] for a, b in zip(above, below) if b[field] > 0)


def summary(load, by_service):
    entry = load._asdict() | {name: median_of(results) for name, results in by_service.items()}
    entry["rounds"] = by_service["daemon"]
    for floor in FLOORS:
        if floor in by_service:
            entry["to_" + floor] = {field: ratio(by_service["daemon"], by_service[floor], field)
                                    for field in ("p50_us", "p99_us", "requests_per_second")}
    return entry


def measure_requests(staged, scale, backend):
    samples = collections.defaultdict(lambda: collections.defaultdict(list))
    files = Files(staged.root / "files", scale)
    with contextlib.ExitStack() as stack:
        agent = stack.enter_context(staged.backend(backend))
        services = {"daemon": [stack.enter_context(staged.start("qmreputationd")), agent]}
        services |= {floor: [stack.enter_context(staged.start_floor(floor))] for floor in FLOORS}
        for _ in range(scale.rounds):
            one_round(staged, scale, files, services, samples)
    return [summary(load, by_service) for load, by_service in samples.items()]


def first_answer_ms(staged, files, service, start):
    """From the start of the process to its first answer; the client is there before it and tries all the time."""
    kind, socket = ("floor", staged.floor_socket(service)) if service in FLOORS else ("daemon", staged.daemon_socket)
    client = staged.start_client("ask", "--service", kind, "--socket", socket, "--files", files, "--each-once")
    client.read_line()
    with start() as process:
        return 1000 * (outcome(client)["ended_at"] - process.started_at)


def measure_start(staged, scale, backend):
    files = stage.make_files(staged.root / "start", 4 * KIB, 1)
    times = collections.defaultdict(list)
    with staged.backend(backend):
        for _ in range(scale.starts):
            times["daemon_ms"].append(first_answer_ms(staged, files, "daemon", lambda: staged.start("qmreputationd")))
            times["floor_ms"].append(first_answer_ms(staged, files, "digest", lambda: staged.start_floor("digest")))
    return {name: statistics.median(values) for name, values in times.items()}


def status_kib(process, field):
    text = pathlib.Path(f"/proc/{process.pid}/status").read_text()
    return int(re.search(rf"^{field}:\s+(\d+)", text, re.MULTILINE).group(1))


def mappings(process):
    """Resident memory by what is mapped, in KiB (proc(5), smaps): all, and of that what the process has written to."""
    totals = collections.defaultdict(lambda: {"rss_kib": 0, "dirty_kib": 0})
    name = ""
    for line in pathlib.Path(f"/proc/{process.pid}/smaps").read_text().splitlines():
        words = line.split()
        if re.match(r"[0-9a-f]+-[0-9a-f]+$", words[0]):
            name = pathlib.Path(words[5]).name if len(words) > 5 else "[anonymous]"
        elif words[0] == "Rss:":
            totals[name]["rss_kib"] += int(words[1])
        elif words[0] == "Private_Dirty:":
            totals[name]["dirty_kib"] += int(words[1])
    return dict(sorted(totals.items(), key=lambda item: -item[1]["rss_kib"]))


def measure_memory(staged, scale, backend):
    files = stage.make_files(staged.root / "memory", 4 * KIB, 16)
    load = Load(4 * KIB, 32, 0, "same", "wire")
    memory = {}
    with staged.backend(backend) as agent, staged.start("qmreputationd") as daemon:
        ask(staged, "daemon", load._replace(in_flight=1), files, 0, [])
        time.sleep(scale.settle)  # the workers that found nothing to do have ended
        memory["idle_kib"] = status_kib(daemon, "VmRSS")
        memory["mappings"] = mappings(daemon)
        memory["backend_idle_kib"] = status_kib(agent, "VmRSS")
        with staged.idle_peers(scale.idle_peers[-1]):
            memory["with_idle_peers_kib"] = status_kib(daemon, "VmRSS")
            memory["idle_peers"] = scale.idle_peers[-1]
        ask(staged, "daemon", load, files, scale.seconds, [])
        time.sleep(scale.settle)
        memory["idle_after_load_kib"] = status_kib(daemon, "VmRSS")
    return memory


def everything_asked(staged, files, count, service):
    kind, socket = ("floor", staged.floor_socket(service)) if service in FLOORS else ("daemon", staged.daemon_socket)
    return staged.start_client("ask", "--service", kind, "--socket", socket, "--files", files, "--each-once",
                               "--in-flight", count)


def measure_big_files(staged, scale, backend):
    """All big files at once, and again with small ones one after the other beside them, on all processors."""
    big = stage.make_sparse_files(staged.memory / "big", scale.big_size, scale.big_count)
    small = stage.make_files(staged.root / "small", 4 * KIB, 16)
    processors = staged.client_processors | staged.service_processors
    result = {"files": scale.big_count, "bytes_each": scale.big_size, "processors": len(processors)}
    gigabytes = scale.big_count * scale.big_size / 1e9

    def rate(client):
        return gigabytes / outcome(client)["seconds"]

    for name, threads in (("floor", None), ("ungated", scale.big_count)):
        with staged.start_floor("digest", processors, threads):
            result[name + "_gigabytes_per_second"] = rate(everything_asked(staged, big, scale.big_count, "digest"))
    with staged.backend(backend), staged.start("qmreputationd", processors) as daemon:
        ask(staged, "daemon", Load(4 * KIB, 1, 0, "same", "wire"), small, 0, [])
        result["idle_kib"] = status_kib(daemon, "VmRSS")
        result["gigabytes_per_second"] = rate(everything_asked(staged, big, scale.big_count, "daemon"))
        client = everything_asked(staged, big, scale.big_count, "daemon")
        beside = staged.start_client("ask", "--socket", staged.daemon_socket, "--files", small, "--seconds", 3600)
        beside.read_line()
        beside.read_line()
        result["beside_small_gigabytes_per_second"] = rate(client)
        result["peak_kib"] = status_kib(daemon, "VmHWM")
        beside.terminate()
        result["small_beside"] = outcome(beside)
    return result
