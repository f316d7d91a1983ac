"""The web servers: the platform's stand-in and the connector's service with Negotiate, one Apache for all."""
import shutil

from ferrolab import names
from ferrolab.daemons import Daemon, listens
from ferrolab.tls import FOLDER as TLS

FOLDER = names.STATE / "apache"
MODULES = "/usr/lib/apache2/modules"
LOADED = ("mpm_event", "authn_core", "authz_core", "authz_user", "alias", "dir", "env", "headers", "mime", "setenvif",
          "socache_shmcb", "ssl", "proxy", "proxy_http", "auth_gssapi")
STATUSES = (400, 401, 403, 404, 407, 500, 503)

HEAD = """ServerRoot {folder}
ServerName localhost
PidFile {folder}/apache.pid
DefaultRuntimeDir {folder}
Mutex file:{folder} default
ErrorLog {folder}/error.log
User www-data
Group www-data
StartServers 1
ServerLimit 2
ThreadsPerChild 32
MaxRequestWorkers 64
TypesConfig /dev/null
AddType application/json .json
SSLSessionCache shmcb:{folder}/sessions(65536)
LogFormat "%{{usec_frac}}t client=%{{c}}a:%{{remote}}p user=%u status=%>s method=%m url=%U%q auth=%{{Authorization}}i" lab
DocumentRoot {folder}
<Directory />
  Require all denied
</Directory>
"""

PLATFORM = """Listen {address}:{port}
<VirtualHost {address}:{port}>
  ServerName {host}
  CustomLog {folder}/platform.log lab
  DocumentRoot {folder}/platform
  DirectoryIndex index.json
  <Directory {folder}/platform>
    Require all granted
  </Directory>
{statuses}{tls}</VirtualHost>
"""

CONNECTOR = """Listen {address}:{port}
<VirtualHost {address}:{port}>
  ServerName {host}
  CustomLog {folder}/{name}.log lab
  DocumentRoot {folder}/connector
{site_check}    AuthType GSSAPI
    AuthName "Lab connector"
    GssapiCredStore keytab:{keytab}
    GssapiAcceptorName HTTP@{host}
    GssapiAllowedMech krb5
    Require valid-user
    Header always set X-Remote-User "expr=%{{REMOTE_USER}}"
{site_check_end}{statuses}{tls}</VirtualHost>
"""

# The connector's page: a file, or the platform's answer for the machine that was authenticated here.
PAGE = ("  <Directory {folder}/connector>\n    ForceType application/json\n", "  </Directory>\n")
FROM_PLATFORM = ("""  <Location /iwa/SiteCheck>
    ProxyPass http://{address}:{port}/iwa/SiteCheck
    RequestHeader set X-Remote-User "expr=%{{REMOTE_USER}}"
""", "  </Location>\n")


def virtual_host(template, address, port, host, certificate, **more):
    tls = ""
    if certificate:
        tls = (f"  SSLEngine on\n  SSLCertificateFile {TLS}/{certificate}.crt\n"
               f"  SSLCertificateKeyFile {TLS}/{certificate}.key\n")
    statuses = "".join(f"  Redirect {status} /status/{status}\n" for status in STATUSES)
    return template.format(address=address, port=port, host=host, folder=FOLDER, tls=tls, statuses=statuses, **more)


def platform_ports(features):
    """The ports of the stand-in."""
    return {kind: port for kind, port in names.PLATFORM_PORTS.items() if kind != "good" or "platform" not in features}


def configuration(features):
    text = "".join(f"LoadModule {name}_module {MODULES}/mod_{name}.so\n" for name in LOADED) + HEAD.format(folder=FOLDER)
    for kind, port in platform_ports(features).items():
        text += virtual_host(PLATFORM, names.PLATFORM_ADDRESS, port, names.PLATFORM, kind)
    text += virtual_host(PLATFORM, names.PLATFORM_ADDRESS, 80, names.PLATFORM, "")
    begin, end = FROM_PLATFORM if "platform" in features else PAGE
    begin = begin.format(folder=FOLDER, address=names.PLATFORM_ADDRESS, port=names.PLATFORM_CONTROL_PORT)
    for connector in names.iwa_connectors(features):
        for port, certificate in ((443, "connector"), (80, "")):
            text += virtual_host(CONNECTOR, connector.address, port, connector.host, certificate, name=connector.name,
                                 keytab=connector.keytab, site_check=begin, site_check_end=end)
    return text


def prepare(features):
    """Needs the certificates and the connectors' keytabs."""
    FOLDER.mkdir()
    (FOLDER / "platform").mkdir()
    (FOLDER / "platform" / "index.json").write_text('{"success":true,"Result":{"lab":"platform"}}\n')
    iwa = FOLDER / "connector" / "iwa"
    iwa.mkdir(parents=True)
    (iwa / "SiteCheck").write_text('{"result":"success","otc":"one-time-code-of-the-lab"}\n')
    for connector in names.iwa_connectors(features):
        shutil.chown(connector.keytab, "www-data", "www-data")
    (FOLDER / "apache.conf").write_text(configuration(features))


def daemon(features):
    probes = [listens(names.PLATFORM_ADDRESS, port) for port in (80, *platform_ports(features).values())]
    probes += [listens(connector.address, port) for connector in names.iwa_connectors(features) for port in (80, 443)]
    return Daemon("apache", ["apache2", "-f", FOLDER / "apache.conf", "-DFOREGROUND"], probes, logs=[FOLDER / "error.log"])
