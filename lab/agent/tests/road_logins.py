"""Logins by the newest version, as an agent's client leads them over the RPC."""
import time
from collections import namedtuple

FAILED, DONE, NEXT, PENDING, REQUEST_FAILED, NOT_CONFIGURED, NO_MACHINE_ACCESS = range(7)
OUT_OF_BAND = ("OTP", "SMS", "EMAIL", "PF")
CODE, DOG = "246810", "Rex"
POLL_PAUSE, POLL_LIMIT = 0.02, 10
# `texts`: an answer for each round; None is an approval elsewhere.
Plan = namedtuple("Plan", "user profile factors texts ends", defaults=("login", (), (), DONE))
APPROVED = None
PLANS = (
    Plan("alice"),
    Plan("alice", "elevation"),
    Plan("bob", "login", ("SMS",), (APPROVED,)),
    Plan("bob", "elevation", ("PF",), (APPROVED,)),
    Plan("carol", "login", ("OTP",), (CODE,)),
    Plan("carol", "login", ("EMAIL",), (APPROVED,)),
    Plan("frank", "login", ("OTP", "SMS"), (CODE, CODE)),
    Plan("grace", "elevation", ("SQ",), (DOG,)),
    Plan("grace", "login", ("SQ",), ("Bello",), FAILED),
    Plan("heidi", "login", ("UP",), ("heidi-Pass1",)),
    Plan("auto", "login", ("OTP",), ("wait",)),
    Plan("erin", "login", (), (), NOT_CONFIGURED),
    Plan("ivan", "login", (), (), REQUEST_FAILED),
    Plan("judy", "login", (), (), FAILED),
)


class Login:
    """One login from its beginning to its end. `ask` calls a method of the agent's."""

    def __init__(self, ask, platform):
        self.ask, self.platform = ask, platform

    def run(self, plan, payload=()):
        """The last status."""
        reply = self.ask("login", user=plan.user, uuid="", profile=plan.profile, payload=[list(p) for p in payload])
        number, rounds = reply["login"], iter(zip(plan.factors, plan.texts))
        try:
            while reply["status"] == NEXT:
                factor, text = next(rounds)
                reply = self.answer(number, plan.user, self.mechanism(reply["challenge"], factor), text)
            return reply["status"]
        finally:
            # What is over is forgotten; what failed or waits stays open until somebody ends it.
            if reply["status"] in (NEXT, PENDING):
                self.ask("endLogin", login=number)

    @staticmethod
    def mechanism(challenge, factor):
        found = [one for one in challenge["mechanisms"] if one["name"] == factor]
        if not found:
            raise AssertionError(f"no {factor} among {challenge['mechanisms']}")
        return found[0]

    def answer(self, number, user, mechanism, text):
        def act(action, words=""):
            return self.ask("answer", login=number, mechanism=mechanism["id"], action=action, text=words)
        if mechanism["name"] not in OUT_OF_BAND:
            return act("answer", text)
        reply = act("start")
        if reply["status"] != PENDING:
            return reply
        if text not in (APPROVED, "wait"):
            return act("answer", text)
        if text is APPROVED:
            self.platform.control("approve", user=user)
        end = time.monotonic() + POLL_LIMIT
        while (reply := act("poll"))["status"] == PENDING and time.monotonic() < end:
            time.sleep(POLL_PAUSE)
        return reply
