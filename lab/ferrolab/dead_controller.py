"""A domain controller that DNS knows and that is not there, in the directory's database."""
from ferrolab import names

import ldb
from samba.dcerpc import dnsp
from samba.ndr import ndr_pack, ndr_unpack

ZONES = [f"CN=MicrosoftDNS,DC={partition}DnsZones,{names.BASE_DN}" for partition in ("Domain", "Forest")]
NODE = f"DC={names.DEAD_DC.partition('.')[0]},DC={names.DOMAIN},{ZONES[0]}"
FIRST, LAST = 0, 10  # priorities


def services(directory):
    """The names that lead to the controller, each with its records but those of the dead one."""
    for zone in ZONES:
        for node in directory.search(zone, ldb.SCOPE_SUBTREE, "(objectClass=dnsNode)", ["dnsRecord"]):
            if "dnsRecord" not in node:
                continue
            records = directory.dns_extract(node["dnsRecord"])
            living = [r for r in records if r.wType == dnsp.DNS_TYPE_SRV and r.data.nameTarget.lower() == names.DC]
            if living:
                yield node.dn, living


def renamed(record, priority):
    dead = ndr_unpack(dnsp.DnssrvRpcRecord, ndr_pack(record))
    dead.data.nameTarget = names.DEAD_DC
    dead.data.wPriority = priority
    return dead


def write(directory, records_of):
    directory.transaction_start()
    for dn, living in list(services(directory)):
        directory.dns_replace_by_dn(dn, records_of(living))
    directory.transaction_commit()


def add(directory, place):
    """Names the dead controller `before` or `after` the living one, wherever that is named."""
    def records_of(living):
        dead = [renamed(record, FIRST if place == "before" else LAST) for record in living]
        for record in living:
            record.data.wPriority = LAST if place == "before" else FIRST
        return living + dead

    remove(directory)
    record = dnsp.DnssrvRpcRecord()
    record.wType, record.rank, record.dwTtlSeconds, record.data = dnsp.DNS_TYPE_A, dnsp.DNS_RANK_ZONE, 900, names.DEAD_DC_ADDRESS
    directory.add({"dn": NODE, "objectClass": "dnsNode", "dnsRecord": ndr_pack(record)})
    write(directory, records_of)


def remove(directory):
    def records_of(living):
        for record in living:
            record.data.wPriority = FIRST
        return living

    if directory.search(ZONES[0], ldb.SCOPE_SUBTREE, f"(distinguishedName={NODE})", []):
        directory.delete(NODE)
    write(directory, records_of)
