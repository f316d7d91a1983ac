"""The joined host: its name files, its Kerberos configuration, its account in the domain."""
from pathlib import Path

from ferrolab import names
from ferrolab.daemons import run

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


def replace(path, text):
    """Writes a file of /etc anew, whatever it was before: a link or somebody's mount."""
    path = Path(path)
    path.unlink(missing_ok=True)
    path.write_text(text)
    path.chmod(0o644)


def hosts(features):
    """One line per name, so that every name is canonical; peers are found with the directory down as well."""
    rows = [("127.0.0.1", "localhost"), (names.DC_ADDRESS, f"{names.DC} dc1"), (names.HOST_ADDRESS, f"{names.HOST} host1")]
    rows += [(names.PROXY_ADDRESS, proxy.host) for proxy in names.proxies(features)]
    rows += [(names.CONNECTOR_ADDRESS, names.CONNECTOR), (names.PLATFORM_ADDRESS, names.PLATFORM)]
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
