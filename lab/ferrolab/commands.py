"""`lab ctl`: changes to a running lab, from inside."""
import sys

from ferrolab import directory, faults, host, names, platform, tls
from ferrolab.control import registry, running_lab
from ferrolab.daemons import LabError

COMMANDS = (
    "stop|start|restart|hang NAME...",
    "status",
    "trust",
    "rotate-machine-password",
    "expire-machine-ticket [SECONDS]",
    "set-enctypes ACCOUNT BITS",
    "move-host SITE",
    "rename-site SITE NAME",
    "rename-parent CONNECTOR NAME",
    "set-keywords CONNECTOR KEYWORD=VALUE|KEYWORD...",
    "add-second-dc before|after",
    "del-second-dc",
    "add-dead-dc before|after",
    "del-dead-dc",
    "platform COMMAND [NAME=VALUE...]",
    "ldapsearch|ldapadd|ldapmodify|ldapdelete ARGS...",
)


class Parts:
    """The daemons and services of this lab, which names of either kind are told apart by."""

    def __init__(self, features):
        self.daemons = registry(features)
        self.services = faults.services(features)

    def check(self, verb, chosen):
        known = self.services if verb == "hang" else {**self.daemons, **self.services}
        for name in chosen:
            if name not in known:
                what = "nothing that can hang is called" if verb == "hang" else "there is no daemon"
                raise LabError(f"{what} '{name}'; there are: {' '.join(known)}")

    def stop(self, name):
        if name in self.daemons:
            self.daemons[name].stop()
        else:
            faults.refuse(self.services[name])

    def start(self, name):
        if name in self.services:
            faults.mend(self.services[name])
        if name in self.daemons:
            self.daemons[name].start()
        if name == "dc":
            directory.admit_ntlm_helper()

    def hang(self, name):
        faults.hang(self.services[name])

    def state(self, name, known):
        if name in self.daemons and not self.daemons[name].running():
            return "stopped"
        return name in self.services and faults.fault_of(self.services[name], known) or "running"

    def states(self):
        known = faults.faults()
        return "".join(f"{name}: {self.state(name, known)}\n" for name in {**self.daemons, **self.services})


def change_parts(verb, chosen):
    parts = Parts(running_lab())
    parts.check(verb, chosen)
    for name in chosen:
        if verb in ("stop", "restart"):
            parts.stop(name)
        if verb in ("start", "restart"):
            parts.start(name)
        if verb == "hang":
            parts.hang(name)


def ctl(arguments):
    """One command of `lab ctl`; what it may print is for people."""
    features = running_lab()
    match arguments:
        case ["stop" | "start" | "restart" | "hang" as verb, *chosen] if chosen:
            change_parts(verb, chosen)
        case ["status"]:
            print(Parts(features).states(), end="")
        case ["trust"]:
            tls.trust()
        case ["rotate-machine-password"]:
            host.rotate_machine_password()
        case ["expire-machine-ticket", *seconds] if len(seconds) < 2 and all(text.isdigit() for text in seconds):
            host.expire_machine_ticket(int(seconds[0]) if seconds else 0)
        case ["rename-parent", name, new_name]:
            directory.database(*arguments)
            host.add_name(f"{name}.{names.DOMAIN}", f"{new_name}.{names.DOMAIN}")
        case ["set-enctypes", _, bits] if bits.isdigit():
            directory.database(*arguments)
        case (["move-host", _] | ["rename-site", _, _] | ["set-keywords", _, _, *_] 
              | ["add-second-dc" | "add-dead-dc", "before" | "after"] | ["del-second-dc" | "del-dead-dc"]):
            directory.database(*arguments)
        case ["platform", command, *members] if all("=" in member for member in members):
            print(platform.command(features, command, members))
        case ["ldapsearch" | "ldapmodify" | "ldapadd" | "ldapdelete" as program, *options]:
            text = "" if program == "ldapsearch" else sys.stdin.read()
            said = directory.as_administrator(program, *options, text=text)
            if said:
                print(said)
        case _:
            raise LabError("usage: lab ctl " + "\n       lab ctl ".join(COMMANDS))
