#!/usr/bin/env python3
"""Fails on an include that points the wrong way.

usage: check_includes.py [ROOT]
Rooms may include themselves and what stands behind their arrow; the headers of some libraries are known to few units.
An example is a project of its own: it names its own headers as they stand beside it."""
import pathlib
import re
import sys

ROOMS = {
    "base": set(),
    "basalt": {"base"},
    "quill": {"basalt", "base"},
    "cloud": {"basalt", "base"},
    "cli": {"cloud", "quill", "basalt", "base"},
    "examples": {"cloud", "basalt", "base"},
    "lab": {"testsupport", "base"},
    "lab/agent": {"cloud", "quill", "basalt", "base"},
    "lab/agent/tests": {"cli"},
}
# What serves tests and benchmarks alone: the rooms that are not installed may know it.
FOR_TESTS = {"testsupport", "lab"}
# The public headers, beside those that they include: what an example may include.
PUBLIC = re.compile(r"^(cloud/include/\w+|basalt/(ad_agent|kerberos_abandoned|run_queue)|base/include/logger)\.h$")
# What a room's code may not know, told by the header's name: the files that may.
GUARDED = [
    (re.compile(r"^curl/"), re.compile(r"^cloud/(include/)?curl_")),
    (re.compile(r"^(ldap|lber)\.h$"), re.compile(r"^basalt/directory")),
    (re.compile(r"^(krb5|gssapi|gssapi/.*|krb5/.*|com_err|et/com_err|profile)(\.h)?$"),
     re.compile(r"^(base/(include/)?kerb_wrap|basalt/kerberos|cloud/http/curl_gsssetup)")),
    (re.compile(r"^sodium"), re.compile(r"^basalt/(locked_memory|base64)")),
    (re.compile(r"^sasl/"), re.compile(r"^(basalt/directory|cli/cli_ferrogate_sasl)")),
    (re.compile(r"^spdlog/"), re.compile(r"^basalt/log(ging|_sinks)")),
    (re.compile(r"^rapidjson/"), re.compile(r"^(quill|cloud|lab)/")),
]
# Protocol versions know one another by inheritance alone: this file may include that header.
INHERITANCE = {"cloud/login/cloud_auth_v1s.h": {"cloud/login/cloud_auth_v1.h"}}
VERSION = re.compile(r"^cloud/cloud_auth_(v\w+)\.h$")
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')


def room_of(name):
    """The innermost room that a file lies in or an include names."""
    folders = name.split("/")[:-1]
    return next(("/".join(folders[:n]) for n in range(len(folders), 0, -1) if "/".join(folders[:n]) in ROOMS),
                name.split("/")[0])


def faults_of(path, name):
    room = room_of(name)
    is_test = "/tests/" in name
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        match = INCLUDE.match(line)
        if not match:
            continue
        quoted, header = match.group(1) == '"', match.group(2)
        where = f"{name}:{number}: "
        target = room_of(header)
        if quoted and target in FOR_TESTS:
            if not is_test and target != room and target not in ROOMS[room]:
                yield where + f"{header}: only tests include {target}"
        elif quoted:
            if room == "examples" and target == header:
                if not (path.parent / header).exists():
                    yield where + f"{header} does not stand beside it"
            elif target not in ROOMS:
                yield where + f'"{header}" is not named from the root of the tree'
            elif target != room and target not in ROOMS[room]:
                yield where + f"{room} must not include {target} ({header})"
            elif room == "examples" and not PUBLIC.match(header):
                yield where + f"{header} is not a public header"
        if is_test:
            continue
        for headers, users in GUARDED:
            if headers.search(header) and not users.search(name):
                yield where + f"<{header}> is not known to this unit"
        if VERSION.match(header) and VERSION.match(name) and header != name and header not in INHERITANCE.get(name, ()):
            yield where + f"a protocol version includes another's header ({header})"


def main():
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ".")
    folders = [room for room in ROOMS if "/" not in room]
    files = [p for folder in folders for p in sorted((root / folder).rglob("*")) if p.suffix in (".h", ".cpp")]
    if not files:
        sys.exit(f"{root}: no sources found")
    faults = [fault for path in files for fault in faults_of(path, str(path.relative_to(root)))]
    print("\n".join(faults) if faults else f"{len(files)} files, every include points the right way")
    sys.exit(1 if faults else 0)


if __name__ == "__main__":
    main()
