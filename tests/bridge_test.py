#!/usr/bin/env python3
"""bridge_test.py BUILD_DIR TEST ... - mqbridge between real nodes and real nats-servers, which die in the middle.

Messages are numbered: what a client was answered for is counted in the cluster.
TEST: requests, signed, delivered, refused, secured, away; with a cluster of three: storing, working.
"""
import base64
import binascii
import collections
import ctypes
import itertools
import json
import os
import signal
import socket
import struct
import subprocess
import sys
import threading
import time
import urllib.request

if len(sys.argv) < 3:
    sys.exit(__doc__)
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "support"))
from cluster import (BIN, ERROR, NO_RESPONDER, STORED, TIME_OVER, WORK, Bridge, Nats, Node, Server, finish,  # noqa: E402
                     free_ports, make_cluster, make_stream, missing, until, worker)


# ---- One server ----


def requests(server):
    """Answers in order; no responder, time over and errors; names of users that are not words; the drain."""
    bridge = Bridge("in", "127.0.0.1:0", "--server", server.url, "--timeout", "1", "--metrics", 0,
                    event="listening")
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
    with urllib.request.urlopen(f"http://127.0.0.1:{bridge.find('metrics')['port']}/metrics") as counters:
        assert b"\nmqbridge_answers_total 200\n" in counters.read()
    nats = Nats(server.port)
    nats.subscribe("mq.*.7")
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
    said = subprocess.run([f"{BIN}/mqcat", "send", "127.0.0.1", str(bridge.port), "-c", "3", "-p", "1=x", "--reply", "-q", "--repeat", "2",
                           "--format", "json", "--sign", f"{WORK}/alice.key", "--ring", f"{WORK}/ring"],
                          check=True, stdout=subprocess.PIPE, timeout=20).stdout
    for answer in map(json.loads, said.splitlines()):
        assert answer["command"] == STORED and answer["user"] == "bridge" and answer["parameters"][2]["value"] == 0, answer
    (headers, body), _ = Nats(server.port).messages("S")
    assert "Mq-Signer: alice\r\n" in headers and len(headers.split("alice/")[1].split("\r\n")[0]) == 32, headers
    assert body[72:77] == "alice"
    bridge.end()


def away(server):
    """A bridge tells of refusals. While the cluster is away, it stays within its memory bound, and loses nothing."""
    make_stream(server, "A", ["a.>"], max_msg_size=5000)
    bridge = Bridge("in", "127.0.0.1:0", "--server", server.url, "--mode", "store", "--subject", "a.{command}", "--memory",
                    "65536", "--timeout", "60", "--per-client", "1000", event="listening")
    assert Node(bridge.port).ask(5, "x" * 5000) == (ERROR, {1: "message size exceeds maximum allowed", 2: "a.5"})
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
    """A node that echoes messages. It closes the connection at a message with the text "death"."""

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
    """From a stream to a node that sometimes dies: each message arrives, or becomes a dead letter if it cannot."""
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
    assert "death" in reasons[1][0] and "Mq-Reason: the peer ended" in reasons[1][1], reasons
    second.end()
    third = Bridge("out", "q.*", f"127.0.0.1:{peer.port}", "--server", server.url, "--queue", "nodes", event="peer connected")
    nats.subscribe("answers")

    def answered():  # the first may come before the bridge has subscribed
        nats.publish("q.1", '{"command":9}', "answers")
        return nats.next()[::3] == ("answers", '{"command":9,"parameters":[]}')
    until("an answer of the node", answered)
    nats.publish("q.1", "nonsense", "answers")
    assert "Mq-Error: body" in nats.next()[2]
    third.end()


def refuses(rows):
    """One line and an exit code for what cannot be."""
    for code, text, *arguments in rows:
        done = subprocess.run([f"{BIN}/mqbridge", *arguments], stderr=subprocess.PIPE, text=True, timeout=20)
        lines = done.stderr.splitlines()
        assert len(lines) == 1 or "connected" in lines[0], (arguments, done)
        assert done.returncode == code and text in lines[-1] and lines[-1].startswith("mqbridge: "), (arguments, done)


