"""What the lab's own tests use inside a lab: its environment, programs run in it, access logs, tickets."""
import json
import os
import re
import subprocess
import time
import urllib.request
from collections import namedtuple

LIMIT = 60.0
PAUSE = 0.02
Result = namedtuple("Result", "status text")
Answer = namedtuple("Answer", "status code connect text")


def var(name):
    return os.environ["FERRO_LAB_" + name]


def password(user):
    return var("PASSWORD_" + user.upper())


def run(*argv, text="", **environment):
    done = subprocess.run(argv, input=text.encode(), stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          env={**os.environ, "LC_ALL": "C.UTF-8", **environment}, timeout=60)
    return Result(done.returncode, done.stdout.decode(errors="replace"))


def ctl(*arguments, text=""):
    return run(var("TOOL"), "ctl", *arguments, text=text)


def platform(command, **members):
    """The simulator's answer to a command; with --with=platform."""
    asked = json.dumps({"command": command} | members).encode()
    with urllib.request.urlopen(var("PLATFORM_CONTROL"), asked, 30) as reply:
        answer = json.load(reply)
    assert answer["ok"], f"{command}: {answer['error']}"
    return answer


def url_escape(text):
    """curl decodes what it is given as user:password."""
    return "".join(f"%{byte:02X}" for byte in text.encode())


def curl(url, *options):
    """A GET with the lab's authority trusted: curl's status, the status codes of server and proxy, body and error."""
    done = run("curl", "-sS", "-i", "--max-time", "20", "--cacert", var("CA"), "-w", "\n@%{http_code} %{http_connect}",
               *options, url)
    code, connect = re.search(r"\n@(\d+) (\d+)", done.text).groups()
    return Answer(done.status, int(code), int(connect), done.text)


def through(proxy, *options, user=None, secret=None, url=None):
    """A GET of the platform through a proxy of this name."""
    given = () if user is None else ("--proxy-user", f"{url_escape(user)}:{url_escape(secret)}")
    return curl(url or var("PLATFORM_URL"), "--proxy", var("PROXY_" + proxy.upper()), *options, *given)


def until(true, limit=LIMIT):
    """Waits for something that another process does; the last answer."""
    end = time.monotonic() + limit
    while not (answer := true()) and time.monotonic() < end:
        time.sleep(PAUSE)
    return answer


class Log:
    """The lines that an access log gains from now on."""

    def __init__(self, name):
        self.path = var(name)
        self.seen = os.path.getsize(self.path)

    def lines(self):
        with open(self.path, encoding="utf-8", errors="replace") as log:
            log.seek(self.seen)
            return log.read().splitlines()

    def has(self, *parts):
        """A line with all of these parts comes."""
        return until(lambda: any(all(part in line for part in parts) for line in self.lines()), 5)


class Tickets:
    """A credential cache of its own, filled with a user's or the machine's ticket while the block runs."""

    def __init__(self, principal, secret=None):
        command = ("kinit", "-k", principal) if secret is None else ("kinit", principal)
        self.cache = f"/var/tmp/selftest-{os.getpid()}-{time.monotonic_ns()}"
        self.result = run(*command, text="" if secret is None else secret + "\n", KRB5CCNAME=self.cache)

    def __enter__(self):
        os.environ["KRB5CCNAME"] = self.cache
        return self

    def __exit__(self, *_):
        del os.environ["KRB5CCNAME"]
        if os.path.exists(self.cache):
            os.unlink(self.cache)
