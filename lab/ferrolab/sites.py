"""Sites and subnets in the directory's database."""
from ferrolab import names

import ldb

SITES_DN = f"CN=Sites,CN=Configuration,{names.BASE_DN}"


def site_dn(site):
    return f"CN={site},{SITES_DN}"


def add_subnet(directory, subnet, site):
    directory.add({"dn": f"CN={subnet},CN=Subnets,{SITES_DN}", "objectClass": "subnet", "siteObject": site_dn(site)})


def add_further_sites(directory):
    for site, subnet in names.FURTHER_SITES.items():
        directory.add({"dn": site_dn(site), "objectClass": "site"})
        directory.add({"dn": f"CN=Servers,{site_dn(site)}", "objectClass": "serversContainer"})
        directory.add({"dn": f"CN=NTDS Site Settings,{site_dn(site)}", "objectClass": "nTDSSiteSettings"})
        add_subnet(directory, subnet, site)


def existing(directory, site):
    found = directory.search(SITES_DN, ldb.SCOPE_ONELEVEL, f"(&(objectClass=site)(cn={ldb.binary_encode(site)}))", ["cn"])
    if not found:
        raise SystemExit(f"there is no site {site}")
    return found[0].dn


def move_host(directory, site):
    """The subnet of this host, and of all that has no narrower one, belongs to this site from now on."""
    message = ldb.Message(ldb.Dn(directory, f"CN={names.HOST_SUBNET},CN=Subnets,{SITES_DN}"))
    message["siteObject"] = ldb.MessageElement(str(existing(directory, site)), ldb.FLAG_MOD_REPLACE, "siteObject")
    directory.modify(message)


def rename(directory, site, new_name):
    directory.rename(existing(directory, site), site_dn(new_name))
