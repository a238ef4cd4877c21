"""A staged installation and the floor: what is started for a measurement, on which processors, and ended again."""

import contextlib
import os
import pathlib
import socket
import subprocess
import tempfile
import time

PATIENCE_SECONDS = 60
TOP = pathlib.Path(__file__).resolve().parents[2]


def split_processors():
    """Those of the asking program and those of the asked ones: apart where there are two."""
    processors = sorted(os.sched_getaffinity(0))
    return set(processors[:1]), set(processors[1:]) or set(processors)


class Process:
    """A program of ours, pinned, in a session of its own as a service or a person's program has it."""

    def __init__(self, command, processors, log=None, **streams):
        self.started_at = time.monotonic()
        self._log = open(log, "ab") if log else None
        self._child = subprocess.Popen([str(word) for word in command], preexec_fn=lambda: self._prepare(processors),
                                       stderr=self._log, **streams)
        self.pid = self._child.pid

    @staticmethod
    def _prepare(processors):
        os.sched_setaffinity(0, processors)
        os.setsid()

    def read_line(self):
        return self._child.stdout.readline()

    def finish(self):
        """Waits; what it wrote to standard output."""
        output = self._child.communicate(timeout=600)[0]
        if self._child.returncode != 0:
            raise RuntimeError(f"{self._child.args[0]} ended with {self._child.returncode}")
        return output

    def terminate(self):
        self._child.terminate()

    def is_running(self):
        return self._child.poll() is None

    def end(self):
        if self._child.stdin:
            self._child.stdin.close()
        if self.is_running():
            self._child.terminate()
        self._child.wait(PATIENCE_SECONDS)
        if self._log:
            self._log.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end()


class Installation:
    """Stands below a scratch folder as long as the context lasts."""

    def __init__(self, build):
        self._build = pathlib.Path(build)
        self.client_processors, self.service_processors = split_processors()

    def __enter__(self):
        self._folders = contextlib.ExitStack()
        self.root = pathlib.Path(self._folders.enter_context(tempfile.TemporaryDirectory(prefix="load")))
        # Holes of files there cost no memory when they are read.
        in_memory = "/dev/shm" if os.path.isdir("/dev/shm") else None
        self.memory = pathlib.Path(self._folders.enter_context(tempfile.TemporaryDirectory(dir=in_memory)))
        self._product = self.root / "Library/Quillmarsh/qxmac"
        self.daemon_socket = self.root / "run/quillmarsh/com.quillmarsh.qmreputationd"
        subprocess.run([TOP / "tools/stage", self._build, self.root, self._build / "bench/load_client"], check=True)
        return self

    def __exit__(self, *_):
        self._folders.close()

    def program(self, name):
        return self._product / "bin" / name

    def start(self, name, processors=None):
        return Process([self.program(name)], processors or self.service_processors, self.root / (name + ".log"))

    def start_floor(self, kind, processors=None, threads=None):
        """With as many threads as it has processors, if nothing else is said."""
        command = [self._build / "bench/load_floor", self.floor_socket(kind), kind]
        return Process(command + ([threads] if threads else []), processors or self.service_processors)

    def floor_socket(self, kind):
        return self.root / ("floor-" + kind)

    def start_client(self, *arguments):
        return Process([self.program("load_client"), *arguments], self.client_processors, stdin=subprocess.PIPE,
                       stdout=subprocess.PIPE)

    @contextlib.contextmanager
    def idle_peers(self, count):
        with self.start_client("idle", "--socket", self.daemon_socket, "--count", count) as peers:
            if peers.read_line() != b"ready\n":
                raise RuntimeError("the daemon does not admit the idle peers")
            yield

    @contextlib.contextmanager
    def backend(self, name):
        """The agents that the backend asks, and the settings that choose it."""
        (self._product / "config/parameters").write_text("BASALT=true\n" if name == "basalt" else "")
        (self._product / "config/settings.toml").write_text("[system]\nwisp-config-state = 2\n")
        with contextlib.ExitStack() as stack:
            if name == "wisp":
                stack.enter_context(self._start_service("qmsettingsd", "com.quillmarsh.qmsettingsd"))
            agent = {"basalt": ("skyvaultd", "com.quillmarsh.sp.skyvaultd"),
                     "wisp": ("qmwpcored", "com.quillmarsh.wisp.qmwpcored")}[name]
            yield stack.enter_context(self._start_service(*agent))

    def _start_service(self, name, service):
        process = self.start(name)
        deadline = time.monotonic() + PATIENCE_SECONDS
        while not accepts_connections(self.root / "run/quillmarsh" / service):
            if time.monotonic() > deadline or not process.is_running():
                raise RuntimeError(f"{name} does not serve")
            time.sleep(0.01)
        return process


def accepts_connections(path):
    with socket.socket(socket.AF_UNIX) as client:
        return client.connect_ex(str(path)) == 0


def make_files(folder, size, count, content=os.urandom):
    """That many files, none like another, and the list of their paths."""
    folder.mkdir(parents=True, exist_ok=True)
    paths = [folder / str(number) for number in range(count)]
    for path in paths:
        path.write_bytes(content(size))
    return write_list(folder, paths)


def make_sparse_files(folder, size, count):
    folder.mkdir(parents=True, exist_ok=True)
    paths = [folder / str(number) for number in range(count)]
    for path in paths:
        with open(path, "wb") as file:
            file.truncate(size)
    return write_list(folder, paths)


def write_list(folder, paths):
    file_list = folder.with_suffix(".list")
    file_list.write_text("".join(f"{path}\n" for path in paths))
    return file_list
