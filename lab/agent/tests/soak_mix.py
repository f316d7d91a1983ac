"""The soak's mix: users who sign in side by side, faults that meet them, and the long road's steps in between."""
import random
import threading
import time
from collections import Counter
from contextlib import contextmanager

import road_events as rules
import steps
from road import ALICE, expect, expect_equal
from road_host import CONNECTORS, AgentClient, AgentError, ctl
from road_logins import DONE, PLANS, Login

# An exchange may take 30 seconds, and a login is up to nine of them.
LONGEST_LOGIN = 90
RECOVERY = 90
LOG_LIMIT = 4 << 20
# Who signs in on which thread: an approval is for all questions that a user has open.
CREWS = (("alice", "bob"), ("carol", "frank", "auto"), ("grace", "heidi", "erin", "ivan", "judy"))
SQUIDS = tuple(f"squid-{name}" for name in CONNECTORS)
SERVER_FAULTS = ({"status": 500}, {"status": 503}, {"cut": "before"}, {"cut": "headers"}, {"cut": "body"},
                 {"broken": True}, {"empty": True}, {"huge": 200_000}, {"delay": 150}, {"refuse": {"ErrorID": "Busy"}})


class Weather:
    """Whether anything is being broken. A login that began and ended in the same calm has no excuse."""

    def __init__(self):
        self.changes, self.is_calm = 0, True

    @contextmanager
    def storm(self):
        self.is_calm = False
        self.changes += 1
        yield
        self.changes += 1
        self.is_calm = True

    def now(self):
        return self.changes if self.is_calm else None


class Crew(threading.Thread):
    """One user after the other signs in, at a pace, while the gate is open."""

    def __init__(self, mix, number):
        super().__init__(daemon=True)
        self.mix, self.random = mix, random.Random(f"{mix.seed}-{number}")
        self.plans = [plan for plan in PLANS if plan.user in CREWS[number % len(CREWS)]]
        self.idle = threading.Event()

    def run(self):
        try:
            with AgentClient() as client:
                while not self.mix.ends.is_set():
                    if not self.mix.gate.is_set():
                        self.idle.set()
                        self.mix.gate.wait(0.5)
                        continue
                    self.idle.clear()
                    self.login(client, self.random.choice(self.plans))
                    self.mix.ends.wait(self.random.uniform(0.5, 1.5) * self.mix.pause)
        except Exception as failure:  # pylint: disable=broad-except
            self.mix.fail(f"a crew: {failure!r}")
        finally:
            self.idle.set()

    def login(self, client, plan):
        before, begin, said = self.mix.weather.now(), time.monotonic(), None
        try:
            status = Login(client.call, self.mix.road.platform).run(plan, (("command", f"id {plan.user}"),))
        except (AgentError, AssertionError) as failure:
            status, said = None, f"{type(failure).__name__}: {failure}"
        took = time.monotonic() - begin
        if took > LONGEST_LOGIN:
            self.mix.fail(f"a login of {plan.user} took {took:.0f} s")
        as_planned = status == plan.ends
        self.mix.counts["logins"] += 1
        if before is not None and before == self.mix.weather.now() and not as_planned:
            self.mix.fail(f"a login of {plan.user} for {plan.profile} that nothing disturbed ended with {status} and "
                          f"not {plan.ends}; {said}")
        if not as_planned:
            self.mix.counts["disturbed"] += 1


