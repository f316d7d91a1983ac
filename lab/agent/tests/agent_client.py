"""The lab's agent from outside: its process, and its local RPC as docs/rpc.md tells it."""
import json
import os
import select
import signal
import socket
import struct
import subprocess
import time

SOCKET = "/var/morvand/daemon"
PATIENCE = 90  # an agent may be waiting for a peer that is silent


class Closing:
    """Closed at the end of a `with`."""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


class AgentError(Exception):
    """An error reply; `code` is that of docs/rpc.md."""

    def __init__(self, code, message):
        super().__init__(f"{code} {message}")
        self.code, self.message = code, message


class AgentClient(Closing):
    """One session, authenticated unless told otherwise; for one thread at a time."""

    def __init__(self, path=SOCKET, authenticate=True, patience=PATIENCE):
        self.number = 0
        self.stream = socket.socket(socket.AF_UNIX)
        self.stream.settimeout(patience)
        self.stream.connect(path)
        if authenticate:
            self.call("authenticateProcess")

    def close(self):
        self.stream.close()

    def bytes(self, count):
        taken = b""
        while len(taken) < count:
            more = self.stream.recv(count - len(taken))
            if not more:
                raise ConnectionError("the agent has closed the connection")
            taken += more
        return taken

    def request(self, method, params):
        """The result; an error reply is an AgentError, and the session goes on."""
        self.number += 1
        content = json.dumps({"jsonrpc": "2.0", "id": self.number, "method": method, "params": params}).encode()
        self.stream.sendall(struct.pack(">I", len(content)) + content)
        reply = json.loads(self.bytes(*struct.unpack(">I", self.bytes(4))))
        if "error" in reply:
            raise AgentError(reply["error"]["code"], reply["error"]["message"])
        assert reply["id"] == self.number, reply
        return reply["result"]

    def call(self, method, **params):
        return self.request(method, params)


class AgentProcess(Closing):
    """The agent, ready; killed at the end of a `with` where nobody stopped it."""

    def __init__(self, program, *arguments):
        self.output = ""
        self.process = subprocess.Popen([program, *arguments], stdout=subprocess.PIPE)
        try:
            self.reads("ready\n")
        except BaseException:
            self.close()
            raise

    def reads(self, text):
        """Waits until the agent has printed that."""
        end = time.monotonic() + PATIENCE
        while text not in self.output:
            more = select.select([self.process.stdout], [], [], max(end - time.monotonic(), 0))[0] and os.read(
                self.process.stdout.fileno(), 65536).decode()
            if not more:
                raise AssertionError(f"the agent does not print {text!r}: {self.output!r}")
            self.output += more

    def stop(self, number=signal.SIGTERM):
        """Ends it: the exit status, negative for a signal; `output` then has all that it printed."""
        self.process.send_signal(number)
        self.output += self.process.communicate(timeout=PATIENCE)[0].decode()
        return self.process.returncode

    def close(self):
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()
