"""Users, services and their keytabs in the directory's database."""
from ferrolab import names

import ldb
import samba.dckeytab  # noqa: F401  (adds export_keytab to Net)
from samba.net import Net

AES_AND_RC4 = "28"
ACCOUNT_DISABLED = 0x2
NEVER = "-9223372036854775808"
LONG_AGO = "130000000000000000"  # 2012, in the directory's count of 100 ns since 1601


def change(directory, account, **values):
    """Replaces attributes of the account of this name."""
    found = directory.search(directory.domain_dn(), ldb.SCOPE_SUBTREE,
                             f"(sAMAccountName={ldb.binary_encode(account)})", ["userAccountControl"])
    if len(found) != 1:
        raise SystemExit(f"there is no account {account}")
    message = ldb.Message(found[0].dn)
    for name, value in values.items():
        attribute = name.replace("_", "-")
        message[attribute] = ldb.MessageElement(value, ldb.FLAG_MOD_REPLACE, attribute)
    directory.modify(message)


def add_users(directory):
    directory.set_pwdProperties("0")
    directory.set_minPwdLength("1")
    policy = ldb.Message(ldb.Dn(directory, directory.domain_dn()))
    policy["maxPwdAge"] = ldb.MessageElement(NEVER, ldb.FLAG_MOD_REPLACE, "maxPwdAge")
    directory.modify(policy)
    for account in names.USERS:
        directory.newuser(account.name, account.password, force_password_change_at_next_login_req=account.state == "stale")
        if account.state == "disabled":
            change(directory, account.name, userAccountControl=str(0x200 | ACCOUNT_DISABLED))
        if account.state == "expired":
            change(directory, account.name, accountExpires=LONG_AGO)


def add_services(directory, parameters, features):
    for account, keytabs in names.services(features).items():
        directory.newuser(account, f"{account}-Secret1")
        change(directory, account, servicePrincipalName=list(keytabs), msDS_SupportedEncryptionTypes=AES_AND_RC4)
        for principal, keytab in keytabs.items():
            Net(None, parameters).export_keytab(keytab=str(keytab), principal=principal)


def add_controller_services(directory, host):
    """The names that the controller's own update service would add some time after the start."""
    short, account = host.partition(".")[0].upper(), names.DC.partition(".")[0].upper() + "$"
    services = ["ldap/" + rest for rest in (short, host, f"{host}/{names.DOMAIN}", f"{host}/{names.NETBIOS}")]
    services += [f"GC/{host}/{names.DOMAIN}", f"HOST/{host}/{names.DOMAIN}"]
    found = directory.search(directory.domain_dn(), ldb.SCOPE_SUBTREE, f"(sAMAccountName={account})", ["servicePrincipalName"])
    have = {str(value).lower() for value in found[0]["servicePrincipalName"]}
    message = ldb.Message(found[0].dn)
    missing = [service for service in services if service.lower() not in have]
    message["add"] = ldb.MessageElement(missing, ldb.FLAG_MOD_ADD, "servicePrincipalName")
    directory.modify(message)
