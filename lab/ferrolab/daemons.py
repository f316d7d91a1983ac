"""Daemons of the lab: started in sessions of their own, waited for, stopped whole."""
import os
import signal
import socket
import subprocess
import sys
import time
from pathlib import Path

from ferrolab.names import STATE

READY_LIMIT = 60.0
STOP_LIMIT = 5.0
PAUSE = 0.02
TCP_LISTEN = "0A"


class LabError(Exception):
    """The lab cannot be had; the text says what failed and, where there is a log, how it ended."""


def tail(path, lines=25):
    try:
        return "\n".join(Path(path).read_text(errors="replace").splitlines()[-lines:])
    except OSError as failure:
        return f"({failure})"


def missing(program):
    return LabError(f"the program {program} is missing; tools/install-packages lab installs what the lab needs")


def run(argv, what, text=""):
    """Runs a set-up command with this standard input and returns what it said; a failure shows that."""
    try:
        result = subprocess.run([str(a) for a in argv], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                input=text.encode())
    except FileNotFoundError:
        raise missing(argv[0]) from None
    said = result.stdout.decode(errors="replace").strip()
    if result.returncode != 0:
        raise LabError(f"{what} failed: {argv[0]} ended with status {result.returncode}\n{said}")
    return said


def listens(address, port):
    """A readiness probe: a TCP socket listens there. Nobody is connected to, so nobody's log shows it."""
    local = f"{int.from_bytes(socket.inet_aton(address), sys.byteorder):08X}:{port:04X}"

    def probe():
        sockets = (line.split() for line in Path("/proc/net/tcp").read_text().splitlines()[1:])
        return any(fields[1] == local and fields[3] == TCP_LISTEN for fields in sockets)
    return probe


def accepts(path):
    """A readiness probe: somebody accepts connections at this Unix socket."""
    def probe():
        with socket.socket(socket.AF_UNIX) as client:
            return client.connect_ex(str(path)) == 0
    return probe


def processes():
    """Living processes as {pid: (parent, session)}; what is only waiting to be reaped does not count."""
    found = {}
    for entry in Path("/proc").iterdir():
        if not entry.name.isdigit():
            continue
        try:
            state, parent, _group, session = (entry / "stat").read_text().rpartition(")")[2].split()[:4]
        except OSError:
            continue
        if state not in "ZX":
            found[int(entry.name)] = (int(parent), int(session))
    return found


def family(leader):
    """The leader's session and all descendants of its members, also those that made sessions of their own."""
    living = processes()
    members = {pid for pid, (_, session) in living.items() if session == leader}
    grown = True
    while grown:
        more = {pid for pid, (parent, _) in living.items() if parent in members} - members
        members |= more
        grown = bool(more)
    return members


def send(pids, number):
    for pid in pids:
        try:
            os.kill(pid, number)
        except ProcessLookupError:
            pass


def comes_true(condition, seconds):
    """Waits for something that other processes do; false when it has not come to be in that time."""
    limit = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > limit:
            return False
        time.sleep(PAUSE)
    return True


class Daemon:
    """A program that stays in the foreground, leader of a session that holds all of its helpers."""

    def __init__(self, name, argv, probes, logs=(), environment=None, stop_signal=signal.SIGTERM):
        self.name = name
        self.argv = [str(a) for a in argv]
        self.probes = probes
        self.output = STATE / "logs" / f"{name}.out"
        self.logs = (self.output, *logs)
        self.environment = environment or {}
        self.stop_signal = stop_signal
        self.pid_file = STATE / "pids" / name

    def leader(self):
        try:
            return int(self.pid_file.read_text())
        except FileNotFoundError:
            return None

    def running(self):
        leader = self.leader()
        return leader is not None and leader in processes()

    def start(self):
        """Starts and waits until every probe answers. Raises LabError with the end of the logs."""
        if self.running():
            return
        self.output.parent.mkdir(parents=True, exist_ok=True)
        self.pid_file.parent.mkdir(parents=True, exist_ok=True)
        try:
            with open(self.output, "ab") as output:
                process = subprocess.Popen(self.argv, stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                                           start_new_session=True, env={**os.environ, **self.environment})
        except FileNotFoundError:
            raise missing(self.argv[0]) from None
        self.pid_file.write_text(str(process.pid))
        limit = time.monotonic() + READY_LIMIT
        for probe in self.probes:
            while not probe():
                if process.poll() is not None:
                    raise LabError(self.failure(f"ended with status {process.returncode}"))
                if time.monotonic() > limit:
                    raise LabError(self.failure(f"was not ready after {READY_LIMIT:.0f} seconds"))
                time.sleep(PAUSE)

    def stop(self):
        """Ends every process of the daemon: politely, then for good."""
        if self.pid_file.exists():
            members = family(self.leader())
            send(members & {self.leader()}, self.stop_signal)
            if not comes_true(lambda: not members & processes().keys(), STOP_LIMIT):
                send(members, signal.SIGKILL)
                if not comes_true(lambda: not members & processes().keys(), STOP_LIMIT):
                    raise LabError(f"{self.name} does not end")
        self.pid_file.unlink(missing_ok=True)

    def failure(self, what):
        text = f"{self.name} {what}"
        for log in self.logs:
            if Path(log).exists() and Path(log).stat().st_size:
                text += f"\n--- end of {log} ---\n{tail(log)}"
        return text
