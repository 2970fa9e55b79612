#!/usr/bin/env python3
"""cluster.py BUILD_DIR [OPTION ...] - the demonstration on "more than one machine", all on this one: three
nats-servers, two bridges, three workers and many clients. One of the servers is killed in the middle.

With --soak, something is killed every few seconds and started again: a server, a bridge or a worker. Other clients then
store numbered messages in a stream with three replicas, which are counted at the end. The stream tolerates one failure
at a time: the next server is killed when the last one has caught up.
Exit code: 0 every message was answered and, if stored, is there; 1 not so; after Ctrl-C 130, with the results so far.
"""
import argparse
import collections
import itertools
import os
import random
import signal
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "support"))
from cluster import (STORED, Bridge, Nats, Node, finish, free_ports, is_whole, make_cluster,  # noqa: E402
                     make_stream, missing, until, worker)


class Client(threading.Thread):
    """Asks one question after another. Repeats unanswered ones, through another bridge if the connection is lost."""

    def __init__(self, name, ports, right, pause):
        super().__init__(daemon=True)
        self.name_, self.ports, self.right, self.pause = name, itertools.cycle(ports), right, pause
        self.by, self.again, self.asked, self.wrong, self.stop = collections.Counter(), 0, 0, 0, False
        self.told = []  # of each stored message, what its answer said: stream, sequence, whether it is a duplicate

    def run(self):
        node = None
        while not self.stop:
            text = f"{self.name_}:{self.asked}"
            self.asked += 1
            while True:
                try:
                    node = node or Node(next(self.ports), self.name_)
                    command, params = node.ask(1, text)
                except OSError:
                    node = None
                    time.sleep(random.uniform(0.05, 0.2))
                    command, params = None, {}
                if command == self.right:
                    break
                self.again += 1
            if self.right == STORED:
                self.told.append(params)
            self.by[params[2] if self.right == 2 else "stored"] += 1
            self.wrong += self.right == 2 and params[1] != text
            time.sleep(random.uniform(0, self.pause))


class World:
    def __init__(self, options):
        self.options = options
        self.servers = make_cluster()
        make_stream(self.servers[0], "DEMO", ["demo.>"], 3)
        self.url = ",".join(server.url for server in self.servers)
        modes = ["request", "request"] + ["store", "store"] * bool(options.soak)
        self.ports = dict(enumerate(free_ports(len(modes))))
        self.modes = modes
        self.bridges = {i: self.make_bridge(i) for i in self.ports}
        self.workers = {name: worker(server, name) for name, server in zip(("anna", "bert", "carl"), self.servers)}

    def make_bridge(self, i):
        more = ("--subject", "demo.{user}") if self.modes[i] == "store" else ()
        return Bridge("in", f"127.0.0.1:{self.ports[i]}", "--server", self.url, "--mode", self.modes[i], "--timeout", "3",
                      *more, event="listening")

    def make_clients(self):
        pause = 0.2 if self.options.clients > 50 else 0.02
        kinds = ("request", 2), ("store", STORED)
        by_mode = {mode: [port for i, port in self.ports.items() if self.modes[i] == mode] for mode, _ in kinds}
        return [Client(f"{mode[0]}{i}", ports[i % 2:] + ports[:i % 2], right, pause)
                for mode, right in kinds if (ports := by_mode[mode]) for i in range(self.options.clients)]

    def kill_server(self):
        until("all replicas are up to date", lambda: is_whole(random.choice(self.servers), "DEMO"), 60)
        server = random.choice(self.servers)
        server.kill()
        print(f"  killed nats-server {server.name}", flush=True)
        return server.start

    def kill_bridge(self):
        i = random.choice(list(self.bridges))
        self.bridges[i].process.kill()
        print(f"  killed bridge {i} ({self.modes[i]})", flush=True)
        return lambda: self.bridges.update({i: self.make_bridge(i)})

    def kill_worker(self):
        name = random.choice(list(self.workers))
        self.workers[name].kill()
        print(f"  killed worker {name}", flush=True)
        return lambda: self.workers.update({name: worker(random.choice(self.servers), name)})

    def stir(self):
        """Kills processes until the time is over. The demonstration kills one server, which stays dead."""
        if not self.options.soak:
            time.sleep(self.options.seconds / 2)
            self.kill_server()
            return time.sleep(self.options.seconds / 2)
        end = time.monotonic() + self.options.soak
        for kill in itertools.cycle((self.kill_server, self.kill_bridge, self.kill_worker)):
            if time.monotonic() + 6 > end:
                return time.sleep(max(0, end - time.monotonic()))
            time.sleep(2)
            again = kill()
            time.sleep(2)
            again()

    def stored(self):
        alive = next(server for server in self.servers if server.process.poll() is None)
        return [body.split('"value":"')[1].split('"')[0] for _, body in Nats(alive.port).messages("DEMO")]


def count_stored(texts, clients):
    """Rows about the stream. Prints the messages that are not there although a client was told so."""
    stored = collections.Counter(texts)
    told = {f"{c.name_}:{i}": params for c in clients for i, params in enumerate(c.told)}
    lost = [text for text in told if text not in stored]
    for text in lost:
        number, is_duplicate = told[text][2], told[text][3]
        there = texts[number - 1] if number <= len(texts) else "nothing"
        print(f"  not in the stream: {text}, told number {number}{' as a duplicate' * is_duplicate}, where {there} is")
    return [("in the stream", len(stored)), ("of them more than once", sum(n > 1 for n in stored.values())),
            ("missing there", len(lost))]


def report(world, clients):
    asked, answered = sum(c.asked for c in clients), sum(sum(c.by.values()) for c in clients)
    by = sum((c.by for c in clients), collections.Counter())
    for name, count in sorted(by.items()):
        print(f"  {'answered by ' + name if name != 'stored' else name:20} {count:8}")
    wrong = sum(c.wrong for c in clients)
    rows = [("asked", asked), ("answered", answered), ("asked again", sum(c.again for c in clients)), ("wrong", wrong),
            ("without an answer", asked - answered)]
    missing = 0
    if world.options.soak:
        rows += count_stored(world.stored(), clients)
        missing = rows[-1][1]
    for name, count in rows:
        print(f"  {name:20} {count:8}")
    return asked == answered and asked > 0 and wrong == 0 and missing == 0


def main():
    parser = argparse.ArgumentParser(prog="run demo --cluster", description=__doc__.split("\n\n")[0].split(" - ")[1])
    parser.add_argument("build")
    parser.add_argument("--clients", type=int, default=200, help="clients of each kind (200)")
    parser.add_argument("--seconds", type=float, default=8, help="length of the demonstration (8)")
    parser.add_argument("--soak", type=float, metavar="SECONDS", help="kill and restart processes for this long")
    options = parser.parse_args()
    if missing():
        sys.exit("run: no " + missing())
    print("three nats-servers, three workers, two bridges" + (" of each mode" if options.soak else ""), flush=True)
    world = World(options)
    clients = world.make_clients()
    for client in clients:
        client.start()
    code = 0
    try:
        world.stir()
    except SystemExit as interrupt:
        code = interrupt.code
    for client in clients:
        client.stop = True
    for client in clients:
        client.join(30)
    good = report(world, clients)
    print("nothing is lost" if good else "SOMETHING IS LOST")
    return code or int(not good)


for number in (signal.SIGINT, signal.SIGTERM):
    signal.signal(number, lambda caught, _: sys.exit(128 + caught))
try:
    code = main()
except AssertionError as failure:
    code = f"run: {failure}"
finally:
    finish()
sys.exit(code)
