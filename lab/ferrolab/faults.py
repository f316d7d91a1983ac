"""Faults of single services on the way to them: refused, or connected and then silent. The daemons do not notice."""
from dataclasses import dataclass

from ferrolab import names
from ferrolab.daemons import run

REFUSING, HANGING = "refusing", "hanging"


@dataclass(frozen=True)
class Service:
    """What is reached at an address by these ports; without ports, all of the address."""
    name: str
    address: str
    tcp: tuple = ()
    udp: tuple = ()

    def matches(self):
        """The packets to it, as conditions of the packet filter by protocol."""
        to = f"ip daddr {self.address}"
        if not self.tcp:
            return {"tcp": f"{to} meta l4proto tcp", "udp": f"{to} meta l4proto udp"}
        matches = {"tcp": f"{to} tcp dport {{{','.join(map(str, self.tcp))}}}"}
        if self.udp:
            matches["udp"] = f"{to} udp dport {{{','.join(map(str, self.udp))}}}"
        return matches

    def table(self, fault):
        return f"{fault}-{self.name}"

    def rules(self, fault):
        matches = self.matches()
        if fault == REFUSING:
            verdicts = {"tcp": "reject with tcp reset", "udp": "reject"}
        else:
            # A segment that ends what its sender had to say; without it nobody answers.
            verdicts = {"tcp": "tcp flags & psh == psh drop", "udp": "drop"}
        rules = "".join(f"{match} {verdicts[protocol]}\n" for protocol, match in matches.items())
        return (f"table ip {self.table(fault)} {{\nchain arriving {{\ntype filter hook input priority 0\n{rules}}}\n}}\n")


CONTROLLER = (
    Service("gc", names.DC_ADDRESS, (3268, 3269)),
    Service("ldap", names.DC_ADDRESS, (389, 636), (389,)),
    Service("kdc", names.DC_ADDRESS, (88, 464), (88, 464)),
    Service("dns", names.DC_ADDRESS, (53,), (53,)),
)


def services(features):
    """Everything that can hang, by name; what is no daemon can be stopped as well."""
    found = [*CONTROLLER, Service("dc", names.DC_ADDRESS)]
    if "connectors" in features:
        found.append(Service("dc2", names.SECOND_DC_ADDRESS))
        found += [Service(connector.name, connector.address) for connector in names.CONNECTORS]
    if "platform" in features:
        found.append(Service("platform", names.PLATFORM_ADDRESS, (names.PLATFORM_PORTS["good"],)))
    found += [Service(f"squid-{proxy.name}", proxy.address, (proxy.port,)) for proxy in names.proxies(features)]
    return {service.name: service for service in found}


def faults():
    """The names of the packet filter's tables, one for each fault."""
    said = run(["nft", "list", "tables"], "looking for faults")
    return {line.split()[-1] for line in said.splitlines()}


def fault_of(service, known):
    return next((fault for fault in (REFUSING, HANGING) if service.table(fault) in known), None)


def mend(service):
    fault = fault_of(service, faults())
    if fault:
        run(["nft", "delete", "table", "ip", service.table(fault)], f"mending {service.name}")


def break_connections(service):
    """The peers of the service's connections see them reset."""
    from_service = ["src", service.address]
    if service.tcp:
        from_service += ["(", *" or ".join(f"sport = :{port}" for port in service.tcp).split(), ")"]
    run(["ss", "-K", "-H", "-t", "state", "connected", *from_service], f"ending the connections of {service.name}")


def refuse(service):
    mend(service)
    run(["nft", "-f", "-"], f"stopping {service.name}", service.rules(REFUSING))
    break_connections(service)


def hang(service):
    mend(service)
    run(["nft", "-f", "-"], f"hanging {service.name}", service.rules(HANGING))