class Mix:
    """All that goes on while the agent is watched. `pause`: between two logins of a crew, seconds."""

    def __init__(self, road, seed, pause):
        self.road, self.seed, self.pause = road, seed, pause
        self.random = random.Random(seed)
        self.weather, self.gate, self.ends = Weather(), threading.Event(), threading.Event()
        self.counts = Counter({"logins": 0, "disturbed": 0, "events": 0, "faults": 0})
        self.kinds, self.failure, self.faults, self.clock = Counter(), None, [], time.monotonic
        self.complaints = road.log.complaints
        self.crews = [Crew(self, number) for number in range(len(CREWS))]

    def note_fault(self):
        self.counts["faults"] += 1
        self.faults.append(self.clock())

    def fail(self, words):
        self.failure = self.failure or words

    def check(self):
        """What must hold at any time."""
        expect(self.failure is None, self.failure)
        expect(self.road.agent.runs(), f"the agent has ended: status {self.road.agent.process.poll()}")
        self.road.expect_no_surprise()

    def start(self):
        self.gate.set()
        for crew in self.crews:
            crew.start()

    def stop(self):
        self.ends.set()
        for crew in self.crews:
            crew.join(LONGEST_LOGIN)
            expect(not crew.is_alive(), "a login does not end")
        self.check()

    @contextmanager
    def alone(self):
        """Nobody signs in meanwhile."""
        self.gate.clear()
        for crew in self.crews:
            expect(crew.idle.wait(LONGEST_LOGIN), "a login does not end")
        yield
        self.gate.set()

    def event(self):
        self.counts["events"] += 1
        return self.road.event()

    def recover(self):
        """The peers are up: so much time until all is well again."""
        end = time.monotonic() + RECOVERY
        self.road.platform.control("clear-faults")
        self.road.reload()
        while True:
            _, arrived = self.event()
            try:
                login = self.road.login(ALICE)
            except AgentError as failure:
                login = str(failure)
            if arrived and login == DONE and steps.knows_all_connectors(self.road):
                return
            expect(time.monotonic() < end, f"no recovery: login {login!r}, {len(self.road.rules.waiting)} events wait\n"
                                           f"{self.road.report()}")
            time.sleep(0.5)
            self.road.reload()

    def run(self, kind):
        name, work = kind
        self.kinds[name] += 1
        self.road.begin()
        if self.road.log.seen > LOG_LIMIT:
            self.road.log.forget()
        work(self)
        self.check()
        time.sleep(self.random.uniform(0.5, 1.5) * self.pause)


# What is done, by name. First what the logins go on beside.


def quiet_events(mix):
    """One event after the other; each arrives."""
    for _ in range(20):
        mix.counts["events"] += 1
        mix.road.expect_event_arrives()
        time.sleep(0.02)


def burst(mix):
    """Events from several threads while others are sent. Those that come in while a run sends may go with it unsent;
    what arrives is whole, in each sender's order, and came once."""
    road, bodies = mix.road, [[] for _ in range(3)]
    road.expect_event_arrives()

    def send(mine, first):
        with AgentClient() as client:
            for number in range(first, first + 15):
                pairs, body = rules.event(number)
                mine.append(body)
                client.call("logPrivEvent", event=pairs)
    threads = []
    for mine in bodies:
        threads.append(threading.Thread(target=send, args=(mine, road.number + 1)))
        road.number += 15
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    mix.counts["events"] += sum(map(len, bodies)) + 1
    said, arrived = road.settle_burst()
    for mine in bodies:
        expect_equal([body for body in arrived if body in mine], [body for body in mine if body in arrived],
                           "the order of one sender's events")
    expect_equal(len(set(arrived)), len(arrived), "events that came once")
    expect(set(arrived) <= {body for mine in bodies for body in mine}, f"something else came: {arrived}")
    expect_equal(len(arrived), said.count(rules.ARRIVED), "events that the log tells of and that arrived")
    expect(arrived, "nothing of a burst arrived")
    road.rules.losses["came in while others were sent"] += sum(map(len, bodies)) - len(arrived)


def faulty_platform(mix):
    """Replies that are wrong, late, cut or refused, for whoever meets them."""
    with mix.weather.storm():
        for _ in range(mix.random.randint(2, 4)):
            mix.note_fault()
            endpoint = mix.random.choice(("*", "LogPrivEvent", "AdvanceAuthentication", "sso", "startimpersonate",
                                          "mfalogin", "startchallenge", "SiteCheck"))
            mix.road.platform.fault(endpoint, count=mix.random.randint(1, 3), **mix.random.choice(SERVER_FAULTS))
            for _ in range(3):
                mix.event()
                time.sleep(0.05)
        mix.recover()


