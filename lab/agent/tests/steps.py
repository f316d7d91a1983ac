"""The steps of the long road, each with the state that holds after it. The soak takes the same ones at random. A step
takes the road, and leaves every peer up and the session in force."""
import os
import re
import subprocess

import road_events as rules
from road import StepFailed, expect, expect_equal, texts
from road_host import CONNECTORS, AgentError, Log, ctl, label, password, section, value, var
from road_logins import DONE

PROXY_USER = "alice"
SIGN_IN = ["GET iwa/SiteCheck", "GET security/sso"]
PROOF = [*SIGN_IN, "POST security/startimpersonate", "POST qrsintegration/mfalogin", "POST security/startchallenge",
         "POST security/AdvanceAuthentication", "POST security/AdvanceAuthentication", "POST qrsintegration/mfalogin"]
# What the platform finds odd about a visit that is none of a client's.
VISIT = [f"GET : no header {name}" for name in ("Content-Type", "X-MORVANE-NATIVE-CLIENT", "X-MRV-SRC", "X-TZOFF")]
VISIT.append("GET : there is no such endpoint")
LOCATOR = "base.cloudconnector.locator"


def access_log(road, peer):
    return Log("LOG_" + peer.upper())


def knows_all_connectors(road):
    """As after a search with all peers up."""
    report = road.report()
    return (sorted(map(label, section(report, "in current site"))) == ["connector1", "connector2"]
            and not section(report, "discarded"))


def expect_discreet_log(road, *secrets):
    """The agent's log holds none of them."""
    text = road.log.path.read_text(encoding="utf-8", errors="replace")
    expect_equal([secret for secret in secrets if secret in text], [], "secrets in the agent's log")


def secrets_of(requests):
    """Sessions and one-time codes of what the platform was asked."""
    codes = [one["query"].partition("OneTimePass=")[2] for one in requests]
    return {secret for secret in [one["cookie"] for one in requests] + codes if secret}


def expect_idle_pool(road):
    """Nobody holds a connection."""
    expect_equal(value(road.pool(), "Current occupied count"), "0", "occupied connections")


def store_credential(road):
    """ferrogate --set stores the proxy's user and the three settings, and --list shows them."""
    expect_equal(road.ferrogate("--delete")[0], 0, "ferrogate --delete without a credential, or with one")
    expect_equal(road.ferrogate("--list")[0], 158, "ferrogate --list without a credential")
    road.set("--username", PROXY_USER, "--password", password(PROXY_USER), "--server", var("PROXY_NEGOTIATE"),
             "--authreq", "true", "--authtype", "negotiate")
    status, said, _ = road.ferrogate("--list")
    expect_equal(status, 0, "ferrogate --list")
    expect(said.startswith(f"Proxy Server: {var('PROXY_NEGOTIATE')}\nProxy Auth Required: true\n"
                           f"Proxy Auth Type: negotiate\nProxy Account: {PROXY_USER}\n"
                           f"Credential Encrypted with Key Version: "), said)
    expect_equal(os.stat("/var/morvand/httpproxy.cred").st_mode & 0o7777, 0o600, "the credential file's mode")


def start_agent(road):
    """The agent is up, connected, and knows the connectors of both sites."""
    expect_equal(road_status(road), "down", "the agent's status before its start")
    road.start_agent()
    expect_equal(road_status(road), "connected", "the agent's status")
    report = road.report()
    expect(label(road.current()) in CONNECTORS[:2], report)
    near, far = section(report, "in current site"), section(report, "in other site")
    expect_equal(sorted(map(label, near)), ["connector1", "connector2"], "connectors in this site")
    expect_equal(list(map(label, far)), ["branch1"], "connectors in other sites")
    expect_equal(section(report, "discarded"), [], "discarded connectors")
    expect_equal(value(report, "Proxy server"), var("PROXY_NEGOTIATE"), "the report's proxy")
    expect_equal(value(report, "Proxy authentication method"), "negotiate", "the report's method")
    expect_idle_pool(road)


def road_status(road):
    return subprocess.run([road.status_program], stdout=subprocess.PIPE, text=True, check=True).stdout.strip()


