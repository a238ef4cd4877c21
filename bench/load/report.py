"""The results for people: a table, and what of the aims is met."""

KIB, MIB = 1024, 1024 * 1024


def find(requests, **wanted):
    wanted = {"idle_peers": min(entry["idle_peers"] for entry in requests), "files": "same", "client": "wire"} | wanted
    return next((entry for entry in requests if all(entry[key] == value for key, value in wanted.items())), None)


def aim(name, limit, measured, at_most=True):
    met = None if measured is None else measured <= limit if at_most else measured >= limit
    return {"aim": name, "limit": limit, "at_most": at_most, "measured": measured, "met": met}


def idle_peers_effect(requests):
    """How far the most idle peers move the median latency, round by round."""
    few = find(requests, file_bytes=4 * KIB, in_flight=1)
    many = find(requests, file_bytes=4 * KIB, in_flight=1, idle_peers=max(entry["idle_peers"] for entry in requests))
    ratios = sorted(b["p50_us"] / a["p50_us"] for a, b in zip(few["rounds"], many["rounds"]))
    return 100 * (ratios[len(ratios) // 2] - 1)


def request_aims(backend, requests):
    for size in (4 * KIB, MIB):
        one = find(requests, file_bytes=size, in_flight=1)["to_digest"]
        many = find(requests, file_bytes=size, in_flight=32)["to_digest"]
        name = f"{backend}, {size // KIB} KiB"
        yield aim(f"{name}, 1 in flight: p50 / floor's", 4, one["p50_us"])
        yield aim(f"{name}, 1 in flight: p99 / floor's", 4, one["p99_us"])
        yield aim(f"{name}, 32 in flight: requests/s / floor's", 0.25, many["requests_per_second"], False)
    yield aim(f"{backend}: idle peers move p50 by, %", 5, idle_peers_effect(requests))


def memory_aims(backend, memory):
    yield aim(f"{backend}: idle resident memory, MiB", 16, memory["idle_kib"] / KIB)


def big_file_aims(backend, big):
    limit = big["idle_kib"] / KIB + 16 * big["processors"] + 8
    share = big["gigabytes_per_second"] / big["ungated_gigabytes_per_second"]
    yield aim(f"{backend}: 4 KiB beside big files, p99 in ms", 10, big["small_beside"]["p99_us"] / 1000)
    yield aim(f"{backend}: memory with big files, MiB", limit, big["peak_kib"] / KIB)
    yield aim(f"{backend}: throughput with big files / that of a floor with a thread for each", 0.95, share, False)


def aims_of(results):
    kinds = {"requests": request_aims, "memory": memory_aims, "big_files": big_file_aims}
    return [entry for backend, found in results["backends"].items() for part, aims in kinds.items() if part in found
            for entry in aims(backend, found[part])]


def size_text(size):
    return f"{size // MIB} MiB" if size >= MIB else f"{size // KIB} KiB"


def request_lines(requests):
    yield (f"{'file':>6} {'in flight':>9} {'idle peers':>10} {'files':>5} {'client':>7} | {'req/s':>7} {'p50 us':>8} "
           f"{'p99 us':>8} {'CPU us: daemon':>14} {'agent':>6} | {'floor req/s':>11} {'p50':>7} {'p99':>7} | "
           f"{'ratio req/s':>11} {'p50':>6} {'p99':>6} | {'to a floor that only passes: p50':>32}")
    for entry in sorted(requests, key=lambda e: (e["client"] != "wire", e["files"] != "same", e["file_bytes"],
                                                 e["idle_peers"], e["in_flight"])):
        daemon, floor, ratio = entry["daemon"], entry.get("digest"), entry.get("to_digest")
        line = (f"{size_text(entry['file_bytes']):>6} {entry['in_flight']:>9} {entry['idle_peers']:>10} "
                f"{entry['files']:>5} {entry['client']:>7} | {daemon['requests_per_second']:>7.0f} "
                f"{daemon['p50_us']:>8.0f} {daemon['p99_us']:>8.0f} {daemon['cpu_us_per_request']['service']:>14.0f} "
                f"{daemon['cpu_us_per_request']['backend']:>6.0f} |")
        if floor:
            line += (f" {floor['requests_per_second']:>11.0f} {floor['p50_us']:>7.0f} {floor['p99_us']:>7.0f} | "
                     f"{ratio['requests_per_second']:>11.2f} {ratio['p50_us']:>6.1f} {ratio['p99_us']:>6.1f} | "
                     f"{entry['to_pass']['p50_us']:>32.1f}")
        yield line


def start_lines(start):
    yield f"start to first answer: {start['daemon_ms']:.1f} ms (floor {start['floor_ms']:.1f} ms)"


def memory_lines(memory):
    yield f"resident, idle after its first answers: {memory['idle_kib'] / KIB:.1f} MiB (the agent: " \
          f"{memory['backend_idle_kib'] / KIB:.1f}), after load: {memory['idle_after_load_kib'] / KIB:.1f} MiB"
    peers = max(memory["idle_peers"], 1)
    yield f"an idle peer: {(memory['with_idle_peers_kib'] - memory['idle_kib']) / peers:.1f} KiB (of {peers})"
    yield "resident by what is mapped, in KiB (of that written to, so the daemon's own), from smaps:"
    for name, sizes in list(memory["mappings"].items())[:16]:
        yield f"  {sizes['rss_kib']:>7} ({sizes['dirty_kib']:>6})  {name}"


def big_lines(big):
    beside = big["small_beside"]
    yield (f"{big['files']} files of {size_text(big['bytes_each'])} at once on {big['processors']} processors: "
           f"{big['gigabytes_per_second']:.2f} GB/s (floor {big['floor_gigabytes_per_second']:.2f}, "
           f"with a thread for each file {big['ungated_gigabytes_per_second']:.2f}), peak "
           f"{big['peak_kib'] / KIB:.1f} MiB resident (idle {big['idle_kib'] / KIB:.1f})")
    yield (f"beside them, 4 KiB, one in flight: {beside['answers']} answers, p50 {beside['p50_us'] / 1000:.2f} ms, "
           f"p99 {beside['p99_us'] / 1000:.2f} ms, {beside['unanswered']} without an answer when the big ones had theirs; "
           f"the big ones {big['beside_small_gigabytes_per_second']:.2f} GB/s")


def aim_lines(aims):
    for entry in aims:
        sign = "<=" if entry["at_most"] else ">="
        yield (f"{'met   ' if entry['met'] else 'MISSED'} {entry['aim']}: {entry['measured']:.2f} "
               f"({sign} {entry['limit']:.2f})")


def text(results):
    machine = results["machine"]
    lines = [f"{machine['processor']}, {machine['processors']} processors, Linux {machine['kernel']}; load average "
             f"{machine['load_average']}; client on {machine['client_processors']}, services on "
             f"{machine['service_processors']}; medians of {results['rounds']} rounds"]
    for backend, found in results["backends"].items():
        lines += ["", f"== {backend}"]
        for part, of_part in (("requests", request_lines), ("start", start_lines), ("memory", memory_lines),
                              ("big_files", big_lines)):
            lines += of_part(found[part]) if part in found else []
    return "\n".join([*lines, "", "== aims, against the floor that digests", *aim_lines(results["aims"])]) + "\n"
