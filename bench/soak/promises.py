"""What the daemon and its agents promise, held against what was seen."""

import collections
import statistics

# Descriptors at rest are never more than at a life's first rest, not by one. Memory, what is the process's own (Private_Dirty), may seem
# to grow by so much over the second half of a life, as the slope through its rests has it: in the first half the
# allocator's arenas fill up. A leak of 100 bytes a request is 4 MiB in 40,000.
MEMORY_GROWTH_KIB = 2048
# Fewer rests than these have no slope.
RESTS_FOR_A_SLOPE = 5
# The pool has 64 workers at most; the others are the event loop and the like.
MOST_THREADS = 64 + 8

# How else than with its verdict a request may end, and what must have gone on meanwhile.
EXCUSES = {
    "basalt": {"error": ("agent", "shortage"), "lost": ("daemon", "shortage")},
    "wisp": {"error": ("agent", "shortage"), "lost": ("daemon", "shortage"), "unanswered": ("agent", "shortage"),
             "unknown": ("daemon",)},
}

Rest = collections.namedtuple("Rest", "round requests service life descriptors memory_kib threads")


def judge_end(backend, diary, entry):
    """The violation that the irregular end of a request is; nothing when it has its excuse."""
    excuses = EXCUSES[backend].get(entry["end"], ())
    if diary.explains(excuses, entry["asked"], entry["ended"]):
        return None
    asked, ended = (round(entry[name] - diary.start, 4) for name in ("asked", "ended"))
    return f"a request of {asked} s ended at {ended} s: {entry['end']} {entry['detail']}".rstrip()


def slope(points):
    """Theil and Sen's: the median of the slopes of all pairs, which single outliers do not move."""
    slopes = [(b[1] - a[1]) / (b[0] - a[0]) for i, a in enumerate(points) for b in points[i + 1:] if b[0] > a[0]]
    return statistics.median(slopes) if slopes else 0.0


def lives_of(rests):
    lives = collections.defaultdict(list)
    for rest in rests:
        lives[rest.service, rest.life].append(rest)
    return lives


def trends(rests):
    """Of each life with enough rests: how descriptors and memory went."""
    found = []
    for (service, life), points in lives_of(rests).items():
        if len(points) < RESTS_FOR_A_SLOPE:
            continue
        later = points[len(points) // 2:]
        span = later[-1].requests - later[0].requests
        growth = slope([(point.requests, point.memory_kib) for point in later]) * span
        places = (0, len(points) // 2, -1)
        found.append({"service": service, "life": life, "rests": len(points),
                      "requests": points[-1].requests - points[0].requests,
                      "descriptors": [points[place].descriptors for place in places],
                      "memory_kib": [points[place].memory_kib for place in places],
                      "memory_growth_kib": round(growth, 1),
                      "bytes_per_request": round(1024 * growth / span, 2) if span else 0.0})
    return found


def judge_rests(rests, is_sanitized):
    for (service, life), points in lives_of(rests).items():
        first = points[0]
        for point in points:
            if point.descriptors > first.descriptors:
                yield (f"{service} (life {life}) has {point.descriptors} descriptors at rest after round {point.round}, "
                       f"{first.descriptors} after round {first.round}")
            if point.threads > MOST_THREADS:
                yield f"{service} (life {life}) has {point.threads} threads after round {point.round}"
    for trend in trends(rests) if not is_sanitized else ():
        if trend["memory_growth_kib"] > MEMORY_GROWTH_KIB:
            yield (f"{trend['service']} (life {trend['life']}) grows by {trend['memory_growth_kib']:.0f} KiB "
                   f"in its second half ({MEMORY_GROWTH_KIB} allowed)")
