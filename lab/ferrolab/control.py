"""The lab as a whole: its daemons, and how the first process brings it up."""
from concurrent.futures import ThreadPoolExecutor

from ferrolab import directory, host, mit, names, namespace, platform, squid, tls, web
from ferrolab.daemons import LabError

FEATURES_FILE = names.STATE / "with"


def registry(features):
    """Every daemon of the lab by name."""
    daemons = [directory.controller(), web.daemon(features), *(squid.daemon(proxy) for proxy in names.proxies(features))]
    if "mit" in features:
        daemons.append(mit.daemon())
    if "platform" in features:
        daemons.append(platform.daemon())
    return {daemon.name: daemon for daemon in daemons}


def bring_up(features):
    """Makes the private host, the domain and the peers, and joins the host. Raises LabError."""
    namespace.prepare(names.HOST)
    FEATURES_FILE.write_text(",".join(features))
    host.configure(features)
    daemons = registry(features)
    with ThreadPoolExecutor() as pool:
        beside = [pool.submit(tls.make, features), pool.submit(squid.write_passwords)]
        if "mit" in features:
            beside.append(pool.submit(mit.create))
        directory.provision(features)
        for work in beside:
            work.result()
        web.prepare(features)
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
