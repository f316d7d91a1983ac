"""The lab's host with the agent at work on it: what is done to it, asked of it and read from it, step by step."""
import contextlib
import io
import json
import os
import pathlib
import re
import subprocess
import sys
import urllib.request
from collections import Counter

LAB_FOLDER = pathlib.Path(__file__).resolve().parents[2]
for folder in (LAB_FOLDER, LAB_FOLDER / "tests", LAB_FOLDER / "agent" / "tests"):
    if str(folder) not in sys.path:
        sys.path.insert(0, str(folder))
from agent_client import AgentClient, AgentError, AgentProcess  # noqa: E402
from ferrolab import commands  # noqa: E402
from inside import Log, password, var  # noqa: E402

CONFIGURATION = pathlib.Path("/etc/morvand/morvand.conf")
PATIENCE = 90
CONNECTORS = ("connector1", "connector2", "branch1")


def ctl(*arguments):
    """`lab ctl` in this process: a Python less to start each time. What it prints."""
    said = io.StringIO()
    with contextlib.redirect_stdout(said):
        commands.ctl(list(arguments))
    return said.getvalue()


def lab_environment():
    return {**os.environ, "LC_ALL": "C.UTF-8"}


class Platform:
    """The simulator's control."""

    def __init__(self):
        self.opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))

    def ask(self, command, **members):
        """The answer as text."""
        request = urllib.request.Request(var("PLATFORM_CONTROL"), json.dumps({"command": command} | members).encode())
        with self.opener.open(request, timeout=PATIENCE + 5) as answer:
            return answer.read().decode()

    def control(self, command, **members):
        answer = json.loads(self.ask(command, **members))
        if not answer["ok"]:
            raise AssertionError(f"{command}: {answer['error']}")
        return answer

    def fault(self, endpoint, **what):
        self.control("fault", endpoint=endpoint, **what)

    def requests(self, endpoint=None):
        return self.control("requests", **({"endpoint": endpoint} if endpoint else {}))["requests"]

    def calls(self):
        return [f"{one['method']} {one['endpoint']}" for one in self.requests()]

    def take_surprises(self):
        return self.control("surprises", forget=True)["surprises"]

    def take_events(self):
        """The bodies of the events that arrived since the last call, byte for byte."""
        text = self.ask("events", forget=True)
        bodies, decoder, at = [], json.JSONDecoder(), text.index("[") + 1
        while text[at] != "]":
            _, end = decoder.raw_decode(text, at)
            bodies.append(text[at:end])
            at = end + (text[end] == ",")
        return bodies


class AgentLog:
    """The agent's log file; texts are those of the records without level, place and time."""
    RECORD = re.compile(r" (TRACE|DEBUG|INFO|WARN|ERROR|FATAL) ([\w.]+): (.*) \[[^][]*\]$")

    def __init__(self, path):
        self.path, self.seen, self.complaints = pathlib.Path(path), 0, Counter()

    def news(self):
        """(level, logger, text) of each record since the last call."""
        if not self.path.exists():
            return []
        with open(self.path, encoding="utf-8", errors="replace") as log:
            log.seek(self.seen)
            text = log.read()
        whole = text[:text.rfind("\n") + 1]
        self.seen += len(whole.encode(errors="replace"))
        records = [match.groups() for match in map(self.RECORD.search, whole.splitlines()) if match]
        self.complaints.update((level, text) for level, _, text in records if level in ("WARN", "ERROR", "FATAL"))
        return records

    def forget(self):
        """Gives the room back; the agent goes on at the new end of the file."""
        os.truncate(self.path, 0)
        self.seen = 0


class Agent(AgentProcess):
    """The host process, watched."""

    def runs(self):
        return self.process.poll() is None

    def measure(self):
        """Resident memory and what of it is its own, in KiB; threads; descriptors."""
        folder = f"/proc/{self.process.pid}"
        with open(f"{folder}/status", encoding="ascii") as status:
            fields = dict(line.split(":", 1) for line in status)
        number = {name: int(fields[name].split()[0]) for name in ("VmRSS", "RssAnon", "Threads")}
        return {**number, "descriptors": len(os.listdir(f"{folder}/fd"))}


def section(report, heading):
    """The connectors below a heading of the connector report."""
    lines = report.splitlines()
    begin = lines.index(f"   Morvane Connectors {heading}:") + 1
    end = next((i for i in range(begin, len(lines)) if lines[i].startswith("   M")), len(lines))
    prefix = "      Morvane Connector: "
    return [line[len(prefix):] for line in lines[begin:end] if line.startswith(prefix)]


def value(report, name):
    return re.search(rf"^ *{re.escape(name)}: *(.*)$", report, re.MULTILINE)[1]


def label(host):
    """connector1 of connector1.corp.ferro.test or of that with a port."""
    return host.partition(".")[0]


class Listing:
    """The files that a host may gain or lose: in the product's folders, those of the run time, and temporary ones."""
    FOLDERS = ("/etc/morvand", "/var/morvand", "/run", "/var/tmp", "/dev/shm")

    def __init__(self):
        """From here on /tmp is a layer of this lab's own, so that what comes into being there shows."""
        self.layer = pathlib.Path(os.environ["FERRO_LAB"], "tmp")
        if not self.layer.exists():
            self.layer.mkdir()
            subprocess.run(["mount", "-t", "tmpfs", "none", self.layer], check=True)
            for name in ("upper", "work"):
                (self.layer / name).mkdir()
            options = f"lowerdir=/tmp,upperdir={self.layer}/upper,workdir={self.layer}/work"
            subprocess.run(["mount", "-t", "overlay", "overlay", "-o", options, "/tmp"], check=True)

    def now(self):
        own = os.environ["FERRO_LAB"]
        found = set()
        for folder in (*self.FOLDERS, self.layer / "upper"):
            for place, folders, files in os.walk(folder):
                if str(place).startswith(own) and folder != self.layer / "upper":
                    folders.clear()
                    continue
                # Keytabs, replay caches and the like of the lab's peers are theirs.
                found |= {os.path.join(place, name) for name in files if self.is_roots(place, name)}
        paths = {path.replace(f"{self.layer}/upper", "/tmp") for path in found}
        # A checkout below /tmp: programs that count their lines write beside their objects.
        return {path for path in paths if not path.startswith(f"{LAB_FOLDER.parent}/build/")}

    @staticmethod
    def is_roots(place, name):
        try:
            return os.lstat(os.path.join(place, name)).st_uid == 0
        except FileNotFoundError:
            return False


# What the modules beside this one take from here.
__all__ = ["Agent", "AgentClient", "AgentError", "AgentLog", "CONFIGURATION", "CONNECTORS", "Listing", "Log",
           "PATIENCE", "Platform", "ctl", "label", "lab_environment", "password", "section", "value", "var"]
