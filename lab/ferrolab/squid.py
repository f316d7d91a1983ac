"""The proxies: one Squid per authentication scheme, each with a name and a port of its own."""
import hashlib
import shutil
import signal

from ferrolab import directory, names
from ferrolab.daemons import Daemon, listens, run

HELPERS = "/usr/lib/squid"
AUTH_REALM = "Lab proxy"
PASSWORDS = names.STATE / "passwords"

CONF = """http_port {address}:{port}
visible_hostname {host}
unique_hostname {host}
cache_effective_user proxy
pid_filename none
cache_log {folder}/cache.log
coredump_dir {folder}
logformat lab %ts.%03tu client=%>a:%>p user=%un status=%>Hs method=%rm url=%ru auth=%{{Proxy-Authorization}}>h
access_log stdio:{folder}/access.log lab
buffered_logs off
hosts_file /etc/hosts
dns_nameservers {dns}
cache deny all
cache_mem 8 MB
netdb_filename none
pinger_enable off
shutdown_lifetime 0 seconds
connect_timeout 5 seconds
max_filedescriptors 1024
{auth}{access}http_access deny all
"""

SCHEMES = {
    "basic": "program {helpers}/basic_ncsa_auth {passwords}/basic\nchildren 4 startup=1 idle=1\nrealm {auth_realm}\n"
             "credentialsttl 1 second",
    "digest": "program {helpers}/digest_file_auth -c {passwords}/digest\nchildren 4 startup=1 idle=1\nrealm {auth_realm}",
    "ntlm": "program /usr/bin/ntlm_auth --helper-protocol=squid-2.5-ntlmssp --configfile={smb_conf}\n"
            "children 8 startup=1 idle=1",
    "negotiate": "program {helpers}/negotiate_kerberos_auth -k {keytab} -s HTTP/{host}@{realm}\nchildren 8 startup=1 idle=1",
}


def auth_lines(proxy):
    lines = ""
    for scheme in proxy.schemes:
        text = SCHEMES[scheme].format(helpers=HELPERS, passwords=PASSWORDS, auth_realm=AUTH_REALM, keytab=proxy.keytab,
                                      smb_conf=directory.SMB_CONF, host=proxy.host, realm=proxy.domain.upper())
        lines += "".join(f"auth_param {scheme} {line}\n" for line in text.splitlines())
    return lines


def write_passwords():
    """The users' passwords in the forms of the Basic and Digest helpers."""
    PASSWORDS.mkdir(exist_ok=True)
    enabled = [user for user in names.USERS if user.state == "enabled"]
    hashes = run(["openssl", "passwd", "-6", "-stdin"], "hashing passwords",
                 "".join(user.password + "\n" for user in enabled)).split()
    basic = "".join(f"{user.name}:{value}\n" for user, value in zip(enabled, hashes))
    digest = ""
    for user in enabled:
        ha1 = hashlib.md5(f"{user.name}:{AUTH_REALM}:{user.password}".encode(), usedforsecurity=False).hexdigest()
        digest += f"{user.name}:{AUTH_REALM}:{ha1}\n"
    for name, text in (("basic", basic), ("digest", digest)):
        (PASSWORDS / name).write_text(text)


def prepare(proxy):
    proxy.folder.mkdir(exist_ok=True)
    shutil.chown(proxy.folder, "proxy", "proxy")
    if "negotiate" in proxy.schemes:
        shutil.chown(proxy.keytab, "proxy", "proxy")
    access = "acl known proxy_auth REQUIRED\nhttp_access allow known\n" if proxy.schemes else "http_access allow all\n"
    (proxy.folder / "squid.conf").write_text(CONF.format(
        address=proxy.address, port=proxy.port, host=proxy.host, folder=proxy.folder, dns=names.DC_ADDRESS,
        auth=auth_lines(proxy), access=access))
    proxy.access_log.touch()
    shutil.chown(proxy.access_log, "proxy", "proxy")


def daemon(proxy):
    # Asked politely it takes a second to end; its log has every line already.
    return Daemon(f"squid-{proxy.name}", ["squid", "-N", "-n", f"lab{proxy.name}", "-f", proxy.folder / "squid.conf"],
                  [listens(proxy.address, proxy.port)], logs=[proxy.folder / "cache.log"], stop_signal=signal.SIGKILL)
