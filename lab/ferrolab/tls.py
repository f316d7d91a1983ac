"""The lab's certificate authority and the certificates of its web servers."""
import shutil

from ferrolab import names
from ferrolab.daemons import run

FOLDER = names.STATE / "tls"

CA_CONF = """[ca]
default_ca = lab
[lab]
database = {folder}/index
serial = {folder}/serial
new_certs_dir = {folder}
private_key = {folder}/ca.key
certificate = {folder}/ca.crt
default_md = sha256
policy = any
copy_extensions = copy
unique_subject = no
[any]
commonName = supplied
"""
KEY = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"]


def subject(hosts):
    names_in_it = ",".join(f"DNS:{host}" for host in hosts)
    return ["-subj", f"/CN={hosts[0]}", "-addext", f"subjectAltName={names_in_it}"]


def self_signed(name, host, *options):
    run(["openssl", "req", "-x509", *KEY, "-keyout", FOLDER / f"{name}.key", "-out", FOLDER / f"{name}.crt", "-days", "30",
         *subject([host]), *options], f"making the certificate '{name}'")


def issued(name, *hosts, start="20200101000000Z", end="20491231235959Z"):
    """A certificate of the lab's authority."""
    request = FOLDER / f"{name}.csr"
    run(["openssl", "req", "-new", *KEY, "-keyout", FOLDER / f"{name}.key", "-out", request, *subject(hosts)],
        f"asking for the certificate '{name}'")
    run(["openssl", "ca", "-batch", "-notext", "-config", FOLDER / "ca.conf", "-in", request, "-startdate", start,
         "-enddate", end, "-out", FOLDER / f"{name}.crt"], f"issuing the certificate '{name}'")


def make(features):
    FOLDER.mkdir()
    (FOLDER / "ca.conf").write_text(CA_CONF.format(folder=FOLDER))
    (FOLDER / "index").touch()
    (FOLDER / "serial").write_text("01\n")
    run(["openssl", "req", "-x509", *KEY, "-keyout", FOLDER / "ca.key", "-out", names.CA_FILE, "-days", "3650",
         "-subj", "/CN=Lab authority"], "making the lab's authority")
    issued("good", names.PLATFORM, *((names.PLATFORM_POD,) if "platform" in features else ()))
    issued("expired", names.PLATFORM, end="20200201000000Z")
    issued("wrongname", f"elsewhere.{names.DOMAIN}")
    issued("connector", *(connector.host for connector in names.iwa_connectors(features)))
    self_signed("foreign", names.PLATFORM)
    names.CA_FOLDER.mkdir()
    shutil.copy(names.CA_FILE, names.CA_FOLDER / "lab.pem")
    run(["openssl", "rehash", names.CA_FOLDER], "indexing the trusted certificates")


def trust():
    """The lab's authority becomes the one that this private host trusts."""
    names.SYSTEM_BUNDLE.parent.mkdir(parents=True, exist_ok=True)
    names.SYSTEM_BUNDLE.unlink(missing_ok=True)
    shutil.copy(names.CA_FILE, names.SYSTEM_BUNDLE)
