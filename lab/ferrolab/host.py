"""The joined host: its name files, its Kerberos configuration, its account in the domain."""
import subprocess
from pathlib import Path

from ferrolab import connectors, names
from ferrolab.daemons import LabError, comes_true, run

KRB5_CONF = """[libdefaults]
\tdefault_realm = {realm}
\tdns_lookup_kdc = true
\tdns_lookup_realm = false
\trdns = false
\tforwardable = true
\tdefault_ccache_name = FILE:/var/tmp/krb5cc_%{{uid}}
"""

KRB5_CONF_MIT = """
[realms]
\t{realm} = {{
\t\tkdc = {kdc}
\t\tadmin_server = {kdc}
\t}}

[domain_realm]
\t.{domain} = {realm}
"""

TICKET_LIMIT = 60.0


def replace(path, text):
    """Writes a file of /etc anew, whatever it was before: a link or somebody's mount."""
    path = Path(path)
    path.unlink(missing_ok=True)
    path.write_text(text)
    path.chmod(0o644)


def hosts(features):
    """One line per name, so that every name is canonical; peers are found with the directory down as well."""
    rows = [("127.0.0.1", "localhost"), (names.DC_ADDRESS, f"{names.DC} dc1"), (names.HOST_ADDRESS, f"{names.HOST} host1")]
    rows += [(proxy.address, proxy.host) for proxy in names.proxies(features)]
    if "connectors" in features:
        rows.append((names.SECOND_DC_ADDRESS, f"{names.SECOND_DC} dc2"))
        rows += [(names.SILENT_ADDRESS, record.host) for record in connectors.UNSERVED]
    else:
        rows.append((names.CONNECTOR_ADDRESS, names.CONNECTOR))
    rows.append((names.PLATFORM_ADDRESS, names.PLATFORM))
    if "platform" in features:
        rows.append((names.PLATFORM_ADDRESS, names.PLATFORM_POD))
    if "mit" in features:
        rows.append((names.MIT_KDC_ADDRESS, names.MIT_KDC))
    return "".join(f"{address}\t{name}\n" for address, name in rows)


def configure(features):
    replace("/etc/hosts", hosts(features))
    replace("/etc/hostname", names.HOST + "\n")
    replace("/etc/resolv.conf", f"search {names.DOMAIN}\nnameserver {names.DC_ADDRESS}\noptions timeout:1 attempts:1\n")
    replace("/etc/nsswitch.conf", "passwd: files\ngroup: files\nshadow: files\nhosts: files dns\nservices: files\n")
    text = KRB5_CONF.format(realm=names.REALM)
    if "mit" in features:
        text += KRB5_CONF_MIT.format(realm=names.MIT_REALM, kdc=names.MIT_KDC, domain=names.MIT_DOMAIN)
    replace("/etc/krb5.conf", text)


def adcli(command, *arguments, text=""):
    return run(["adcli", command, f"--domain={names.DOMAIN}", f"--domain-controller={names.DC}",
                f"--host-keytab={names.HOST_KEYTAB}", f"--host-fqdn={names.HOST}",
                f"--computer-name={names.COMPUTER}", *arguments], f"adcli {command}", text)


def join():
    adcli("join", f"--login-user={names.ADMIN}", "--stdin-password", text=names.ADMIN_PASSWORD)


def rotate_machine_password():
    """A new password and key version in the directory and in the keytab, as the host's own upkeep would do it."""
    adcli("update", "--computer-password-lifetime=0")


def add_name(known, new):
    """The address of a known name has the new one as well."""
    rows = [line.split() for line in Path("/etc/hosts").read_text().splitlines()]
    address = next((row[0] for row in rows if known in row[1:]), names.SILENT_ADDRESS)
    with open("/etc/hosts", "a", encoding="ascii") as hosts_file:
        hosts_file.write(f"{address}\t{new}\n")


def expire_machine_ticket(seconds):
    """The product's cache of the machine's ticket gets one that ends in so many seconds, or that has just ended."""
    cache = f"FILE:{names.MACHINE_CACHE}"
    run(["kinit", "-k", "-t", names.HOST_KEYTAB, "-c", cache, "-l", f"{max(seconds, 1)}s", f"{names.COMPUTER}$"],
        "taking a short ticket")
    valid = ["klist", "-s", "-c", cache]
    if seconds == 0 and not comes_true(lambda: subprocess.run(valid, check=False).returncode != 0, TICKET_LIMIT):
        raise LabError("the machine's ticket does not end")
