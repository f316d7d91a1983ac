"""Names, addresses, ports and accounts of the lab: the one place that knows them."""
from dataclasses import dataclass
from pathlib import Path

DOMAIN = "corp.ferro.test"
REALM = DOMAIN.upper()
NETBIOS = "CORP"
SITE = "LabSite"
BRANCH_SITE = "BranchSite"
FAR_SITE = "FarSite"
BASE_DN = ",".join("DC=" + label for label in DOMAIN.split("."))

MIT_DOMAIN = "mit.ferro.test"
MIT_REALM = MIT_DOMAIN.upper()

DC = f"dc1.{DOMAIN}"
SECOND_DC = f"dc2.{DOMAIN}"
DEAD_DC = f"dc9.{DOMAIN}"
HOST = f"host1.{DOMAIN}"
CONNECTOR = f"connector1.{DOMAIN}"
PLATFORM = f"platform.{DOMAIN}"
PLATFORM_POD = f"pod1.{DOMAIN}"  # with `platform`
MIT_KDC = f"kdc.{MIT_DOMAIN}"
COMPUTER = "HOST1"

DC_ADDRESS = "127.0.0.2"
HOST_ADDRESS = "127.0.0.3"
PROXY_ADDRESS = "127.0.0.4"
CONNECTOR_ADDRESS = "127.0.0.5"
PLATFORM_ADDRESS = "127.0.0.6"
MIT_KDC_ADDRESS = "127.0.0.7"
CONNECTOR2_ADDRESS = "127.0.0.8"
DEAD_DC_ADDRESS = "127.0.0.9"  # nobody listens there
SILENT_ADDRESS = "127.0.0.10"  # nor there
SECOND_DC_ADDRESS = "127.0.0.11"  # with `connectors`
BRANCH1_ADDRESS = "127.0.1.5"
ADDRESSES = (DC_ADDRESS, HOST_ADDRESS, PROXY_ADDRESS, CONNECTOR_ADDRESS, PLATFORM_ADDRESS, MIT_KDC_ADDRESS)

FURTHER_CONTROLLERS = {SECOND_DC: SECOND_DC_ADDRESS, DEAD_DC: DEAD_DC_ADDRESS}

# The subnets of the sites; this host's is there in every lab, the others with `connectors`.
HOST_SUBNET = "127.0.0.0/24"
FURTHER_SITES = {BRANCH_SITE: "127.0.1.0/24", FAR_SITE: "127.0.2.0/24"}

# The certificate on each port of the platform's address. With `platform` the first one is the simulator's.
PLATFORM_PORTS = {"good": 443, "foreign": 8443, "expired": 8444, "wrongname": 8445}
PLATFORM_CONTROL_PORT = 8470  # with `platform`

STATE = Path("/run/ferrolab")
CA_FILE = STATE / "tls" / "ca.crt"
CA_FOLDER = STATE / "tls" / "trusted"
SYSTEM_BUNDLE = Path("/etc/ssl/certs/ca-certificates.crt")
MACHINE_CACHE = Path("/var/morvand/machine.ccache")  # the product's
HOST_KEYTAB = Path("/etc/krb5.keytab")
FEATURES = ("mit", "trust", "connectors", "crowd", "platform")

ADMIN = "Administrator"
ADMIN_PASSWORD = "Lab-Adm1n-Pass"


@dataclass(frozen=True)
class Account:
    """A user of the domain; `state` is one of enabled, disabled, expired (account), stale (password)."""
    name: str
    password: str
    state: str = "enabled"


USERS = (
    Account("alice", "Wonder-Land7"),
    Account("bob", "Build-It-8"),
    Account("odd", "%41:\"'%%ü€:x"),
    Account("disabled", "Locked-Out9", "disabled"),
    Account("expired", "Long-Gone10", "expired"),
    Account("stale", "Old-Secret11", "stale"),
)
MIT_USER = Account("carol", "Second-Realm12")


@dataclass(frozen=True)
class Proxy:
    """A Squid: its schemes in the order in which it offers them, and the realm of its Kerberos key."""
    name: str
    port: int
    schemes: tuple
    domain: str = DOMAIN
    address: str = PROXY_ADDRESS

    @property
    def host(self):
        return f"{self.name}.{self.domain}"

    @property
    def folder(self):
        return STATE / f"squid-{self.name}"

    @property
    def access_log(self):
        return self.folder / "access.log"

    @property
    def keytab(self):
        return STATE / "keytabs" / f"{self.name}.keytab"


