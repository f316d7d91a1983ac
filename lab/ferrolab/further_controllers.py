"""Controllers that DNS names beside the first: the second, which is the first at another address, and one that is dead.

Where they stand is the directory's database.
"""
from ferrolab import names

import ldb
from samba.dcerpc import dnsp
from samba.ndr import ndr_pack, ndr_unpack

ZONES = [f"CN=MicrosoftDNS,DC={partition}DnsZones,{names.BASE_DN}" for partition in ("Domain", "Forest")]
PRIORITY = {"before": 0, "": 10, "after": 20}
FIRST_ALONE = 0


def nodes(directory):
    """Every name that leads to the first controller, with the records of all."""
    for zone in ZONES:
        for node in directory.search(zone, ldb.SCOPE_SUBTREE, "(&(objectClass=dnsNode)(dnsRecord=*))", ["dnsRecord"]):
            records = directory.dns_extract(node["dnsRecord"])
            if any(leads_to(names.DC, record) for record in records):
                yield node.dn, records


def leads_to(host, record):
    return record.wType == dnsp.DNS_TYPE_SRV and record.data.nameTarget.lower() == host


def copy_for(host, record, priority):
    copy = ndr_unpack(dnsp.DnssrvRpcRecord, ndr_pack(record))
    copy.data.nameTarget = host
    copy.data.wPriority = priority
    return copy


def address_dn(host):
    return f"DC={host.partition('.')[0]},DC={names.DOMAIN},{ZONES[0]}"


def address_record(address):
    record = dnsp.DnssrvRpcRecord()
    record.wType, record.rank, record.dwTtlSeconds, record.data = dnsp.DNS_TYPE_A, dnsp.DNS_RANK_ZONE, 900, address
    return ndr_pack(record)


def forget(directory, host):
    if directory.search(ZONES[0], ldb.SCOPE_SUBTREE, f"(distinguishedName={address_dn(host)})", []):
        directory.delete(address_dn(host))


def add(directory, host, place):
    """Names the controller `before` or `after` the first, wherever that is named."""
    directory.transaction_start()
    forget(directory, host)
    directory.add({"dn": address_dn(host), "objectClass": "dnsNode",
                   "dnsRecord": address_record(names.FURTHER_CONTROLLERS[host])})
    for dn, records in list(nodes(directory)):
        kept = [record for record in records if not leads_to(host, record)]
        of_first = [record for record in kept if leads_to(names.DC, record)]
        for record in of_first:
            record.data.wPriority = PRIORITY[""]
        directory.dns_replace_by_dn(dn, kept + [copy_for(host, record, PRIORITY[place]) for record in of_first])
    directory.transaction_commit()


def remove(directory, host):
    directory.transaction_start()
    forget(directory, host)
    for dn, records in list(nodes(directory)):
        kept = [record for record in records if not leads_to(host, record)]
        for record in kept:
            if leads_to(names.DC, record) and not any(leads_to(other, r) for other in names.FURTHER_CONTROLLERS for r in kept):
                record.data.wPriority = FIRST_ALONE
        directory.dns_replace_by_dn(dn, kept)
    directory.transaction_commit()
