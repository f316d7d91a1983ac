"""What the connectors of `--with=connectors` publish: one computer each, an object `proxy` with keywords below it.

Those of `names.CONNECTORS` are good and run. The others are good in an odd way, half good or bad, each in one way of its
own; nobody listens at their address.
"""
from dataclasses import dataclass

from ferrolab import names

URL = f"https://{names.PLATFORM}/"
NEAR_URL = URL.rstrip("/")
ODD_URL = f"https://odd.{names.DOMAIN}/"
OTHER_URL = f"https://other.{names.DOMAIN}/"
CROWD_URL = f"https://crowd.{names.DOMAIN}/"
TENANT = "LAB0001"
PARENT_DN = f"OU=Connectors,{names.BASE_DN}"
CROWD_DN = f"OU=Crowd,{names.BASE_DN}"
CROWD_SIZE = 2500

CLOUD_URL = "morvane.core.cloudurl"
PORT = "morvane.core.webproxy.port"
SCP = "morvane.mobile.proxyScp"
SITE = "morvane.mobile.proxySite"
TENANT_ID = "morvane.mobile.proxySysId"
URI = "morvane.mobile.proxyUri"
WEB_PROXY = "morvane.core.webproxy"
WEB_PROXY_ON = "morvane.core.webproxyenabled"
IWA_ON = "morvane.core.iwa.enabled"
IWA_HOST = "morvane.core.iwa.hostname"
IWA_TLS = "morvane.core.iwa.useHttps"
IWA_HTTP_PORT = "morvane.core.iwa.httpPort"
IWA_HTTPS_PORT = "morvane.core.iwa.httpsPort"
IWA = (IWA_ON, IWA_HOST, IWA_TLS, IWA_HTTP_PORT, IWA_HTTPS_PORT)


def good_keywords(host, site, url):
    """What a connector in order publishes, both services on."""
    return {CLOUD_URL: url, SCP: "true", SITE: site, TENANT_ID: TENANT, URI: f"https://{host}:443/",
            WEB_PROXY: f"{host}:{names.CONNECTOR_PORT}", PORT: str(names.CONNECTOR_PORT), WEB_PROXY_ON: "True",
            IWA_ON: "True", IWA_HOST: host, IWA_TLS: "True", IWA_HTTP_PORT: "80", IWA_HTTPS_PORT: "443"}


@dataclass(frozen=True)
class Record:
    """A connector as the directory shows it: a good one's keywords but those without, with these changes."""
    name: str
    site: str = names.SITE
    url: str = URL
    without: tuple = ()
    changes: tuple = ()
    dns_name: bool = True  # the computer has a dNSHostName

    @property
    def host(self):
        return f"{self.name}.{names.DOMAIN}"

    def keywords(self):
        """The values of the attribute, in order."""
        values = {**good_keywords(self.host, self.site, self.url), **dict(self.changes)}
        return [f"{name}:{value}" for name, value in values.items() if name not in self.without]


def odd(name, *without, **more):
    return Record(name, url=ODD_URL, without=without, **more)


SERVED = (
    Record("connector1"),
    Record("connector2"),
    Record("branch1", site=names.BRANCH_SITE),
)

UNSERVED = (
    # Of other platforms.
    Record("other", url=OTHER_URL),
    Record("near", url=NEAR_URL),
    # Of no use.
    Record("nourl", without=(CLOUD_URL,)),
    Record("notenant", without=(TENANT_ID,)),
    Record("noproxy", without=(WEB_PROXY, PORT)),
    Record("noscp", without=(SCP,)),
    Record("falsescp", changes=((SCP, "false"),)),
    Record("nothingon", without=(WEB_PROXY_ON, IWA_HOST), changes=((IWA_ON, "False"),)),
    Record("nokeywords", without=tuple(good_keywords("", "", ""))),
    Record("nohost", without=(WEB_PROXY, URI), dns_name=False),
    # Without the web proxy.
    odd("iwaonly", WEB_PROXY_ON),
    odd("proxyoff", changes=((WEB_PROXY_ON, "False"),)),
    # Without IWA.
    odd("webonly", *IWA),
    odd("noiwa", IWA_ON),
    odd("iwaoff", changes=((IWA_ON, "False"),)),
    odd("noiwahost", IWA_HOST),
    odd("noiwatls", IWA_TLS),
    odd("iwatlsoff", changes=((IWA_TLS, "False"),)),
    odd("noiwaport", IWA_HTTPS_PORT),
    # In order, but written in their own way.
    odd("upperscp", changes=((SCP, "TRUE"),)),
    odd("unknown", changes=(("morvane.core.shoesize", "43"),)),
    odd("sitecase", site=names.SITE.upper()),
    odd("composed", WEB_PROXY),
    odd("nodnsname", dns_name=False),
)
RECORDS = SERVED + UNSERVED


def crowd():
    """The crowd: good connectors in all sites, nobody behind them."""
    sites = (names.SITE, *names.FURTHER_SITES)
    return (Record(f"crowd{number:04}", url=CROWD_URL, site=sites[number % len(sites)])
            for number in range(1, CROWD_SIZE + 1))


def environment(features):
    """The variables that describe them."""
    if "connectors" not in features:
        return {}
    variables = {
        "FERRO_LAB_SECOND_DC": names.SECOND_DC,
        "FERRO_LAB_SITE_BRANCH": names.BRANCH_SITE,
        "FERRO_LAB_SITE_FAR": names.FAR_SITE,
        "FERRO_LAB_TENANT": TENANT,
        "FERRO_LAB_CONNECTORS_DN": PARENT_DN,
        "FERRO_LAB_CONNECTOR_COUNT": str(len(RECORDS)),
        "FERRO_LAB_ODD_URL": ODD_URL,
        "FERRO_LAB_OTHER_URL": OTHER_URL,
    }
    for connector in names.CONNECTORS:
        name = connector.name.upper()
        variables[f"FERRO_LAB_{name}"] = connector.host
        variables[f"FERRO_LAB_IWA_LOG_{name}"] = str(names.STATE / "apache" / f"{connector.name}.log")
    if "crowd" in features:
        variables |= {"FERRO_LAB_CROWD_URL": CROWD_URL, "FERRO_LAB_CROWD_COUNT": str(CROWD_SIZE)}
    return variables
