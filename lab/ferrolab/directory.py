"""The domain controller: Samba AD, provisioned anew for each lab."""
import shutil
import sys
from pathlib import Path

from ferrolab import names
from ferrolab.daemons import Daemon, accepts, listens, run

FOLDER = names.STATE / "dc"
SMB_CONF = FOLDER / "etc" / "smb.conf"
WINBIND = Path("/run/samba/winbindd")  # built into its clients
PRIVILEGED = FOLDER / "state" / "winbindd_privileged"
SERVICES = "rpc ldap cldap kdc dns winbindd"


def provision(features):
    WINBIND.parent.mkdir(exist_ok=True)
    interfaces = " ".join(f"{address}/8" for address in names.controller_addresses(features))
    run(["samba-tool", "domain", "provision", "--server-role=dc", "--dns-backend=SAMBA_INTERNAL", "--use-rfc2307",
         f"--realm={names.REALM}", f"--domain={names.NETBIOS}", "--host-name=DC1", f"--host-ip={names.DC_ADDRESS}",
         f"--site={names.SITE}", f"--adminpass={names.ADMIN_PASSWORD}", f"--targetdir={FOLDER}",
         f"--option=interfaces={interfaces}", "--option=bind interfaces only=yes",
         f"--option=posix:eadb={FOLDER}/eadb.tdb", f"--option=server services={SERVICES}",
         f"--option=log file={FOLDER}/log", "--option=prefork children=1",
         "--option=dns forwarder="], "provisioning the domain")
    # Making the key of an LDAPS that nobody uses would take seconds; provisioning does not take this option.
    SMB_CONF.write_text(SMB_CONF.read_text().replace("[global]\n", "[global]\n\ttls enabled = no\n", 1))
    (names.STATE / "keytabs").mkdir(exist_ok=True)
    database("fill", ",".join(features))


def database(*arguments):
    """Changes the directory's database, whether the controller runs or not."""
    run([sys.executable, "-IB", Path(__file__).with_name("database.py"), SMB_CONF, *arguments], "changing the directory")


def as_administrator(program, *options, text=""):
    """Runs one of the LDAP tools against the controller and returns what it said."""
    cache = f"KRB5CCNAME=FILE:{FOLDER}/administrator.ccache"
    run(["env", cache, "kinit", names.ADMIN], "taking the administrator's ticket", names.ADMIN_PASSWORD + "\n")
    return run(["env", cache, program, "-Q", "-Y", "GSSAPI", "-H", f"ldap://{names.DC}", *options], program, text)


def admit_ntlm_helper():
    """The proxies' NTLM helper may ask winbind to check passwords."""
    shutil.chown(PRIVILEGED, group="proxy")


def controller():
    probes = [listens(names.DC_ADDRESS, port) for port in (53, 88, 389, 464, 3268)]
    probes += [accepts(WINBIND / "pipe"), accepts(PRIVILEGED / "pipe")]
    return Daemon("dc", ["samba", "--foreground", "--no-process-group", "--configfile", SMB_CONF], probes,
                  logs=[FOLDER / "log"])
