"""The road itself: the host, its agent and its peers in the lab, and the events on their way."""
import contextlib
import os
import pathlib
import subprocess
import sys

import road_events as rules
from road_host import (CONFIGURATION, PATIENCE, Agent, AgentClient, AgentLog, Platform, lab_environment, value, var)
from road_logins import APPROVED, Login, Plan

ALICE, BOB = Plan("alice"), Plan("bob", "login", ("SMS",), (APPROVED,))


class StepFailed(AssertionError):
    pass


def expect(condition, words):
    if not condition:
        raise StepFailed(words)


def expect_equal(found, expected, what):
    expect(found == expected, f"{what}: {found!r}, expected {expected!r}")


class Road:
    """The host, its agent and its peers, and what is known of the events on their way."""

    def __init__(self, agent_program, tool, status_program):
        self.agent_program, self.tool, self.status_program = agent_program, tool, status_program
        self.platform, self.rules = Platform(), rules.Rules()
        self.log = AgentLog(pathlib.Path(os.environ["FERRO_LAB"], "agent.log"))
        self.log.path.unlink(missing_ok=True)
        self.agent = self.client = None
        self.number = 0

    # The host.

    def configure(self, **changes):
        """Writes the settings that no tool writes. A value of None takes one away; those that are not named stay."""
        lines = CONFIGURATION.read_text(encoding="utf-8").splitlines() if CONFIGURATION.exists() else []
        for name, text in changes.items():
            key = name.replace("__", ".")
            lines = [line for line in lines if line.partition(":")[0].strip() != key]
            lines += [f"{key}: {text}"] if text is not None else []
        CONFIGURATION.write_text("\n".join(lines) + "\n", encoding="utf-8")

    def write_settings(self):
        """Those of a host at work in the lab; the proxy's are ferrogate's to write."""
        self.configure(log="DEBUG", log__base__kerberos="INFO", logging__file=self.log.path,
                       ferrosec__cert__dir=var("CA_FOLDER"), ferrod__legacyzone__mfa__cloudurl=var("PLATFORM_URL"),
                       ferrod__cloud__log__privevent="true")

    def tell(self):
        """The end of the agent's log, and what it said."""
        with contextlib.suppress(OSError):
            lines = self.log.path.read_text(encoding="utf-8", errors="replace").splitlines()
            print("--- the agent's log", *lines[-600:], sep="\n", file=sys.stderr)
        if self.agent:
            print("--- the agent said", self.agent.output[-4000:], sep="\n", file=sys.stderr)

    def ferrogate(self, *arguments):
        done = subprocess.run([self.tool, *arguments], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True, env=lab_environment(), timeout=PATIENCE * 2)
        return done.returncode, done.stdout, done.stderr

    def set(self, *arguments):
        status, _, said = self.ferrogate("--set", *arguments)
        expect_equal(status, 0, f"ferrogate --set {arguments}: {said}")
        expect(said.endswith("Set the HTTP Proxy configuration successfully.\n"
                             "You may want to run ferrokick to make the new configuration effective.\n"), said)

    # The agent.

    def start_agent(self):
        self.agent = Agent(self.agent_program)
        self.client = AgentClient()

    def ask(self, method, **parameters):
        return self.client.call(method, **parameters)

    def reload(self):
        """The settings are read, and the connectors searched, anew."""
        self.ask("reload")
        self.ask("settle")

    def report(self):
        return self.ask("reports")["connectors"]

    def pool(self):
        return self.ask("reports")["pool"]

    def current(self):
        return value(self.report(), "Current used connector")

    def login(self, plan=BOB, payload=(("command", "id -u"),)):
        return Login(self.ask, self.platform).run(plan, payload)

    # Events.

    def hand_over(self):
        self.number += 1
        pairs, body = rules.event(self.number)
        self.rules.stored(body)
        expect_equal(self.ask("logPrivEvent", event=pairs), True, "the answer to an event")
        return body

    def wait(self):
        """Until the queue is through with all that was handed over; what the log says of it."""
        self.ask("settle")
        news = self.log.news()
        self.rules.read(news)
        return texts(news, rules.LOGGER)

    def settle(self):
        """The same, and what arrived."""
        said, arrived = self.wait(), self.platform.take_events()
        wrong = self.rules.judge(arrived)
        expect(wrong is None, f"{wrong}; log: {said}")
        return said, arrived

    def event(self):
        """One event, dealt with to its end: what the log says, what arrived."""
        self.hand_over()
        return self.settle()

    def expect_event_arrives(self):
        body = self.hand_over()
        said, arrived = self.settle()
        expect_equal(arrived, [body], f"what arrived, {said}")

    def expect_dropped_by_sign_in(self, dropped=1):
        """The event that leads to a sign-in is gone, and all that wait with it."""
        before = self.rules.losses["dropped by a sign-in"]
        said, arrived = self.event()
        expect_equal(arrived, [], "what arrived of an event that needs a sign-in")
        expect(rules.SIGNS_IN in said and rules.SIGNED_IN in said, f"no sign-in: {said}")
        expect_equal(self.rules.losses["dropped by a sign-in"] - before, dropped, "events dropped by the sign-in")

    def settle_burst(self):
        """The same for events that came from several threads, whose order nobody knows; every run ended well."""
        self.ask("settle")
        said = texts(self.log.news(), rules.LOGGER)
        expect(not [text for text in said if text.startswith((*rules.FAILURES, rules.SIGNS_IN))], f"a burst: {said}")
        self.rules.waiting = []
        return said, self.platform.take_events()

    def begin(self):
        """What was asked and said before belongs to others."""
        self.rules.read(self.log.news())
        self.platform.control("requests", forget=True)

    def expect_no_surprise(self):
        expect_equal(self.platform.take_surprises(), [], "the platform's surprises")


def texts(records, logger):
    return [text for _, name, text in records if name == logger]
