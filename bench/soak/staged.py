"""A staged installation, the programs that run in it, and what the kernel says about them."""

import contextlib
import os
import pathlib
import re
import resource
import signal
import socket
import subprocess
import tempfile
import time

TOP = pathlib.Path(__file__).resolve().parents[2]
PATIENCE_SECONDS = 60
SANITIZERS = ("ASAN", "UBSAN", "TSAN")
SERVICES = {"qmreputationd": "com.quillmarsh.qmreputationd", "skyvaultd": "com.quillmarsh.sp.skyvaultd",
            "qmwpcored": "com.quillmarsh.wisp.qmwpcored", "qmsettingsd": "com.quillmarsh.qmsettingsd"}
# What the search for leaks at a program's end says of a thread that ends meanwhile.
NO_REPORT = re.compile(r"^==\d+==Unable to get registers from thread \d+\.$", re.MULTILINE)
AGENTS = {"basalt": ("skyvaultd",), "wisp": ("qmwpcored", "qmsettingsd")}


def wait_until(condition):
    end = time.monotonic() + PATIENCE_SECONDS
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.005)
    return True


class Service:
    """A daemon or an agent, through all its lives."""

    def __init__(self, staged, name):
        self.name, self._staged, self.lives = name, staged, 0
        self.start()

    def start(self):
        self.lives += 1
        self.is_wanted = True
        self._log = self._staged.root / (self.name + ".log")
        with open(self._log, "ab") as log:
            self._log_begin = log.tell()
            self._child = subprocess.Popen([self._staged.program(self.name)], stdin=subprocess.DEVNULL, stdout=log,
                                           stderr=log, env=self._staged.environment, preexec_fn=no_core_dump)
        self.pid = self._child.pid
        if not wait_until(lambda: self.serves() or not self.is_running()) or not self.is_running():
            raise RuntimeError(f"{self.name} does not serve")

    def serves(self):
        """Whether somebody listens. The connection goes unused, as one of a peer that vanished."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as probe:
            with contextlib.suppress(OSError):
                probe.connect(str(self._staged.root / "run/quillmarsh" / SERVICES[self.name]))
                return True
        return False

    def is_running(self):
        return self._child.poll() is None

    def end(self, number):
        """The status it ended with, as subprocess gives it; None when it did not."""
        self.is_wanted = False
        self._child.send_signal(number)
        self._child.send_signal(signal.SIGCONT)
        with contextlib.suppress(subprocess.TimeoutExpired):
            self._child.wait(PATIENCE_SECONDS)
        return self._child.returncode

    def send(self, number):
        self._child.send_signal(number)

    @property
    def status(self):
        return self._child.poll()

    def has_logged(self, text):
        """In this life of its."""
        return text.encode() in self._log.read_bytes()[self._log_begin:]

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def descriptor_names(self):
        names = []
        for entry in os.listdir(f"/proc/{self.pid}/fd"):
            with contextlib.suppress(OSError):
                names.append(os.readlink(f"/proc/{self.pid}/fd/{entry}"))
        return sorted(names)

    def threads(self):
        return len(os.listdir(f"/proc/{self.pid}/task"))

    def memory_kib(self):
        """What is the process's alone and written to (proc(5), smaps_rollup)."""
        text = pathlib.Path(f"/proc/{self.pid}/smaps_rollup").read_text()
        return int(re.search(r"^Private_Dirty:\s+(\d+)", text, re.MULTILINE).group(1))

    def limit_descriptors(self, count):
        """The soft limit; None for the highest there may be."""
        hard = resource.prlimit(self.pid, resource.RLIMIT_NOFILE)[1]
        resource.prlimit(self.pid, resource.RLIMIT_NOFILE, (hard if count is None else min(count, hard), hard))


def no_core_dump():
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


class Installation:
    """Stands below a scratch folder as long as the context lasts."""

    def __init__(self, build, backend, programs):
        self._build, self._backend, self._programs = pathlib.Path(build).resolve(), backend, programs

    def __enter__(self):
        self._folder = tempfile.TemporaryDirectory(prefix="soak")
        self.root = pathlib.Path(self._folder.name)
        self._product = self.root / "Library/Quillmarsh/qxmac"
        self.daemon_socket = self.root / "run/quillmarsh" / SERVICES["qmreputationd"]
        self._reports = self.root / "reports"
        self._files = self.root / "files"
        self._reports.mkdir()
        self.environment = dict(os.environ)
        for name in SANITIZERS:
            log = f"{os.environ.get(name + '_OPTIONS', '')}:log_path={self._reports / name.lower()}"
            self.environment[name + "_OPTIONS"] = log + ":halt_on_error=0" * (name == "TSAN")
        subprocess.run([TOP / "tools/stage", self._build, self.root, *(self._build / name for name in self._programs)],
                       check=True)
        if self._backend == "wisp":
            (self._product / "config/parameters").write_text("")
            (self._product / "config/settings.toml").write_text("[system]\nwisp-config-state = 2\n")
        return self

    def __exit__(self, *_):
        self._folder.cleanup()

    @property
    def sanitizers(self):
        cache = (self._build / "CMakeCache.txt").read_text()
        found = re.search(r"^QM_SANITIZE:\w+=(.*)", cache, re.MULTILINE)
        return found.group(1).split(",") if found and found.group(1) else []

    @property
    def may_run_short(self):
        """UndefinedBehaviorSanitizer looks at an object's type through a pipe; without one it takes a sound object for a
        broken one, and ends the program."""
        return "undefined" not in self.sanitizers

    def program(self, name):
        return self._product / "bin" / name

    def sanitizer_reports(self):
        reports = (NO_REPORT.sub("", path.read_text()).strip() for path in sorted(self._reports.iterdir()))
        return [report for report in reports if report]

    def log_ends(self, lines=40):
        for log in sorted(self.root.glob("*.log")):
            yield f"== the end of {log.name}"
            yield from log.read_text(errors="replace").splitlines()[-lines:]

    def is_answered(self, bad_file):
        """Waits until the daemon knows from its agents that the file is bad."""
        check = [self.program("qmr"), "check", bad_file]
        streams = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
        return wait_until(lambda: subprocess.run(check, env=self.environment, **streams).returncode == 1)

    def is_asked_about(self, path):
        return path.startswith(f"{self._files}/")

    def make_files(self):
        """Files known bad, known good and unknown, and the list of what the daemon must say about each."""
        folder = self._files
        folder.mkdir()
        lines = []
        for number in range(12):
            path = folder / str(number)
            path.write_bytes(f"file {number}\n".encode() * (1 + 400 * (number % 3)))
            verdict = ("malicious", "known_clean", None)[number % 3]
            if verdict:
                subprocess.run([self.program("qmverdicts"), "add", path, "--verdict", verdict], check=True,
                               stdout=subprocess.DEVNULL, env=self.environment)
            lines.append(f"{(0, 2, 1)[number % 3]} {path}\n")
        file_list = self.root / "files.list"
        file_list.write_text("".join(lines))
        return file_list, folder / "0"


def zombies_of(parents):
    """Ended children that nobody collected, of those processes."""
    found = []
    for stat in pathlib.Path("/proc").glob("[0-9]*/stat"):
        with contextlib.suppress(OSError):
            pid, rest = stat.read_text().split(" (", 1)
            name, fields = rest.rsplit(") ", 1)
            state, parent = fields.split()[:2]
            if state == "Z" and int(parent) in parents:
                found.append(f"{name} ({pid}) of process {parent}")
    return found
