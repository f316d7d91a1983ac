"""The lab as a whole: brought up by the first process, changed by `lab ctl` from inside."""
from concurrent.futures import ThreadPoolExecutor

from ferrolab import directory, host, mit, names, namespace, squid, tls, web
from ferrolab.daemons import LabError

FEATURES_FILE = names.STATE / "with"


def registry(features):
    """Every daemon of the lab by name."""
    daemons = [directory.controller(), web.daemon(), *(squid.daemon(proxy) for proxy in names.proxies(features))]
    if "mit" in features:
        daemons.append(mit.daemon())
    return {daemon.name: daemon for daemon in daemons}


def bring_up(features):
    """Makes the private host, the domain and the peers, and joins the host. Raises LabError."""
    namespace.prepare(names.HOST)
    FEATURES_FILE.write_text(",".join(features))
    host.configure(features)
    daemons = registry(features)
    with ThreadPoolExecutor() as pool:
        beside = [pool.submit(tls.make), pool.submit(squid.write_passwords)]
        if "mit" in features:
            beside.append(pool.submit(mit.create))
        directory.provision()
        for work in beside:
            work.result()
        web.prepare()
        for proxy in names.proxies(features):
            squid.prepare(proxy)
        peers = [pool.submit(daemon.start) for name, daemon in daemons.items() if name != "dc"]
        daemons["dc"].start()
        directory.admit_ntlm_helper()
        host.join()
        for peer in peers:
            peer.result()
    if "trust" in features:
        tls.trust()


def running_lab():
    try:
        return [feature for feature in FEATURES_FILE.read_text().split(",") if feature]
    except OSError:
        raise LabError("this works inside a lab only: lab run -- CMD") from None


def ctl(arguments):
    """One command of `lab ctl`; what it may print is for people."""
    daemons = registry(running_lab())
    match arguments:
        case ["stop" | "start" | "restart" as verb, *chosen] if chosen:
            for name in chosen:
                if name not in daemons:
                    raise LabError(f"there is no daemon '{name}'; there are: {' '.join(daemons)}")
            for name in chosen:
                if verb != "start":
                    daemons[name].stop()
                if verb != "stop":
                    daemons[name].start()
                    if name == "dc":
                        directory.admit_ntlm_helper()
        case ["status"]:
            for name, daemon in daemons.items():
                print(f"{name}: {'running' if daemon.running() else 'stopped'}")
        case ["rotate-machine-password"]:
            host.rotate_machine_password()
        case ["set-enctypes", account, bits] if bits.isdigit():
            directory.accounts("set-enctypes", account, bits)
        case ["trust"]:
            tls.trust()
        case _:
            raise LabError("usage: lab ctl stop|start|restart DAEMON... | status | rotate-machine-password |"
                           " set-enctypes ACCOUNT BITS | trust")