def test_connection(road, user=f"{PROXY_USER}@"):
    """ferrogate --test passes through the proxy as the stored user."""
    log = access_log(road, "negotiate")
    status, said, errors = road.ferrogate("--test", "--opx", var("PLATFORM_URL"))
    expect_equal((status, said), (0, "Connection to OPX is successful.\n\n"), f"ferrogate --test: {errors}")
    expect(log.has(f"user={user}", "status=200 method=CONNECT"), f"the proxy's log: {log.lines()}")
    expect_equal(road.platform.take_surprises(), VISIT, "the platform's surprises")


def second_factor(road):
    """bob proves himself by a message that is answered elsewhere; the machine signed in at the connector in use."""
    iwa, proxy = Log("IWA_LOG_" + label(road.current()).upper()), access_log(road, "negotiate")
    expect_equal(road.login(), DONE, "the login's status")
    expect_equal(road.platform.calls(), PROOF, "the requests of the login")
    expect(iwa.has(f"user={var('MACHINE')}@", "status=200"), f"the connector's log: {iwa.lines()}")
    expect(not [line for line in proxy.lines() if "status=200" in line and f"user={PROXY_USER}@" not in line],
           f"the proxy's log: {proxy.lines()}")
    expect_idle_pool(road)
    secrets = secrets_of(road.platform.requests())
    expect_equal(len(secrets), 3, f"a code, a session of the machine and one of the user: {secrets}")
    expect_discreet_log(road, *secrets)


def first_event(road):
    """The first event after the start is dropped by the sign-in that it leads to."""
    road.expect_dropped_by_sign_in()
    expect_equal(road.platform.calls(), SIGN_IN, "the requests of the sign-in")


def thousand_events(road, number=1000):
    """Each arrives, in order and to the byte, over one connection."""
    bodies = []
    for _ in range(number):
        bodies.append(road.hand_over())
        road.wait()
    expect_equal(road.settle()[1], bodies, "what arrived")
    sent = road.platform.requests("qrsintegration/LogPrivEvent")
    expect_equal({one["connection"] for one in sent}, {sent[0]["connection"]}, "the connections of the events")
    road.expect_no_surprise()


def kill_connector(road):
    """The connector in use dies: the login that meets it fails, the next one is made at the next connector; a search
    finds the dead one again once it is back."""
    killed = road.current()
    ctl("stop", label(killed))
    try:
        road.log.news()
        failed = None
        try:
            expect(road.login() != DONE, "a login succeeded at a dead connector")
        except AgentError as refused:
            failed = str(refused)
        expect(failed and "curl" in failed, f"the login's failure: {failed}")
        report = road.report()
        taken = value(report, "Current used connector")
        expect(taken != killed, f"the dead connector stays in use:\n{report}")
        expect_equal(section(report, "discarded"), [killed], "discarded connectors")
        expect_equal(section(report, "in current site"), [taken], "connectors left in this site")
        news = road.log.news()
        road.rules.read(news)
        expect(f"Connector(host DC FQDN={taken}) in current site will be tried." in texts(news, LOCATOR),
               "the log does not tell of the next connector")
        iwa = Log("IWA_LOG_" + label(taken).upper())
        expect_equal(road.login(), DONE, "the next login")
        expect(iwa.has(f"user={var('MACHINE')}@", "status=200"), f"the next connector's log: {iwa.lines()}")
        expect_idle_pool(road)
        road.expect_event_arrives()
    finally:
        ctl("start", label(killed))
    road.reload()
    expect(knows_all_connectors(road), f"a search does not find the connector again:\n{road.report()}")


def restart_proxy(road):
    """The proxy comes back: the next event goes over a new tunnel, as the stored user, and none is lost."""
    road.expect_event_arrives()
    before = road.platform.requests("qrsintegration/LogPrivEvent")[-1]["connection"]
    ctl("restart", "squid-negotiate")
    road.expect_event_arrives()
    after = road.platform.requests("qrsintegration/LogPrivEvent")[-1]["connection"]
    expect(after != before, "the event's connection is the one from before the restart")
    expect_equal(road.login(), DONE, "a login through the proxy that came back")


