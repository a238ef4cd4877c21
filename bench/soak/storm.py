"""What goes wrong on purpose, and when. Every choice comes from the seed; every deed is written down with its time."""

import contextlib
import random
import signal
import subprocess
import time

# Where a visitor vanishes: before, at the beginning of, inside and after its message, and in the middle of the reply.
MOMENTS = ("connected", "welcomed", "halfway", "asked", "answering")
REFUSED = 3  # what wire_client says when the service closes the connection
# A disturbance is felt a little longer: connections are made anew, a delayed frame is still under way.
AFTERMATH_SECONDS = 0.5


class Diary:
    """The deeds of a run, and the times at which a failure may be put down to one of them."""

    def __init__(self):
        self.start, self.deeds, self._times = time.monotonic(), [], []

    def write(self, deed, **details):
        self.deeds.append({"at": round(time.monotonic() - self.start, 4), "deed": deed} | details)

    def begin(self, kind, since=None):
        entry = {"kind": kind, "from": since or time.monotonic(), "to": float("inf")}
        self._times.append(entry)
        return entry

    def finish(self, entry):
        entry["to"] = time.monotonic() + AFTERMATH_SECONDS

    def explains(self, kinds, since, until):
        return any(entry["kind"] in kinds and entry["from"] <= until and entry["to"] >= since for entry in self._times)

    def undisturbed_share(self):
        """Of the time so far, as much as explains nothing."""
        now, reached, free = time.monotonic(), self.start, 0
        for entry in sorted(self._times, key=lambda entry: entry["from"]):
            free += max(0, entry["from"] - reached)
            reached = max(reached, entry["to"])
        return (free + max(0, now - reached)) / (now - self.start)


class Visitors:
    """One process for each moment, again and again; each comes many times, and every other one is killed."""

    def __init__(self, staged, diary, seed, file, violate):
        self._staged, self._diary, self._file, self._violate = staged, diary, file, violate
        self._dice = {moment: random.Random(f"{seed} {moment}") for moment in MOMENTS}
        self._running = {}
        self.visits = 0

    def tick(self):
        for moment in MOMENTS:
            if moment not in self._running:
                self._start(moment)
            else:
                self._look_after(moment)

    def _start(self, moment):
        dice = self._dice[moment]
        count = dice.randrange(5, 60)
        lifetime = dice.expovariate(1 / 0.2) if dice.random() < 0.5 else None
        command = [self._staged.program("wire_client"), "churn", self._staged.daemon_socket, self._file, moment, count]
        child = subprocess.Popen([str(word) for word in command], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                 env=self._staged.environment)
        self._running[moment] = (child, count, time.monotonic(), lifetime)

    def _look_after(self, moment):
        child, count, since, lifetime = self._running[moment]
        if child.poll() is None:
            if lifetime is not None and time.monotonic() > since + lifetime:
                child.kill()
                child.communicate()
                self._diary.write("visitor killed", moment=moment, after=round(lifetime, 4))
                del self._running[moment]
            return
        del self._running[moment]
        error = child.communicate()[1].decode().strip()
        if child.returncode == 0:
            self.visits += count
        elif not self._diary.explains(("daemon", "shortage"), since, time.monotonic()):
            self._violate(f"a visitor that vanishes when {moment} ended with {child.returncode} {error}")

    def end(self):
        for moment, (child, *_) in self._running.items():
            if child.poll() is None:
                child.kill()
                self._diary.write("visitor killed", moment=moment, after="round")
            child.communicate()
        self._running.clear()


