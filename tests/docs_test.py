#!/usr/bin/env python3
"""docs_test.py BUILD_DIR - checks README and guide: each code block is part of an example that is built; the commands
of a document are run as written, in one shell, in a directory that looks like the tree, and print what is shown below
them; links lead to a file and a heading. A line "..." stands for omitted lines."""
import getpass
import os
import re
import subprocess
import sys
import tempfile
import time
from pathlib import Path

BUILD = Path(sys.argv[1]).resolve()
TREE = Path(__file__).resolve().parent.parent

ELSEWHERE = {  # beginnings of commands that are not run here, and why
    "./run demo": "the test examples runs what it builds",
    "./run test": "this is a part of it",
    "./run build": "the build directory exists",
    "cpack ": "the test install makes and reads the packages",
    "apt install ": "changes the system; the test install unpacks the packages",
}
SHAPES = {  # texts that vary between runs, and what matches them; None: the same pattern
    r"…": r".*",
    r"\banna\b": re.escape(getpass.getuser()[:12]),
    r"\b[0-9a-f]{64}\b": None,
    r"\d{4}-\d\d-\d\d[ T][\d:]{8}\.\d{3}": None,
    r" *\d+\.\d{3} ms +\d+(?: #+)?": None,
    r"\b\d+\.\d{3}\b": None,
    r"\b\d+\.\d s\b": None,
    r"\btime \d+ ms": None,
    r"\b5\d{4}\b": r"\d+",
    r"\b404\d\d\b": "",  # a port chosen by the kernel: the same one from its first output on
}
SHAPE = re.compile("|".join(f"({shape})" for shape in SHAPES))
failures = []


def wait_for(seconds, condition):
    end = time.monotonic() + seconds
    while not (found := condition()) and time.monotonic() < end:
        time.sleep(0.02)
    return found


class Shell:
    """A shell with an empty home, in a directory with what documents refer to: build, examples, tools, docs."""

    def __init__(self, folder):
        self.ports, self.commands, self.output = {}, 0, folder / "output"
        (folder / "home").mkdir()
        (folder / "tree/build").mkdir(parents=True)
        (folder / "tree/build/release").symlink_to(BUILD)
        for name in ("examples", "tools", "docs"):
            (folder / "tree" / name).symlink_to(TREE / name)
        kept = {name: os.environ[name] for name in ("PATH", "CC", "CXX") if name in os.environ}
        self.bash = subprocess.Popen(["bash", "--norc"], cwd=folder / "tree", stdin=subprocess.PIPE, text=True,
                                     stdout=self.output.open("w"), stderr=subprocess.STDOUT,
                                     env=kept | {"HOME": str(folder / "home"), "LC_ALL": "C.UTF-8"})

    def lines(self):
        return self.output.read_text().splitlines()[self.start:]

    def run(self, command):
        for port, real in self.ports.items():
            command = command.replace(port, real)
        self.commands += 1
        self.start = 0
        self.start = len(self.lines())
        end = f"--- command {self.commands} ended with "
        self.bash.stdin.write(f'{{ {command}\n}} </dev/null; echo "{end}$?"\n')
        self.bash.stdin.flush()
        return wait_for(100, lambda: [int(line.split()[-1]) for line in self.lines() if line.startswith(end)])

    def printed(self, shown):
        """Whether the last command printed a line like this; remembers the ports in it."""
        def match(found):
            shape = list(SHAPES)[found.lastindex - 1]
            port = f"(?P<p{found[0]}>\\d+)" if SHAPES[shape] == "" else None
            return self.ports.get(found[0]) or port or SHAPES[shape] or shape
        pattern, end = "", 0
        for found in SHAPE.finditer(shown):
            pattern += re.escape(shown[end:found.start()]) + match(found)
            end = found.end()
        pattern = re.compile(pattern + re.escape(shown[end:]))
        found = wait_for(10, lambda: next(filter(None, map(pattern.fullmatch, self.lines())), None))
        self.ports |= {name[1:]: port for name, port in found.groupdict().items()} if found else {}
        return found

    def close(self):
        self.bash.communicate("kill $(jobs -p) 2>/dev/null; wait; exit 0\n", timeout=30)


def check_code(where, code):
    for file in [*TREE.glob("examples/*.[ch]*"), *TREE.glob("examples/outside/CMakeLists.txt")]:
        if f"\n{code}" in f"\n{file.read_text()}":
            if file.suffix in (".c", ".cc") and not (BUILD / "bin" / file.stem).exists():
                failures.append(f"{where}: {file.name} is not built")
            return
    failures.append(f"{where}: code that no example has:\n{code}")


def check_commands(where, kind, block, shell, unused):
    start = r"^\$ " if kind == "console" else r"^(?=[^#\n])"
    for part in re.split(start, re.sub(r"\\\n(> )?", "", block), flags=re.M)[1:]:
        command, *shown = part.splitlines()
        if elsewhere := [start for start in ELSEWHERE if command.startswith(start)]:
            unused.difference_update(elsewhere)
            continue
        if shell.run(command) != [0]:
            failures.append(f"{where}: failed: {command}\n" + "\n".join(shell.lines()[:20]))
        for line in shown if kind == "console" else []:
            if line != "..." and not shell.printed(line):
                failures.append(f"{where}: not printed by {command}\n  {line}\n" + "\n".join(shell.lines()[:20]))


def check_document(path, unused):
    text = path.read_text()
    blocks = list(re.finditer(r"^( *)```(\w*)\n(.*?)^\1```$", text, re.M | re.S))
    if 2 * len(blocks) != len(re.findall(r"^ *```", text, re.M)):
        failures.append(f"{path.name}: a block without an end")
    with tempfile.TemporaryDirectory() as folder:
        shell = Shell(Path(folder))
        for indent, kind, block, where in ((*found.groups(), f"{path.name}:{text.count(chr(10), 0, found.start()) + 1}")
                                           for found in blocks):
            block = re.sub(f"^{indent}", "", block, flags=re.M)
            if kind in ("c", "cpp", "cmake"):
                check_code(where, block)
            elif kind in ("sh", "console"):
                check_commands(where, kind, block, shell, unused)
            elif kind != "text":
                failures.append(f"{where}: a code block needs a language: sh, console, c, cpp, cmake or text")
        shell.close()
        print(f"{path.name}: {len(blocks)} blocks, {shell.commands} commands")


def check_links(path):
    for file, heading in re.findall(r"\]\((?!https?:)([^)#]*)#?([^)]*)\)", re.sub(r"```.*?```", "", path.read_text(), flags=re.S)):
        target = path.parent / file if file else path
        titles = re.findall(r"^#+ (.*)", target.read_text(), re.M) if heading and target.exists() else []
        if not target.exists() or heading not in ["", *(re.sub(r"[^\w -]", "", title.lower()).replace(" ", "-")
                                                        for title in titles)]:
            failures.append(f"{path.name}: broken link to {file}#{heading}")


def main():
    unused = set(ELSEWHERE)
    for path in TREE / "README.md", TREE / "docs/guide.md":
        check_document(path, unused)
    for path in [*TREE.glob("*.md"), *TREE.glob("docs/**/*.md"), *TREE.glob("tools/*/*.md")]:
        check_links(path)
    failures.extend(f"no document has the command {start}, which is listed as run elsewhere" for start in unused)
    sys.exit("\n".join(f"FAILED: {failure}" for failure in failures) or 0)


main()
