"""The private host: namespaces, mounts and loopback."""
import os
import shutil
import signal
import subprocess
from pathlib import Path

from ferrolab.daemons import LabError, run
from ferrolab.names import ADDRESSES, HOST_ADDRESS, STATE

NAMESPACES = Path(__file__).resolve().parent.parent / "namespaces"

# Below /var these are empty in the lab: the product's own folders, and what the daemons use unless told otherwise.
EMPTY_IN_VAR = {"morvand": 0o755, "tmp": 0o1777}
HIDDEN = ("/var/lib/samba", "/var/cache/samba", "/var/log/samba", "/var/lib/krb5kdc", "/var/log/squid",
          "/var/spool/squid", "/var/log/apache2")


def refusal():
    """Why namespaces cannot be had here; empty when they can."""
    return subprocess.run([NAMESPACES, "check"], stdout=subprocess.PIPE, text=True).stdout.strip()


def enter(argv):
    """Runs argv as the first process of new namespaces and returns its status; whatever ends this process ends them."""
    process = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", NAMESPACES, "enter", *argv])

    received = []

    def end(number, _frame):
        received.append(number)
        os.kill(process.pid, signal.SIGKILL)

    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, end)
    # The terminal sends these to the command in the lab as well; it decides.
    for number in (signal.SIGINT, signal.SIGQUIT):
        signal.signal(number, signal.SIG_IGN)
    status = process.wait()
    if received:
        return 128 + received[0]
    return status if status >= 0 else 128 - status


def tmpfs(folder, mode="0755"):
    run(["mount", "-t", "tmpfs", "-o", f"mode={mode}", "ferrolab", folder], f"mounting a tmpfs on {folder}")


def bind(source, target):
    run(["mount", "--rbind", source, target], f"binding {source} to {target}")


def move(source, target):
    run(["mount", "--move", source, target], f"moving {source} to {target}")


def copy_etc():
    """/etc becomes a copy, so that files in it can be replaced; nothing of the product's configuration comes along."""
    copy = STATE / "etc"
    copy.mkdir()
    tmpfs(copy)
    run(["cp", "-a", "/etc/.", copy], "copying /etc")
    shutil.rmtree(copy / "morvand", ignore_errors=True)
    move(copy, "/etc")
    Path("/etc/krb5.keytab").unlink(missing_ok=True)
    Path("/etc/morvand").mkdir()
    tmpfs("/etc/morvand")


def rebuild_var():
    """/var becomes a new folder with the old one's entries bound into it, and empty folders where the lab needs them."""
    skeleton = STATE / "var"
    skeleton.mkdir()
    tmpfs(skeleton)
    for entry in sorted(Path("/var").iterdir()):
        target = skeleton / entry.name
        if entry.name in EMPTY_IN_VAR:
            continue
        if entry.is_symlink():
            target.symlink_to(os.readlink(entry))
        elif entry.is_dir():
            target.mkdir()
            bind(entry, target)
        else:
            shutil.copy2(entry, target)
    for name, mode in EMPTY_IN_VAR.items():
        (skeleton / name).mkdir()
        tmpfs(skeleton / name, f"{mode:04o}")
    move(skeleton, "/var")


def prepare(hostname):
    """Makes the private host around this process. Raises LabError."""
    if os.getpid() != 1:
        raise LabError("the lab's host can only be made by the first process of its namespaces")
    tmpfs("/run")
    tmpfs("/dev/shm", "1777")
    STATE.mkdir(mode=0o755)
    copy_etc()
    rebuild_var()
    for folder in HIDDEN:
        if Path(folder).is_dir():
            tmpfs(folder)
    Path("/run/lock").mkdir(mode=0o1777)
    run(["hostname", hostname], "setting the host name")
    commands = "".join(f"address add {address}/8 dev lo\n" for address in ADDRESSES)
    # Whoever the host speaks to sees its own address: the controller takes 127.0.0.1 to be in every site.
    sources = "".join(f"route replace local {net} dev lo table local src {HOST_ADDRESS}\n" for net in ("127.0.0.0/8", *ADDRESSES))
    run(["ip", "-batch", "-"], "bringing up loopback", f"link set lo up\n{commands}{sources}")
