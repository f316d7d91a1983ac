"""A person at a terminal in which login_terminal runs, the platform, and how a login there is judged."""
import fcntl
import json
import os
import pathlib
import select
import signal
import subprocess
import sys
import tempfile
import termios
import time
import unittest
import urllib.request

PROGRAM = sys.argv[1]
CONFIGURATION = pathlib.Path("/etc/morvand/morvand.conf")
PATIENCE = 90


class Platform:
    """The simulator: a child of this script, or the lab's."""
    url = os.environ.get("FERRO_LAB_PLATFORM_URL")
    authority = os.environ.get("FERRO_LAB_CA")
    control_url = os.environ.get("FERRO_LAB_PLATFORM_CONTROL")

    @classmethod
    def start(cls, folder, program):
        key, cls.authority = f"{folder}/platform.key", f"{folder}/platform.crt"
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                        "-nodes", "-keyout", key, "-out", cls.authority, "-days", "2", "-subj", "/CN=localhost",
                        "-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1"], check=True, capture_output=True)
        # A pod has no port of its own, so that the simulator takes that of https.
        process = subprocess.Popen([program, f"--certificate={cls.authority}", f"--key={key}", "--port=443",
                                    "--pod-host=127.0.0.1"], stdout=subprocess.PIPE, text=True)
        said = dict(process.stdout.readline().split() for _ in range(3))
        cls.url, cls.control_url = said["platform"], said["control"]
        return process

    @classmethod
    def ask(cls, command):
        with urllib.request.urlopen(cls.control_url, command.encode(), PATIENCE + 5) as answer:
            return answer.read()


def control(command, **members):
    answer = json.loads(Platform.ask(json.dumps({"command": command} | members)))
    if not answer["ok"]:
        raise AssertionError(f"{command}: {answer['error']}")
    return answer


def requests():
    return [f"{one['method']} {one['endpoint']}" for one in control("requests")["requests"]]


class Person:
    """Somebody at a terminal of their own, in which the program runs."""

    def __init__(self, *arguments, ignoring=()):
        self.master, self.slave = os.openpty()
        self.settings, self.screen, self.seen, self.hidden = termios.tcgetattr(self.slave), "", 0, []

        def take_terminal():
            fcntl.ioctl(0, termios.TIOCSCTTY, 0)
            for number in ignoring:
                signal.signal(number, signal.SIG_IGN)

        self.process = subprocess.Popen([PROGRAM, *arguments], stdin=self.slave, stdout=self.slave, stderr=self.slave,
                                        start_new_session=True, preexec_fn=take_terminal)

    def close(self):
        self.process.kill()
        self.process.wait()
        for descriptor in (self.master, self.slave):
            os.close(descriptor)

    def read(self, seconds):
        if not select.select([self.master], [], [], seconds)[0]:
            return False
        self.screen += os.read(self.master, 65536).decode().replace("\r\n", "\n")
        return True

    def sees(self, text):
        """Reads until the text is on the screen, behind all that was seen before."""
        end = time.monotonic() + PATIENCE
        while text not in self.screen[self.seen:]:
            if time.monotonic() > end or not self.read(max(end - time.monotonic(), 0)):
                raise AssertionError(f"{text!r} does not come: {self.screen!r}")
        self.seen = self.screen.index(text, self.seen) + len(text)
        return self

    def types(self, text):
        os.write(self.master, text.encode() + b"\n")
        return self

    def answers(self, text):
        """Types what must not be shown."""
        self.hidden.append(text)
        return self.types(text)

    def hits(self, key):
        os.write(self.master, key)
        return self

    def gives(self, prompt, text):
        return self.sees(prompt).answers(text)

    def ends(self, last_words):
        """The exit status, negative for a signal, once these words are on the screen."""
        status = self.process.wait(PATIENCE)
        while not self.screen.endswith(last_words) and self.read(1):  # the terminal may be late
            pass
        while self.read(0):
            pass
        return status

    def echoes(self):
        return bool(termios.tcgetattr(self.slave)[3] & termios.ECHO)

    def left_to_read(self):
        """What is typed and not read: the shell would take it for a command."""
        return select.select([self.slave], [], [], 0)[0]


class Login(unittest.TestCase):
    VERSION = ""
    OPTIONS = ("--no-directory", "--platform", "URL")
    SETTINGS = "ferrod.cloud.direct.connection: true\nferrod.cloud.iwa.url: https://nobody.invalid/\n"
    maxDiff = None

    def setUp(self):
        control("reset")
        control("clear-faults")
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.log = pathlib.Path(folder.name) / "login.log"
        CONFIGURATION.write_text(f"ferrod.cloud.rest.version: {self.VERSION}\n{self.SETTINGS}"
                                 f"ferrod.cloud.cert.store: {Platform.authority}\n"
                                 f"logging.file: {self.log}\nlog: TRACE\n")

    def tearDown(self):
        CONFIGURATION.unlink(missing_ok=True)

    def person(self, user, *arguments, **how):
        options = [Platform.url if option == "URL" else option for option in self.OPTIONS]
        one = Person("--user", user, *options, "--poll-interval", "0.02", *arguments, **how)
        self.addCleanup(one.close)
        return one

    def judge(self, person, status, last_words):
        """The program has ended like that, nothing of it is left, and nobody learnt a secret."""
        self.assertEqual(person.ends(last_words), status, person.screen)
        self.assertTrue(person.screen.endswith(last_words), person.screen)
        self.assertEqual(termios.tcgetattr(person.slave), person.settings)
        self.assertFalse(person.left_to_read())
        log = self.log.read_text() if self.log.exists() else ""
        for secret in person.hidden:
            if secret:
                self.assertNotIn(secret, person.screen)
                self.assertNotIn(secret, log)
        self.assertEqual(control("surprises")["surprises"], [])

    def out_of_band(self, user, verdict="approve"):
        control(verdict, user=user, wait=PATIENCE)

    def given(self, factors, number, answer):
        """bob at his second factor: the one with that number, answered with a text or, without one, elsewhere."""
        bob = self.person("bob").gives(self.PASSWORD, "bob-Pass1")
        bob.sees(f"Your choice, 1 to {factors}: ").types(str(number)).sees(": " if answer else " ")
        bob.answers(answer)
        if not answer:
            bob.sees("Waiting for your answer, at most 120 seconds...\n")
            self.out_of_band("bob")
        return bob
