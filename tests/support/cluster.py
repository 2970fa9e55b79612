"""cluster.py - bridges, workers, nodes and nats-servers for scripts, whose first argument is the build directory.

Servers get free ports of 127.0.0.1 and a temporary directory; finish() kills all started processes, by process id. The
protocols of nodes and of NATS are implemented here, on plain sockets.
"""
import base64
import itertools
import json
import os
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

BIN = os.path.join(os.path.abspath(sys.argv[1]), "bin")
WORK = tempfile.mkdtemp(prefix="mqbridge-test-")
STORED, NO_RESPONDER, TIME_OVER, ERROR = range(0xFFFF0001, 0xFFFF0005)
os.environ["PATH"] += ":/usr/sbin"  # nats-server is there
started = []


def free_ports(count):
    sockets = [socket.create_server(("127.0.0.1", 0)) for _ in range(count)]
    ports = [s.getsockname()[1] for s in sockets]
    for s in sockets:
        s.close()
    return ports


def until(what, check, seconds=20):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        found = check()
        if found:
            return found
        time.sleep(0.05)
    raise AssertionError(f"not within {seconds} s: {what}")


def start(*command):
    process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                               start_new_session=True)  # Ctrl-C is for the script alone
    started.append(process)
    return process


class Bridge:
    """mqbridge, and the events that it reports."""

    def __init__(self, *arguments, event):
        self.events = []
        self.process = start(f"{BIN}/mqbridge", *map(str, arguments), "--json", "--status", "0.2")
        threading.Thread(target=self.read, daemon=True).start()
        self.port = until(f"event {event} of {arguments}", lambda: self.find(event)).get("port")

    def read(self):
        for line in self.process.stdout:
            self.events.append(json.loads(line) if line[0] == "{" else {"event": "text", "text": line})

    def find(self, name):
        return next((event for event in reversed(self.events) if event["event"] == name), None)

    def status(self, key):
        status = self.find("status")
        return status[key] if status else 0

    def end(self):
        self.process.send_signal(signal.SIGTERM)
        assert self.process.wait(15) == 0, self.events[-3:]


class Node:
    """A client of a node; several messages may be unanswered."""

    def __init__(self, port, user="tester"):
        self.user = user.encode()
        self.socket = socket.create_connection(("127.0.0.1", port), 15)
        self.file = self.socket.makefile("rb")

    def send(self, command, *texts):
        body = struct.pack("<II", command, len(texts))
        for number, text in enumerate(texts, 1):
            data = text.encode()
            body += struct.pack("<III", number, 3, len(data)) + data + b"\0" * (4 - len(data) % 4)
        self.socket.sendall(struct.pack("<IIII48xII12s48sI", 136, 1, 0, 1, len(body), 0, self.user, b"test", 0) + body)

    def receive(self):
        """Returns the command, and the parameters by their ids."""
        header = self.file.read(136)
        if len(header) < 136:
            raise ConnectionError
        body = self.file.read(struct.unpack_from("<I", header, 64)[0])
        command, count = struct.unpack_from("<II", body)
        at, params = 8, {}
        for _ in range(count):
            number, kind, length = struct.unpack_from("<III", body, at)
            value = body[at + 12:at + 12 + length]
            params[number] = int.from_bytes(value, "little") if kind < 3 else value.decode()
            at += 12 + (length + 4) // 4 * 4 if kind == 3 else 12 + (length + 3) // 4 * 4
        return command, params

    def ask(self, command, *texts):
        self.send(command, *texts)
        return self.receive()


