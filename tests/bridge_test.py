#!/usr/bin/env python3
"""bridge_test.py BUILD_DIR TEST ... - mqbridge between real nodes and real nats-servers, which die in the middle.

The test starts and ends all servers itself, on free ports of 127.0.0.1 with a temporary directory. Messages are numbered:
what a client was answered for is counted in the cluster. nodes and the NATS protocol are spoken here by plain sockets.
TEST: requests, signed, delivered, refused, away; with a cluster of three: storing, working.
"""
import base64
import collections
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

if len(sys.argv) < 3:
    sys.exit(__doc__)
BIN = os.path.join(os.path.abspath(sys.argv[1]), "bin")
if not shutil.which("nats-server") or not os.path.exists(f"{BIN}/mqbridge"):
    print("skipped: no nats-server, or mqbridge was not built")
    sys.exit(77)
WORK = tempfile.mkdtemp(prefix="mqbridge-test-")
STORED, NO_RESPONDER, TIME_OVER, ERROR = range(0xFFFF0001, 0xFFFF0005)
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
    process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    started.append(process)
    return process


class Bridge:
    """mqbridge, and the events that it tells."""

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
    """A client of a node; several messages may be on their way."""

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
        """Command, and the parameters by their ids."""
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

    def next(self):
        """Subject, reply, headers and body of the next message."""
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
        found = []
        for sequence in range(1, self.call(f"$JS.API.STREAM.INFO.{stream}")["state"]["last_seq"] + 1):
            message = self.call(f"$JS.API.STREAM.MSG.GET.{stream}", {"seq": sequence})["message"]
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


def make_stream(server, name, subjects, replicas=1):
    def made():
        try:  # a cluster without a leader does not answer
            answer = Nats(server.port, 3).call(f"$JS.API.STREAM.CREATE.{name}", {
                "name": name, "subjects": subjects, "num_replicas": replicas, "storage": "file"})
            return "error" not in answer and answer
        except OSError:
            return None
    return until(f"stream {name}", made, 60)


def worker(server, *arguments):
    process = start(f"{BIN}/worker", server.url, *arguments)
    assert "ready" in process.stdout.readline()
    return process


# ---- One server ----


def requests(server):
    """Answers in order; no responder, time over and errors; names of users that are not words; the drain."""
    bridge = Bridge("in", "127.0.0.1:0", "--server", server.url, "--timeout", "1", event="listening")
    node = Node(bridge.port, "a.b >*")
    assert node.ask(1, "x") == (NO_RESPONDER, {1: "nobody answers on this subject", 2: "mq.a%2Eb%20%3E%2A.1"})
    one = worker(server, "one")
    for i in range(200):
        node.send(1, str(i))
        if i % 50 == 0:
            node.send(1)
    for i in range(200):
        assert node.receive() == (2, {1: str(i), 2: "one"})
        if i % 50 == 0:
            assert node.receive() == (ERROR, {1: "a question has a text, parameter 1", 2: "mq.a%2Eb%20%3E%2A.1"})
    nats = Nats(server.port)
    nats.write("SUB mq.*.7 2")
    node.send(7, "in time")
    node.send(7, "never")
    subject, reply, headers, body = nats.next()
    assert json.loads(body) == {"command": 7, "parameters": [{"id": 1, "type": "text", "value": "in time"}]}
    assert "Mq-User: a.b >*\r\n" in headers and "Mq-Command: 7\r\n" in headers and "Mq-Signer" not in headers, headers
    nats.publish(reply, body)
    assert node.receive() == (7, {1: "in time"})
    nats.next()
    assert node.receive()[0] == TIME_OVER
    node.send(7, "last")
    reply = nats.next()[1]
    bridge.process.send_signal(signal.SIGTERM)
    until("draining", lambda: bridge.find("draining"))
    nats.publish(reply, '{"command":8}')
    assert node.receive() == (8, {})
    assert bridge.process.wait(15) == 0
    one.terminate()
    assert one.wait(10) == 0


def signed(server):
    """A signed message names its signer, and its nonce is the name of the stored message."""
    with open(f"{WORK}/ring", "w") as ring:
        for user in ("alice", "bridge"):
            subprocess.run([f"{BIN}/mqcat", "keys", "new", user, f"{WORK}/{user}.key"], check=True, stdout=ring,
                           stderr=subprocess.DEVNULL)
    make_stream(server, "S", ["s.>"])
    bridge = Bridge("in", "127.0.0.1:0", "--server", server.url, "--mode", "store", "--subject", "s.{user}", "--body", "raw",
                    "--ring", f"{WORK}/ring", "--sign", f"{WORK}/bridge.key", event="listening")
    said = subprocess.run([f"{BIN}/mqcat", "send", "127.0.0.1", str(bridge.port), "-c", "3", "-p", "1=x", "--reply", "-q",
                           "--format", "json", "--sign", f"{WORK}/alice.key", "--ring", f"{WORK}/ring"],
                          check=True, stdout=subprocess.PIPE, timeout=20).stdout
    assert json.loads(said)["command"] == STORED and json.loads(said)["user"] == "bridge"
    headers, body = Nats(server.port).messages("S")[0]
    assert "Mq-Signer: alice\r\n" in headers and len(headers.split("alice/")[1].split("\r\n")[0]) == 32, headers
    assert body[72:77] == "alice"
    bridge.end()