def refused(server):
    """What is wrong with the command line, and the places and files that it names."""
    with socket.create_server(("127.0.0.1", 0)) as taken:
        place = f"127.0.0.1:{taken.getsockname()[1]}"
        rows = [(2, "SUBJECT", "out"), (2, "fixed word", "in", "127.0.0.1:0", "--subject", "{user}.x"),
                (2, "none of", "in", "127.0.0.1:0", "--subject", "mq.{name}"), (2, "HOST:PORT", "in", "5000"),
                (2, "no server", "in", "127.0.0.1:0", "--server", ","), (2, "come back", "out", "dead.>", "127.0.0.1:1", "--durable", "x"),
                (4, "EADDRINUSE", "in", place, "--server", server.url),
                (7, "nothing", "in", "127.0.0.1:0", "--ring", "nothing", "--sign", "nothing")]
        refuses(rows)


def nkey():
    """A key of a user: public text, and the text of its seed."""
    def text(data):
        return base64.b32encode(data + binascii.crc_hqx(data, 0).to_bytes(2, "little")).decode().rstrip("=")
    seed, public, secret = os.urandom(32), ctypes.create_string_buffer(32), ctypes.create_string_buffer(64)
    ctypes.CDLL("libsodium.so.23").crypto_sign_seed_keypair(public, secret, seed)
    return text(b"\xa0" + public.raw), text(b"\x95\x00" + seed)


def secured(_):
    """TLS, and ways to say who the bridge is; the cluster, or who the bridge says it is, refused."""
    for name in ("server", "stranger"):
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ed25519", "-nodes", "-subj", "/CN=test", "-addext",
                        "subjectAltName=IP:127.0.0.1", "-keyout", f"{WORK}/{name}.key", "-out", f"{WORK}/{name}.pem"],
                       check=True, stderr=subprocess.DEVNULL)
    public, seed = nkey()
    with open(f"{WORK}/seed", "w") as file, open(f"{WORK}/tls.conf", "w") as config:
        file.write(seed)
        config.write(f"""tls {{ cert_file: "{WORK}/server.pem", key_file: "{WORK}/server.key" }}
            authorization {{ users: [ {{ nkey: {public} }}, {{ user: anna, password: secret }} ] }}""")
    server, peer = Server("tls", free_ports(1)[0], ("-c", f"{WORK}/tls.conf")), Peer()
    os.environ["MQBRIDGE_PASSWORD"] = "secret"
    begin, key = ("in", "127.0.0.1:0", "--server", server.url), ("--nkey", public, "--nkey-seed", f"{WORK}/seed")
    trusting = (*begin, "--tls-ca", f"{WORK}/server.pem")
    out = Bridge("out", "mq.>", "127.0.0.1", peer.port, "--queue", "q", *trusting[2:], "--nats-user", "anna",
                 event="peer connected")
    bridge = Bridge(*trusting, *key, event="listening")
    node = Node(bridge.port)
    until("an answer", lambda: node.ask(1, "first") == (1, {1: "first"}))
    for text in ("x", "x" * 1000, "x" * 100000):
        for _ in range(8):
            node.send(1, text)
        assert [node.receive() for _ in range(8)] == [(1, {1: text})] * 8
    bridge.end()
    out.end()
    refuses([(4, "self-signed", *begin, "--tls-ca", f"{WORK}/stranger.pem", *key),
             (4, "no nkey user seed", *trusting, "--creds", f"{WORK}/server.pem"),
             (4, "Authorization", *trusting, "--nats-user", "bert"), (2, "No such file", *begin, "--creds", "nothing")])


# ---- A cluster of three ----


class Storer(threading.Thread):
    """A client that sends numbers and records the answered ones. Sends unanswered ones again, to another bridge."""

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
    # Only messages unanswered when a client lost its bridge may be stored twice.
    assert twice <= 4 * 8 and bridges[1].find("status")["stored"] > count, (twice, bridges[1].find("status"))
    print(f"storing: {len(stored)} of {len(expected)} stored, {twice} twice, "
          f"{bridges[1].status('resent')} published again, {bridges[1].status('duplicates')} recognised")
    bridges[1].end()
    leader.start()


def working(servers):
    """kill -9 for one of three workers: the others answer every question, and losses are reported."""
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
            workers[0].send_signal(signal.SIGSTOP)  # messages delivered to it from now on are lost
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


SINGLE = (requests, signed, delivered, refused, secured, away)
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
    if missing():
        print("skipped: no", missing())
        sys.exit(77)
    main(sys.argv[2:])
finally:
    finish()