# The first one is what a look-up of 127.0.0.4 gives.
PROXIES = (
    Proxy("negotiate", 3131, ("negotiate",)),
    Proxy("basic", 3128, ("basic",)),
    Proxy("digest", 3129, ("digest",)),
    Proxy("ntlm", 3130, ("ntlm",)),
    Proxy("negbasic", 3132, ("negotiate", "basic")),
    Proxy("open", 3133, ()),
)
MIT_PROXY = Proxy("mitneg", 3134, ("negotiate",), MIT_DOMAIN)

# The web proxies of the connectors that work; the first one's other service is there in every lab.
CONNECTOR_PORT = 8080
CONNECTORS = (
    Proxy("connector1", CONNECTOR_PORT, (), address=CONNECTOR_ADDRESS),
    Proxy("connector2", CONNECTOR_PORT, (), address=CONNECTOR2_ADDRESS),
    Proxy("branch1", CONNECTOR_PORT, (), address=BRANCH1_ADDRESS),
)


def proxies(features):
    return PROXIES + ((MIT_PROXY,) if "mit" in features else ()) + (CONNECTORS if "connectors" in features else ())


def controller_addresses(features):
    return (DC_ADDRESS, SECOND_DC_ADDRESS) if "connectors" in features else (DC_ADDRESS,)


def iwa_connectors(features):
    """The connectors whose service with Negotiate runs."""
    return CONNECTORS if "connectors" in features else CONNECTORS[:1]


def services(features):
    """Accounts that hold service principal names, and the keytabs that are exported for them."""
    return {
        "svc-proxy": {f"HTTP/{p.host}": p.keytab for p in PROXIES if "negotiate" in p.schemes},
        "svc-connector": {f"HTTP/{c.host}": c.keytab for c in iwa_connectors(features)},
    }


def environment(features, tool):
    """The variables that describe the lab to the command that runs in it."""
    variables = {
        "FERRO_LAB": str(STATE),
        "FERRO_LAB_TOOL": str(tool),
        "FERRO_LAB_WITH": ",".join(features),
        "FERRO_LAB_DOMAIN": DOMAIN,
        "FERRO_LAB_REALM": REALM,
        "FERRO_LAB_SITE": SITE,
        "FERRO_LAB_BASE_DN": BASE_DN,
        "FERRO_LAB_DC": DC,
        "FERRO_LAB_DEAD_DC": DEAD_DC,
        "FERRO_LAB_HOST": HOST,
        "FERRO_LAB_MACHINE": f"{COMPUTER}$",
        "FERRO_LAB_ADMIN": ADMIN,
        "FERRO_LAB_ADMIN_PASSWORD": ADMIN_PASSWORD,
        "FERRO_LAB_CA": str(CA_FILE),
        "FERRO_LAB_CA_FOLDER": str(CA_FOLDER),
        "FERRO_LAB_CONNECTOR": CONNECTOR,
        "FERRO_LAB_CONNECTOR_URL": f"https://{CONNECTOR}/",
        "FERRO_LAB_CONNECTOR_HTTP_URL": f"http://{CONNECTOR}/",
        "FERRO_LAB_CONNECTOR_SPN": f"HTTP/{CONNECTOR}@{REALM}",
        "FERRO_LAB_CONNECTOR_LOG": str(STATE / "apache" / "connector1.log"),
        "FERRO_LAB_PLATFORM": PLATFORM,
        "FERRO_LAB_PLATFORM_HTTP_URL": f"http://{PLATFORM}/",
        "FERRO_LAB_PLATFORM_LOG": str(STATE / "apache" / "platform.log"),
    }
    for kind, port in PLATFORM_PORTS.items():
        suffix = "" if kind == "good" else "_" + kind.upper()
        variables[f"FERRO_LAB_PLATFORM{suffix}_URL"] = f"https://{PLATFORM}{'' if port == 443 else f':{port}'}/"
    if "platform" in features:
        variables["FERRO_LAB_PLATFORM_POD"] = PLATFORM_POD
        variables["FERRO_LAB_PLATFORM_CONTROL"] = f"http://{PLATFORM_ADDRESS}:{PLATFORM_CONTROL_PORT}/control"
    for account in USERS + ((MIT_USER,) if "mit" in features else ()):
        variables[f"FERRO_LAB_PASSWORD_{account.name.upper()}"] = account.password
    for proxy in proxies(features):
        variables[f"FERRO_LAB_PROXY_{proxy.name.upper()}"] = f"{proxy.host}:{proxy.port}"
        variables[f"FERRO_LAB_LOG_{proxy.name.upper()}"] = str(proxy.access_log)
    if "mit" in features:
        variables["FERRO_LAB_MIT_REALM"] = MIT_REALM
        variables["FERRO_LAB_MIT_DOMAIN"] = MIT_DOMAIN
    return variables
