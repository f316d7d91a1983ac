"""The connectors in the directory's database."""
import uuid

from ferrolab import connectors, names

import ldb
import samba
import samba.dsdb

CROWD_RIDS = 0x100000  # far behind those that the controller gives out
WORKSTATION = "4096"


def computer_dn(name, parent=connectors.PARENT_DN):
    return f"CN={name},{parent}"


def add(directory, record, parent=connectors.PARENT_DN):
    computer = {"dn": computer_dn(record.name, parent), "objectClass": "computer", "userAccountControl": WORKSTATION,
                "sAMAccountName": f"{record.name.upper()}$"}
    if record.dns_name:
        computer["dNSHostName"] = record.host
    point = {"dn": "CN=proxy," + computer["dn"], "objectClass": "serviceConnectionPoint"}
    keywords = record.keywords()
    if keywords:
        point["keywords"] = keywords
    directory.add(computer)
    directory.add(point)


def add_all(directory):
    directory.add({"dn": connectors.PARENT_DN, "objectClass": "organizationalUnit"})
    for record in connectors.RECORDS:
        add(directory, record)


class Copies:
    """Writes copies of an object straight into the domain's partition, past all that makes an object from a request."""

    def __init__(self, partition, model):
        self.partition = partition
        self.model = partition.search(model, ldb.SCOPE_BASE)[0]

    def add(self, dn, **changes):
        copy = ldb.Message(ldb.Dn(self.partition, dn))
        values = {name: list(self.model[name]) for name in self.model if name not in ("dn", "distinguishedName")}
        for name, value in {**values, **changes, "objectGUID": uuid.uuid4().bytes}.items():
            copy[name] = ldb.MessageElement(value, 0, name)
        self.partition.add(copy)


def add_crowd(directory, partition_file):
    """Thousands of connectors in about a second: one is made in the usual way, the others are its copies."""
    first, *others = connectors.crowd()
    directory.add({"dn": connectors.CROWD_DN, "objectClass": "organizationalUnit"})
    add(directory, first, connectors.CROWD_DN)
    # In this mode a failure spoils the whole transaction, and the indices are written once.
    partition = samba.Ldb(f"tdb://{partition_file}", options=["batch_mode:1", "transaction_index_cache_size:100003"])
    samba.dsdb._dsdb_set_schema_from_ldb(partition, directory, False)
    model = computer_dn(first.name, connectors.CROWD_DN)
    computers, points = Copies(partition, model), Copies(partition, "CN=proxy," + model)
    domain_sid = bytes(computers.model["objectSid"][0])[:-4]
    partition.transaction_start()
    for rid, record in enumerate(others, CROWD_RIDS):
        dn = computer_dn(record.name, connectors.CROWD_DN)
        computers.add(dn, cn=record.name, name=record.name, sAMAccountName=f"{record.name.upper()}$",
                      dNSHostName=record.host, objectSid=domain_sid + rid.to_bytes(4, "little"))
        points.add("CN=proxy," + dn, keywords=record.keywords())
    partition.transaction_commit()


def existing(directory, name):
    """The DN of the computer of that name."""
    found = directory.search(directory.domain_dn(), ldb.SCOPE_SUBTREE,
                             f"(&(objectCategory=computer)(cn={ldb.binary_encode(name)}))", ["cn"])
    if len(found) != 1:
        raise SystemExit(f"there is no computer {name}")
    return found[0].dn


def rename_computer(directory, name, new_name):
    """Gives the computer another name and dNSHostName."""
    old = existing(directory, name)
    new = ldb.Dn(directory, f"CN={new_name}")
    new.add_base(old.parent())
    directory.transaction_start()
    directory.rename(old, new)
    message = ldb.Message(new)
    message["dNSHostName"] = ldb.MessageElement(f"{new_name}.{names.DOMAIN}", ldb.FLAG_MOD_REPLACE, "dNSHostName")
    directory.modify(message)
    directory.transaction_commit()


def set_keywords(directory, name, changes):
    """Changes of the form NAME=VALUE replace a keyword or add it; NAME takes it away. The others keep their order."""
    point = ldb.Dn(directory, f"CN=proxy,{existing(directory, name)}")
    found = directory.search(point, ldb.SCOPE_BASE, attrs=["keywords"])[0]
    keywords = dict(str(value).split(":", 1) for value in found.get("keywords", ()))
    for change in changes:
        keyword, given, value = change.partition("=")
        if given:
            keywords[keyword] = value
        else:
            keywords.pop(keyword, None)
    message = ldb.Message(point)
    message["keywords"] = ldb.MessageElement([f"{keyword}:{value}" for keyword, value in keywords.items()],
                                             ldb.FLAG_MOD_REPLACE, "keywords")
    directory.modify(message)