def away(server):
    """While the cluster is away a bridge holds no more than its bound, and nothing that it read is lost."""
    make_stream(server, "A", ["a.>"])
    bridge = Bridge("in", "127.0.0.1:0", "--server", server.url, "--mode", "store", "--subject", "a.{command}", "--memory",
                    "65536", "--timeout", "60", "--per-client", "1000", event="listening")
    server.kill()
    until("disconnected", lambda: bridge.find("disconnected"))
    nodes = [Node(bridge.port) for _ in range(4)]
    for number in range(100):
        for i, node in enumerate(nodes):
            node.send(5, f"{i}-{number}", "x" * 2000)
    until("full", lambda: bridge.find("full"))
    time.sleep(0.5)
    assert 65536 < bridge.status("held_bytes") < 65536 + 3000, bridge.find("status")
    server.start()
    for node in nodes:
        assert [node.receive()[0] for _ in range(100)] == [STORED] * 100
    bodies = [json.loads(body)["parameters"][0]["value"] for _, body in Nats(server.port).messages("A")]
    assert sorted(bodies) == sorted(f"{i}-{number}" for i in range(4) for number in range(100))
    bridge.end()


class Peer:
    """A node that answers by sending back. It dies with the connection at a message with the text "death"."""

    def __init__(self):
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.seen = collections.Counter()
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        while True:
            connection, _ = self.listener.accept()
            try:
                self.answer(connection, connection.makefile("rb"))
            except OSError:
                pass  # the bridge was killed
            connection.close()

    def answer(self, connection, file):
        while header := file.read(136):
            body = file.read(struct.unpack_from("<I", header, 64)[0])
            text = body[20:20 + struct.unpack_from("<I", body, 16)[0]].decode() if len(body) > 20 else ""
            self.seen[text] += 1
            if text == "death" or (text.isdigit() and int(text) % 97 == 50 and self.seen[text] == 1):
                return
            connection.sendall(header + body)


def delivered(server):
    """Out of a stream to a node that dies now and then: each message arrives, those that cannot are dead letters."""
    make_stream(server, "O", ["o.>"])
    make_stream(server, "D", ["dead.>"])
    nats, peer = Nats(server.port), Peer()
    for i in range(400):
        nats.publish("o.1", json.dumps({"command": 1, "parameters": [{"id": 1, "value": str(i)}]}))
    nats.publish("o.1", json.dumps({"command": 1, "parameters": [{"id": 1, "value": "death"}]}))
    nats.publish("o.1", "not a message")
    arguments = ("out", "o.>", f"127.0.0.1:{peer.port}", "--server", server.url, "--durable", "d", "--max-deliver", "3",
                 "--ack-wait", "2")
    first = Bridge(*arguments, event="peer connected")
    until("some", lambda: len(peer.seen) > 60)
    first.process.kill()
    second = Bridge(*arguments, event="peer connected")
    until("all", lambda: sum(text.isdigit() for text in peer.seen) == 400, 40)

    def settled():
        info = nats.call("$JS.API.CONSUMER.INFO.O.d")
        return info["num_pending"] == 0 and info["num_ack_pending"] == 0
    until("acknowledged", settled, 40)
    reasons = sorted((body, headers) for headers, body in nats.messages("D"))
    assert len(reasons) == 2 and "not JSON" in reasons[0][1] + reasons[1][1], reasons
    assert all("Mq-Subject: o.1\r\n" in headers for _, headers in reasons), reasons
    assert "death" in reasons[1][0], reasons
    second.end()
    third = Bridge("out", "q.*", f"127.0.0.1:{peer.port}", "--server", server.url, "--queue", "nodes", event="peer connected")
    nats.write("SUB answers 2")

    def answered():  # the first may come before the bridge has subscribed
        nats.publish("q.1", '{"command":9}', "answers")
        return nats.next()[::3] == ("answers", '{"command":9,"parameters":[]}')
    until("an answer of the node", answered)
    nats.publish("q.1", "nonsense", "answers")
    assert "Mq-Error: body" in nats.next()[2]
    third.end()


def refused(server):
    """One line and an exit code for what cannot be."""
    with socket.create_server(("127.0.0.1", 0)) as taken:
        place = f"127.0.0.1:{taken.getsockname()[1]}"
        rows = [(2, "SUBJECT", "out"), (2, "fixed word", "in", "127.0.0.1:0", "--subject", "{user}.x"),
                (2, "none of", "in", "127.0.0.1:0", "--subject", "mq.{name}"), (2, "HOST:PORT", "in", "5000"),
                (2, "come back", "out", "dead.>", "127.0.0.1:1", "--durable", "x"),
                (4, "EADDRINUSE", "in", place, "--server", server.url),
                (7, "nothing", "in", "127.0.0.1:0", "--ring", "nothing", "--sign", "nothing")]
        for code, text, *arguments in rows:
            done = subprocess.run([f"{BIN}/mqbridge", *arguments], stderr=subprocess.PIPE, text=True, timeout=20)
            last = done.stderr.splitlines()[-1]
            assert done.returncode == code and text in last and last.startswith("mqbridge: "), (arguments, done)