def end_sessions(mix):
    with mix.weather.storm():
        for _ in range(3):
            mix.note_fault()
            mix.road.platform.control("expire", what=mix.random.choice(("machine", "user", "all")))
            mix.event()
            mix.event()
            time.sleep(0.1)
        mix.recover()


def break_peer(mix):
    """A peer refuses or falls silent for a moment."""
    peer = mix.random.choice(("platform", "squid-negotiate", "dc", "gc", "ldap", "kdc", "dns", *CONNECTORS, *SQUIDS))
    # The controller as a whole takes seconds to start.
    how = "hang" if peer == "dc" else mix.random.choice(("stop", "hang"))
    mix.kinds[f"{how} {peer}"] += 1
    mix.note_fault()
    with mix.weather.storm():
        ctl(how, peer)
        try:
            if how == "stop":
                mix.event()
            # Not waited for: a silent peer may take its time.
            mix.counts["events"] += 1
            mix.road.hand_over()
            time.sleep(mix.random.uniform(0.2, 0.8))
        finally:
            ctl("start", peer)
        mix.road.settle()
        mix.recover()


def restart_peer(mix):
    mix.note_fault()
    with mix.weather.storm():
        ctl("restart", mix.random.choice(("squid-negotiate", *SQUIDS)))
        mix.event()
        mix.recover()


def new_keys(mix):
    """A new machine password, or a ticket that has just ended, while logins go on."""
    mix.note_fault()
    with mix.weather.storm():
        with mix.alone():  # so that nobody renews it
            ctl(mix.random.choice(("rotate-machine-password", "expire-machine-ticket")))
            steps.store_again(mix.road)
        mix.road.platform.control("expire", what="all")
        mix.event()
        mix.recover()


def reload_again_and_again(mix):
    """The settings are read anew, and the connectors searched, while logins and events go on."""
    mix.note_fault()
    for _ in range(4):
        mix.road.reload()
        mix.event()


def walk_away(mix):
    """Clients that break off in the middle of a login; somebody else ends those."""
    mix.note_fault()
    begun = []
    for _ in range(3):
        with AgentClient() as client:
            begun.append(client.call("login", user="kim", uuid="", profile="login", payload=[])["login"])
    for number in begun:
        mix.road.ask("endLogin", login=number)


def alone(step):
    def work(mix):
        mix.note_fault()
        with mix.alone(), mix.weather.storm():
            step(mix.road)
            mix.recover()
    return work


def another_road(mix):
    """The settings lead elsewhere for a while."""
    mix.note_fault()
    with mix.alone(), mix.weather.storm():
        steps.go_through_connectors(mix.road)
    quiet_events(mix)
    time.sleep(0.5)
    with mix.alone(), mix.weather.storm():
        steps.kill_connector_in_the_way(mix.road)
        steps.go_as_machine(mix.road)
    quiet_events(mix)
    with mix.alone(), mix.weather.storm():
        steps.go_as_user(mix.road)
        mix.recover()


BESIDE = [("quiet events", quiet_events), ("burst", burst), ("faulty platform", faulty_platform),
          ("sessions end", end_sessions), ("peer breaks", break_peer), ("peer restarts", restart_peer),
          ("new keys", new_keys), ("reload", reload_again_and_again), ("clients walk away", walk_away)]
ALONE = [("connector killed", alone(steps.kill_connector)), ("proxy restarted", alone(steps.restart_proxy)),
         ("platform down", alone(steps.platform_down)), ("platform refuses", alone(steps.platform_refuses)),
         ("session expires", alone(steps.session_expires)), ("password rotated", alone(steps.rotate_password)),
         ("reporting off", alone(steps.switch_reporting_off)), ("another road", another_road)]
# Each of these comes as often as the others; the ones that logins go on beside more often.
KINDS = BESIDE * 2 + ALONE