class Nats:
    """A connection to one server of the cluster."""

    def __init__(self, port, timeout=10):
        self.socket = socket.create_connection(("127.0.0.1", port), timeout)
        self.file = self.socket.makefile("rb")
        self.file.readline()
        self.write('CONNECT {"verbose":false,"headers":true,"no_responders":true}', "SUB _T.> 1")
        self.numbers = itertools.count()

    def write(self, *lines):
        self.socket.sendall("".join(line + "\r\n" for line in lines).encode())

    def publish(self, subject, body, reply=""):
        self.write(f"PUB {subject} {reply} {len(body.encode())}", body)

    def subscribe(self, subject):
        """Returns once the server has processed the subscription."""
        self.write(f"SUB {subject} 2", "PING")
        while self.file.readline() != b"PONG\r\n":
            continue

    def next(self):
        """Returns subject, reply, headers and body of the next message."""
        while True:
            words = self.file.readline().decode().split()
            if not words:
                raise ConnectionError
            if words[0] == "PING":
                self.write("PONG")
            elif words[0] in ("MSG", "HMSG"):
                data = self.file.read(int(words[-1]) + 2)[:-2]
                split = int(words[-2]) if words[0] == "HMSG" else 0
                fields = 4 if words[0] == "MSG" else 5
                return words[1], words[3] if len(words) > fields else "", data[:split].decode(), data[split:].decode()

    def call(self, subject, body=""):
        reply = f"_T.{next(self.numbers)}"
        self.publish(subject, body if isinstance(body, str) else json.dumps(body), reply)
        while True:
            to, _, headers, answer = self.next()
            if to == reply:
                return json.loads(answer) if answer else {"error": headers}

    def messages(self, stream):
        """All messages of a stream: headers and body."""
        found, end = [], self.call(f"$JS.API.STREAM.INFO.{stream}")["state"]["last_seq"] + 1
        for first in range(1, end, 100):
            batch = range(first, min(first + 100, end))
            for sequence in batch:
                self.publish(f"$JS.API.STREAM.MSG.GET.{stream}", json.dumps({"seq": sequence}), "_T.message")
            for _ in batch:
                message = json.loads(self.next()[3])["message"]
                found.append([base64.b64decode(message.get(key, "")).decode("latin-1") for key in ("hdrs", "data")])
        return found


class Server:
    def __init__(self, name, port, extra=()):
        self.port, self.name = port, name
        self.command = ["nats-server", "-a", "127.0.0.1", "-p", str(port), "-n", name, "-js", "-sd", f"{WORK}/{name}",
                        "-l", f"{WORK}/{name}.log", *extra]
        self.start()

    def start(self):
        self.process = start(*self.command)
        until(f"server {self.name}", self.listens)

    def listens(self):
        try:
            Nats(self.port)
            return True
        except OSError:
            return False

    def kill(self):
        self.process.kill()
        self.process.wait()

    @property
    def url(self):
        return f"nats://127.0.0.1:{self.port}"


def make_cluster():
    ports, routes = free_ports(3), free_ports(3)
    all_routes = ",".join(f"nats://127.0.0.1:{port}" for port in routes)
    return [Server(f"n{i}", ports[i], ("--cluster_name", "test", "--cluster", f"nats://127.0.0.1:{routes[i]}",
                                       "--routes", all_routes)) for i in range(3)]


def make_stream(server, name, subjects, replicas=1, **more):
    def made():
        try:  # a cluster without a leader does not answer
            answer = Nats(server.port, 3).call(f"$JS.API.STREAM.CREATE.{name}", {
                "name": name, "subjects": subjects, "num_replicas": replicas, "storage": "file", **more})
            return "error" not in answer and answer
        except OSError:
            return None
    return until(f"stream {name}", made, 60)


def is_whole(server, stream):
    """Whether all replicas of a stream have all messages."""
    try:
        state = Nats(server.port, 3).call(f"$JS.API.STREAM.INFO.{stream}").get("cluster", {})
        return "leader" in state and all(r["current"] and not r.get("offline") for r in state["replicas"])
    except OSError:
        return False


def worker(server, *arguments):
    process = start(f"{BIN}/worker", server.url, *arguments)
    assert "ready" in process.stdout.readline()
    return process


def missing():
    """What is not there of what all this needs."""
    if not os.path.exists(f"{BIN}/mqbridge"):
        return "mqbridge: without libuv and libnats it is not built"
    return "" if shutil.which("nats-server") else "nats-server"


def finish():
    for process in started:
        if process.poll() is None:
            process.kill()
            process.wait()
    shutil.rmtree(WORK, ignore_errors=True)
