"""The platform simulator (`--with=platform`): the program in the build folder, and the commands at its control port."""
import json
import os
import urllib.error
import urllib.request
from pathlib import Path

from ferrolab import names
from ferrolab.daemons import Daemon, LabError, listens
from ferrolab.tls import FOLDER as TLS

PROGRAM_VARIABLE = "FERRO_PLATFORM_SIMULATOR"
SCRIPT_VARIABLE = "FERRO_PLATFORM_SCRIPT"
TREE = Path(__file__).resolve().parents[2]
BUILT = "build/*/lab/platform/platform_simulator"
# A command may wait for a question to come.
LIMIT = 60


def program():
    """The simulator: what the variable names, else the one that was built last."""
    named = os.environ.get(PROGRAM_VARIABLE)
    if named:
        return named
    built = sorted(TREE.glob(BUILT), key=lambda path: path.stat().st_mtime)
    if not built:
        raise LabError(f"there is no {TREE / BUILT}: build the target platform_simulator, or set {PROGRAM_VARIABLE}")
    return built[-1]


def daemon():
    script = os.environ.get(SCRIPT_VARIABLE)
    port = names.PLATFORM_PORTS["good"]
    argv = [program(), f"--address={names.PLATFORM_ADDRESS}", f"--port={port}", f"--name={names.PLATFORM}",
            f"--certificate={TLS / 'good.crt'}", f"--key={TLS / 'good.key'}", f"--pod-host={names.PLATFORM_POD}",
            f"--control-address={names.PLATFORM_ADDRESS}", f"--control-port={names.PLATFORM_CONTROL_PORT}",
            *([f"--script={script}"] if script else [])]
    return Daemon("platform-simulator", argv, [listens(names.PLATFORM_ADDRESS, port),
                                               listens(names.PLATFORM_ADDRESS, names.PLATFORM_CONTROL_PORT)])


def value_of(text):
    """A member's value: JSON where the text is that, else the text."""
    try:
        return json.loads(text)
    except ValueError:
        return text


def command(features, name, members):
    """One command for the simulator; what it answers. A whole command may be given as JSON in place of the name."""
    if "platform" not in features:
        raise LabError("this lab has no simulator: it needs --with=platform")
    pairs = (member.partition("=") for member in members)
    text = name if name.startswith("{") else json.dumps(
        {"command": name, **{key: value_of(value) for key, _, value in pairs}})
    url = f"http://{names.PLATFORM_ADDRESS}:{names.PLATFORM_CONTROL_PORT}/control"
    opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
    try:
        with opener.open(urllib.request.Request(url, text.encode()), timeout=LIMIT) as reply:
            answer = reply.read().decode().strip()
    except urllib.error.URLError as failure:
        raise LabError(f"the simulator does not answer: {failure.reason}") from None
    if not json.loads(answer)["ok"]:
        raise LabError(f"the simulator refuses: {json.loads(answer)['error']}")
    return answer
