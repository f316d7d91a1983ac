"""Privilege events: their bytes, and what may become of each, told from what the log says of the queue's work."""
import json
from collections import Counter

RUNS = "postLogPrivEvent() runs..."
SIGNS_IN = "Machine cookie not ready, will fetch"
SIGNED_IN = "OPXProcessor: initProc completes"
SENDS = "process a privilege event"
ARRIVED = "LogPrivEvent: result = 1, httpCode = 200"
RESULT = "LogPrivEvent: result = 0, httpCode = "
EXPIRED = "LogPrivEvent: machine cookie expired, will refetch"
GIVES_UP = "LogPrivEvent: unknown failure, give up such sending."
FAILURES = ("Got CURL exception: ", "Got exception: ", "Got IWA exception: ")
LOGGER = "OPX.processor"
WORDS = "a \"quoted\" word, a back\\slash, a\ttab, ünïcode ✓ and a / slash"


def event(number):
    """Names and values of one event, and its body: members in this order, compact, one name twice."""
    pairs = [["Number", str(number)], ["User", f"user{number % 7}"], ["Command", f"/usr/bin/id {WORDS} {number}"],
             ["User", ""], ["", "no name"]]
    body = "{" + ",".join(f"{json.dumps(name, ensure_ascii=False)}:{json.dumps(value, ensure_ascii=False)}"
                          for name, value in pairs) + "}"
    return pairs, body


class Rules:
    """Goes along with the queue's log. Each loss has its rule, and what no rule lets go of has to arrive."""

    def __init__(self):
        self.waiting, self.fates, self.losses, self.resent = [], [], Counter(), 0
        self.copy, self.at, self.ends_well, self.lost = None, 0, False, Counter()

    def stored(self, body):
        self.waiting.append(body)

    def end_run(self):
        """A run that failed keeps what waits, what was sent too; one that did not takes all away."""
        if self.copy is not None and self.ends_well:
            self.losses += self.lost
            self.waiting = []
        elif self.copy is not None:
            self.resent += self.at - sum(self.lost.values())
        self.copy, self.lost = None, Counter()

    def read(self, records):
        """Takes the news of the log, at rest: every run has ended."""
        for _, logger, text in records:
            if logger == LOGGER:
                self.read_text(text)
        self.end_run()

    def read_text(self, text):
        if text == RUNS:
            self.end_run()
        elif text == SIGNS_IN:
            self.losses["dropped by a sign-in"] += len(self.waiting)
            self.waiting = []
        elif text == SENDS:
            self.copy, self.at, self.ends_well = list(self.waiting), 0, True
        elif self.copy is not None:
            self.read_sending(text)

    def read_sending(self, text):
        if text == ARRIVED or text.startswith(RESULT):
            # The platform may have taken one that it refuses, where its reply was damaged.
            self.fates.append((text == ARRIVED, self.copy[self.at]))
            self.at += 1
        if text.startswith(RESULT):
            self.lost["met by a 401" if text.endswith(" 401") else "refused"] += 1
        if text == GIVES_UP:
            self.lost["behind a refused one"] += len(self.copy) - self.at
        if text.startswith(FAILURES):
            self.fates += [(False, body) for body in self.copy[self.at:self.at + 1]]
            self.ends_well = False

    def judge(self, arrived):
        """None where what arrived is what had to, else words."""
        places = {0}
        for is_sure, body in self.fates:
            there = {at + 1 for at in places if at < len(arrived) and arrived[at] == body}
            places = there if is_sure else there | places
            if not places:
                return f"{body} did not come, or not in its place, among {arrived}"
        self.fates = []
        return None if len(arrived) in places else f"something came that nobody sent then, or came twice: {arrived}"