# ---- A cluster of three ----


class Storer(threading.Thread):
    """A client that sends numbers and notes those it was answered for. It goes on at another bridge, with those it was not."""

    def __init__(self, name, ports, count):
        super().__init__(daemon=True)
        self.name_, self.ports, self.left, self.answered = name, itertools.cycle(ports), collections.deque(range(count)), []
        self.start()

    def run(self):
        sent = collections.deque()
        while self.left or sent:
            try:
                node = Node(next(self.ports))
                while self.left or sent:
                    while self.left and len(sent) < 8:
                        sent.append(self.left.popleft())
                        node.send(1, f"{self.name_}:{sent[-1]}")
                    command, _ = node.receive()
                    number = sent.popleft()
                    self.answered.append(number) if command == STORED else self.left.append(number)
            except OSError:
                self.left.extend(sent)
                sent.clear()
                time.sleep(0.1)


def storing(servers):
    """kill -9 for the stream's leader, then for a bridge: what was answered is stored, once after deduplication."""
    made = make_stream(servers[0], "C", ["c.>"], 3)
    url = ",".join(server.url for server in servers)
    bridges = [Bridge("in", "127.0.0.1:0", "--server", url, "--mode", "store", "--subject", "c.{command}", "--timeout", "30",
                      event="listening") for _ in range(2)]
    ports = [bridge.port for bridge in bridges]
    count = 1500
    storers = [Storer(f"s{i}", ports[i % 2:] + ports[:i % 2], count) for i in range(4)]
    answered = lambda: sum(len(storer.answered) for storer in storers)
    until("a third", lambda: answered() > count * 4 // 3, 60)
    leader = next(server for server in servers if server.name == made["cluster"]["leader"])
    leader.kill()
    until("two thirds", lambda: answered() > count * 4 * 2 // 3, 60)
    bridges[0].process.kill()
    until("all", lambda: all(not storer.is_alive() for storer in storers), 90)
    alive = next(server for server in servers if server is not leader)
    stored = collections.Counter(json.loads(body)["parameters"][0]["value"]
                                 for _, body in Nats(alive.port).messages("C"))
    expected = {f"s{i}:{number}" for i in range(4) for number in range(count)}
    assert set(stored) == expected, f"{len(expected - set(stored))} lost, {len(set(stored) - expected)} unknown"
    twice = sum(stored.values()) - len(stored)
    # A client that lost its bridge sends again what it was not answered for, which is all that may be there twice.
    assert twice <= 4 * 8 and bridges[1].find("status")["stored"] > count, (twice, bridges[1].find("status"))
    print(f"storing: {len(stored)} of {len(expected)} stored, {twice} twice, "
          f"{bridges[1].status('resent')} published again, {bridges[1].status('duplicates')} recognised")
    bridges[1].end()
    leader.start()


def working(servers):
    """kill -9 for one of three workers: every question is answered, by the others; what was lost was told."""
    url = ",".join(server.url for server in servers)
    bridge = Bridge("in", "127.0.0.1:0", "--server", url, "--timeout", "2", event="listening")
    workers = [worker(server, server.name) for server in servers]
    node, by, told = Node(bridge.port), collections.Counter(), 0
    left, sent = collections.deque(range(3000)), collections.deque()
    while left or sent:
        while left and len(sent) < 32:
            sent.append(left.popleft())
            node.send(1, str(sent[-1]))
        if sum(by.values()) == 1000 and workers[0].poll() is None:
            workers[0].send_signal(signal.SIGSTOP)  # what it is given from now on is lost
            threading.Timer(1, workers[0].kill).start()
        command, params = node.receive()
        if command == 2:
            assert params[1] == str(sent.popleft())
            by[params[2]] += 1
        else:
            assert command in (TIME_OVER, NO_RESPONDER), (command, params)
            left.append(sent.popleft())
            told += 1
    assert len(by) == 3 and sum(by.values()) == 3000 and told > 0, (by, told)
    print(f"working: 3000 answered, {dict(sorted(by.items()))}; {told} asked again")
    bridge.end()


SINGLE = (requests, signed, delivered, refused, away)
CLUSTER = (storing, working)


def main(names):
    for tests, make in ((SINGLE, lambda: Server("single", free_ports(1)[0])), (CLUSTER, make_cluster)):
        chosen = [test for test in tests if test.__name__ in names]
        servers = make() if chosen else None
        for test in chosen:
            begin = time.monotonic()
            test(servers)
            print(f"{test.__name__}: {time.monotonic() - begin:.1f} s", flush=True)


try:
    main(sys.argv[2:])
finally:
    for process in started:
        if process.poll() is None:
            process.kill()
            process.wait()
    shutil.rmtree(WORK, ignore_errors=True)