def platform_down(road, number=20):
    """What cannot be transferred is kept, and goes out in order with the next event once the platform is back."""
    ctl("stop", "platform")
    try:
        bodies = [road.hand_over() for _ in range(number)]
        said, arrived = road.settle()
        expect_equal(arrived, [], "what arrived at a platform that is down")
        expect(len([text for text in said if text.startswith("Got CURL exception: ")]) >= number, f"failures: {said}")
        try:
            expect(road.login() != DONE, "a login succeeded without the platform")
        except AgentError:
            pass
        expect_idle_pool(road)
    finally:
        ctl("start", "platform")
    road.platform.take_events()
    bodies.append(road.hand_over())
    expect_equal(road.settle()[1], bodies, "what arrived once the platform was back")
    road.reload()
    expect_equal(road.login(), DONE, "a login at the platform that came back")


def platform_refuses(road):
    """What the platform refuses is given up, with what stands behind it; the next event signs in and is dropped."""
    ctl("stop", "platform")
    try:
        for _ in range(3):
            road.hand_over()
        road.settle()
        road.platform.fault("LogPrivEvent", status=503)
    finally:
        ctl("start", "platform")
    before = sum(road.rules.losses.values())
    said, arrived = road.event()
    expect_equal(arrived, [], "what arrived at a platform that refuses")
    expect(rules.RESULT + "503" in said and rules.GIVES_UP in said, f"the log: {said}")
    expect_equal(sum(road.rules.losses.values()) - before, 4, "events given up")
    road.expect_dropped_by_sign_in()
    road.expect_event_arrives()


def session_expires(road):
    """Events that meet the end of the session are not sent again. Without a code left to sign in with, they wait for
    the next event, whose sign-in drops them all."""
    road.platform.control("expire", what="machine")
    said, arrived = road.event()
    expect_equal(arrived, [], "what arrived with a session that had ended")
    expect(rules.RESULT + "401" in said and rules.EXPIRED in said, f"the log: {said}")
    road.expect_dropped_by_sign_in(2)
    road.expect_event_arrives()


def key_version(text):
    return int(re.search(r"Key Version: (\d+)", text)[1])


def store_again(road):
    """Once more with the newest key: a keytab keeps the one before, but not for ever."""
    road.set("--username", PROXY_USER, "--password", password(PROXY_USER))


def rotate_password(road):
    """The machine's password and key change: the next sign-in takes a ticket with the new key, the stored credential
    opens with the old one until it is stored again, and nobody notices."""
    before = key_version(road.ferrogate("--list")[1])
    ctl("rotate-machine-password")
    os.unlink("/var/morvand/machine.ccache")
    road.platform.control("expire", what="all")
    sign_in_anew(road)
    road.expect_event_arrives()
    expect_equal(road.login(), DONE, "a login with the new key")
    cache = subprocess.run(["klist", "-s", "-c", "/var/morvand/machine.ccache"], check=False)
    expect_equal(cache.returncode, 0, "the machine's cache holds a ticket")
    expect_equal(key_version(road.ferrogate("--list")[1]), before, "the key version of the stored credential")
    test_connection(road)
    store_again(road)
    expect(key_version(road.ferrogate("--list")[1]) > before, "the credential is not stored with the new key")
    test_connection(road)


def go_through_connectors(road):
    """Without a proxy in the settings requests go through the connector in use."""
    road.set("--server", "", "--authreq", "")
    road.reload()
    sign_in_anew(road)
    connector = label(road.current())
    report = road.report()
    expect_equal(value(report, "Proxy server"), var("PROXY_" + connector.upper()), "the report's proxy")
    expect_equal(value(report, "Proxy authentication method"), "None", "the report's method")
    proxy, other = access_log(road, connector), access_log(road, "negotiate")
    expect_equal(road.login(), DONE, "a login through the connector")
    road.expect_event_arrives()
    expect_equal(other.lines(), [], "the log of the proxy that is no longer set")
    # A tunnel's line comes when it closes: a search closes those that are idle.
    road.reload()
    expect(proxy.has("client=127.0.0.3", "method=CONNECT"), f"the connector's log: {proxy.lines()}")