class Disturbance:
    """Something that happens now and then, the first time soon, and takes a while."""

    def __init__(self, dice, pause, length, violate):
        self._dice, self._pause, self._length, self._violate = dice, pause, length, violate
        self._is_on, self._next = False, time.monotonic() + self._dice.expovariate(10 / pause)

    def tick(self):
        if time.monotonic() < self._next:
            return
        if self._is_on:
            self.end()
            return
        self._begun = time.monotonic()
        self.begin(self._dice)
        self._is_on, self._next = True, time.monotonic() + self._dice.expovariate(1 / self._length)

    def end(self):
        """What it takes to come back, where everything is slow, the quiet that follows takes as well."""
        if not self._is_on:
            return
        self.undo()
        now = time.monotonic()
        self._is_on, self._next = False, now + (now - self._begun) + self._dice.expovariate(1 / self._pause)


class AgentDeaths(Disturbance):
    """An agent is killed, ended or stopped, and comes back."""

    def __init__(self, agents, diary, seed, violate):
        super().__init__(random.Random(f"{seed} agents"), 0.4, 0.1, violate)
        self._agents, self._diary = list(agents), diary

    def begin(self, dice):
        self._agent = dice.choice(self._agents)
        # Its clients subscribe again after two seconds, and after 120 when that was in vain too often.
        if self._agent.name == "qmsettingsd":
            self._agents.remove(self._agent)
        self._way = dice.choice((signal.SIGKILL, signal.SIGKILL, signal.SIGTERM, signal.SIGSTOP))
        self._time = self._diary.begin("agent")
        self._diary.write("agent " + ("stopped" if self._way == signal.SIGSTOP else "killed"), agent=self._agent.name,
                          signal=self._way.name)
        if self._way == signal.SIGSTOP:
            self._agent.send(self._way)
            return
        status = self._agent.end(self._way)
        if status != -self._way and (status != 0 or self._way != signal.SIGTERM):
            self._violate(f"{self._agent.name} was sent {self._way.name} and ended with {status}")

    def undo(self):
        if self._way == signal.SIGSTOP:
            self._agent.send(signal.SIGCONT)
        else:
            self._agent.start()
        self._diary.finish(self._time)
        self._diary.write("agent back", agent=self._agent.name)


class Shortages(Disturbance):
    """The daemon may have only a few descriptors more than it has."""

    def __init__(self, daemon, diary, seed, violate):
        super().__init__(random.Random(f"{seed} shortages"), 0.4, 0.2, violate)
        self._daemon, self._diary = daemon, diary

    def begin(self, dice):
        self._time = self._diary.begin("shortage")
        self._pid, spare = self._daemon.pid, dice.randrange(0, 12)
        with contextlib.suppress(OSError):
            limit = self._daemon.descriptors() + spare
            self._daemon.limit_descriptors(limit)
            self._diary.write("descriptors short", limit=limit, spare=spare)

    def undo(self):
        if self._daemon.pid == self._pid:
            with contextlib.suppress(OSError):
                self._daemon.limit_descriptors(None)
        self._diary.finish(self._time)
        self._diary.write("descriptors back")


class ServiceManager:
    """Starts the daemon again when it ended itself, which it may only do for want of descriptors. Its time is over when
    it knows its settings again: over the Wisp backend it answers "unknown" before."""

    def __init__(self, staged, daemon, bad_file, diary, violate):
        self._staged, self._daemon, self._bad_file = staged, daemon, bad_file
        self._diary, self._violate = diary, violate
        self._seen_running = time.monotonic()

    def tick(self):
        now = time.monotonic()
        if self._daemon.is_running():
            self._seen_running = now
            return
        outage = self._diary.begin("daemon", self._seen_running)
        self._diary.write("daemon ended", status=self._daemon.status)
        is_short = self._diary.explains(("shortage",), self._seen_running, now)
        says_so = self._daemon.has_logged("File descriptor leak detected; aborting process")
        if self._daemon.status != -signal.SIGABRT or not is_short or not says_so:
            self._violate(f"the daemon ended with {self._daemon.status}")
        self._daemon.start()
        if not self._staged.is_answered(self._bad_file):
            self._violate("the daemon that was started again does not answer")
        self._diary.finish(outage)
        self._diary.write("daemon back")
