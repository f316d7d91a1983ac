"""The second realm: a plain MIT key distribution centre with one user and one proxy."""
from ferrolab import names
from ferrolab.daemons import Daemon, LabError, listens, run

FOLDER = names.STATE / "mit"

KDC_CONF = """[realms]
  {realm} = {{
    database_name = {folder}/principal
    key_stash_file = {folder}/stash
    acl_file = {folder}/acl
    kdc_listen = {address}:88
    kdc_tcp_listen = {address}:88
    supported_enctypes = aes256-cts-hmac-sha1-96:normal aes128-cts-hmac-sha1-96:normal
    max_life = 10h 0m 0s
  }}
[logging]
  kdc = FILE:{folder}/kdc.log
"""
PROFILE = {"KRB5_KDC_PROFILE": str(FOLDER / "kdc.conf")}


def create():
    """Makes the realm's database and the proxy's keytab."""
    FOLDER.mkdir()
    (FOLDER / "kdc.conf").write_text(KDC_CONF.format(realm=names.MIT_REALM, folder=FOLDER, address=names.MIT_KDC_ADDRESS))
    profile = f"KRB5_KDC_PROFILE={FOLDER}/kdc.conf"
    run(["env", profile, "kdb5_util", "create", "-s", "-r", names.MIT_REALM,
         "-P", "Lab-Master-Key"], "making the second realm")
    service = f"HTTP/{names.MIT_PROXY.host}"
    names.MIT_PROXY.keytab.parent.mkdir(exist_ok=True)
    script = (f"addprinc -pw {names.MIT_USER.password} {names.MIT_USER.name}\naddprinc -randkey {service}\n"
              f"ktadd -k {names.MIT_PROXY.keytab} {service}\n")
    said = run(["env", profile, "kadmin.local", "-r", names.MIT_REALM], "filling the second realm", script)
    if not names.MIT_PROXY.keytab.exists():
        raise LabError("filling the second realm failed\n" + said)


def daemon():
    return Daemon("kdc-mit", ["krb5kdc", "-n", "-r", names.MIT_REALM], [listens(names.MIT_KDC_ADDRESS, 88)],
                  logs=[FOLDER / "kdc.log"], environment=PROFILE)