def sign_in_anew(road):
    """The processor takes up changed settings when it signs in."""
    road.platform.control("expire", what="machine")
    for _ in range(2):
        road.event()


def kill_connector_in_the_way(road):
    """The connector that everything goes through dies: events are kept, a login takes the next connector, and after a
    sign-in, which drops what waits, events go through that."""
    sign_in_anew(road)
    road.expect_event_arrives()
    killed = road.current()
    ctl("stop", label(killed))
    try:
        road.event()
        expect_equal(len(road.rules.waiting), 1, "events kept")
        try:
            expect(road.login() != DONE, "a login succeeded at a dead connector")
        except AgentError:
            pass
        taken = road.current()
        expect(taken != killed, "the dead connector stays in use")
        expect_equal(road.login(), DONE, "a login through the next connector")
        expect(value(road.report(), "Proxy server").startswith(taken), "the report's proxy is not the next connector")
    finally:
        ctl("start", label(killed))
    road.event()
    road.reload()
    sign_in_anew(road)
    road.expect_event_arrives()


def go_as_machine(road):
    """With the machine's credential the proxy lets in the machine account, and no password is stored."""
    road.set("--machine", "--server", var("PROXY_NEGOTIATE"), "--authreq", "true")
    expect(road.ferrogate("--list")[1].endswith("Proxy Account: Machine Account\n"), "ferrogate --list")
    road.reload()
    sign_in_anew(road)
    expect_equal(road.login(), DONE, "a login as the machine at the proxy")
    road.expect_event_arrives()
    test_connection(road, var("MACHINE"))


def go_as_user(road):
    """Back to the proxy's user."""
    road.set("--username", PROXY_USER, "--password", password(PROXY_USER), "--server", var("PROXY_NEGOTIATE"),
             "--authreq", "true", "--authtype", "negotiate")
    road.reload()
    sign_in_anew(road)
    expect_equal(road.login(), DONE, "a login as the proxy's user")
    road.expect_event_arrives()


def switch_reporting_off(road):
    """An event is answered with the error and not taken, until reporting is on again."""
    road.configure(ferrod__cloud__log__privevent="false")
    road.reload()
    try:
        road.ask("logPrivEvent", event=[["Number", "none"]])
        raise StepFailed("an event was taken while reporting is off")
    except AgentError as refused:
        expect("OPX is disabled in config file." in str(refused), f"the refusal: {refused}")
    finally:
        road.configure(ferrod__cloud__log__privevent="true")
        road.reload()
    road.ask("settle")
    road.rules.read(road.log.news())
    road.expect_event_arrives()


def end_agent(road):
    """SIGTERM: both reports, nothing left behind, status 0."""
    road.client.close()
    status = road.agent.stop()
    said = road.agent.output.partition("ready\n")[2]
    first = "==============Morvane Identity Platform Instances/Morvane Connectors info============\n"
    expect(said.startswith(first), said)
    expect("==============Morvane MFA Service Connections Info============\n" in said, said)
    expect("\nleft behind: threads 0, descriptors 0\n" in said, said)
    expect_equal(status, 0, f"the agent's exit status: {said}")
    expect_equal(road_status(road), "down", "the agent's status after its end")
    expect_discreet_log(road, password(PROXY_USER))


# What remains on a host whose agent has ended, and what for.
REMAINS = {
    "/etc/morvand/morvand.conf": "the settings",
    "/etc/morvand/.morvand.conf.lock": "keeps two writers of the settings apart",
    "/run/ferrod.lock": "keeps two agents apart, and tells of one that starts",
    "/var/morvand/daemon.lock": "keeps two servers of the socket apart",
    "/var/morvand/httpproxy.cred": "the proxy's credential",
    "/var/morvand/kset/cloud.connectors": "the connectors, for the next process",
    "/var/morvand/kset/host.sid": "which object of the directory is this host's",
    "/var/morvand/machine.ccache": "the machine's tickets, for the next process",
    "/var/morvand/machine.ccache.lock": "keeps two that renew them apart",
}


def expect_nothing_left(before, after):
    expect_equal(sorted(after - before), sorted(REMAINS.keys() - before), "files that were not there before")
    expect_equal(sorted(before - after), [], "files that are gone")
