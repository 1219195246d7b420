# SPDX-License-Identifier: BSD-3-Clause
"""The daemon, its clients and its users, as the tests meet them."""

import array
import collections
import contextlib
import ctypes
import enum
import mmap
import os
import pathlib
import re
import signal
import socket
import struct
import subprocess
import time
from concurrent.futures import ThreadPoolExecutor

SCALE = max(int(os.environ.get("GORV_TEST_LOAD", 20)), 1)  # what the load is divided by
SANITIZED = os.environ["SANITIZERS"] != ""  # memory is another then, and searched in vain
CONSOLED, CONSOLE, DEMO_MODULE, UNKIND_MODULE = (
    os.environ[name] for name in ("CONSOLED", "CONSOLE", "DEMO_MODULE", "UNKIND_MODULE"))

LIMITS = {name: int(number) for name, number in re.findall(
    r"k(\w+)(?: = |{)(\d+)", (pathlib.Path(__file__).parents[2] / "examples/console/Limits.h").read_text())}

PASSWORD = "wonderland"  # of alice and ten like her
PASSPHRASE = "a passphrase that is far too long for any small buffer"  # of the others
HASH = "salt$8808161c460734fc7bb91a1d1a26e7a2eb75ef0b18ce8538c05218d503e23c36"
LONG_HASH = "salt$8e7f7bd5a1dc7663c6ccf7811c8b9123e0ac587c8999d987e0da176f5a980118"

Op = enum.IntEnum("Op", "LOGIN WHO GET SET EVENT CALL RUN LOGOUT CHANGE_PASSWORD")
Result = enum.IntEnum(
    "Result", "DONE BAD_REQUEST UNKNOWN_OPERATION TOO_LARGE NOT_LOGGED_IN REFUSED NOT_FOUND FAILED BUSY", start=0)
Answer = collections.namedtuple("Answer", "result text")
CLOSED = Answer(-1, "")


def frame(operation, *fields):
    texts = [field.encode() for field in fields]
    body = b"".join(struct.pack(">I", len(text)) + text for text in texts)
    return struct.pack(">hI", operation, len(body)) + body


def user(number):
    return f"user{number % 10}"


def eventually(condition):
    for _ in range(1000):
        if condition():
            return True
        time.sleep(0.02)
    return False


def in_parallel(count, step):
    with ThreadPoolExecutor(count) as pool:
        return list(pool.map(step, range(count)))


class Peer:
    """A raw connection to the daemon, which vanishes with its last reference."""

    def __init__(self, port):
        self.socket = socket.create_connection(("127.0.0.1", port), timeout=600)  # of an emulated machine
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))  # no port waits
        self.stream = self.socket.makefile("rb")

    def send(self, data):
        with contextlib.suppress(OSError):
            self.socket.sendall(data)

    def receive(self):
        with contextlib.suppress(OSError, struct.error):
            result, size = struct.unpack(">hI", self.stream.read(6))
            text = self.stream.read(size)
            return Answer(result, text.decode()) if len(text) == size else CLOSED
        return CLOSED

    def finish(self):
        """Send no more, and take whatever comes until the daemon has closed."""
        with contextlib.suppress(OSError):
            self.socket.shutdown(socket.SHUT_WR)
            self.stream.read()

    def ask(self, operation, *fields):
        self.send(frame(operation, *fields))
        return self.receive()

    def log_in(self, name="alice"):
        return self.ask(Op.LOGIN, name, PASSWORD)


class Daemon:
    """A daemon with files, PAM stack and accounts of its own."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self.process = None
        self.port = 0
        self.add_to_stack(*(f"{kind} required [{DEMO_MODULE}] [accounts={folder}/accounts] [record={folder}/record] "
                            "keep=yes" for kind in ("auth", "account", "password", "session")))
        accounts = [("alice", HASH, 0), ("bob", LONG_HASH, 0), ("carol", LONG_HASH, 13), ("dave", LONG_HASH, 12)]
        accounts += [(user(i), HASH, 0) for i in range(10)]
        (self.folder / "accounts").write_text("".join(f"{name}:{digest}:{status}:auto\n"
                                                      for name, digest, status in accounts))

    def add_to_stack(self, *lines):
        with open(self.folder / "test", "a") as stack:
            stack.writelines(line + "\n" for line in lines)

    def launch(self, options="", descriptors=4096):
        with open(self.folder / "stdout", "w") as output, open(self.folder / "stderr", "w") as errors:
            self.process = subprocess.Popen(
                ["sh", "-c", f'ulimit -n {descriptors}; exec "$@"', "sh", CONSOLED, *options.split(), "-port",
                 str(self.port), "-service", "test", "-confdir", self.folder],
                cwd=self.folder, stdout=output, stderr=errors)

    def start(self, options="", descriptors=4096):
        """On the port that it had before, if it had one."""
        (self.folder / "log").unlink(missing_ok=True)
        self.launch(options, descriptors)

        def listens():
            line = re.search(r"listening on port (\d+)\n", self.written("stdout") + self.written("log"))
            self.port = int(line[1]) if line else self.port
            return line
        assert eventually(listens), self.written("stderr")

    def stop(self):
        """End it as an administrator would. Returns its exit status."""
        self.signal(signal.SIGTERM)
        return self.wait()

    def wait(self):
        """One that doesn't end is killed."""
        process, self.process = self.process, None
        try:
            return process.wait(20)
        except subprocess.TimeoutExpired:
            process.kill()
            return process.wait()

    def signal(self, number):
        os.kill(self.process.pid, number)

    def end_session(self, number):
        ctypes.CDLL(None).sigqueue(self.process.pid, signal.SIGUSR2, ctypes.c_void_p(number))

    def logged_in(self, name="alice"):
        """A user's connection, however often it takes to get in."""
        peer = None

        def gets_in():
            nonlocal peer
            peer = Peer(self.port)
            return peer.log_in(name).result == Result.DONE
        assert eventually(gets_in)
        return peer

    def client(self, arguments, typed):
        """What the client prints on standard output, and its exit status."""
        command = f"'{CONSOLE}' {arguments} -port {self.port} 2>/dev/null; echo $?"
        return subprocess.run(command, shell=True, input=f"{typed}\n".encode(), stdout=subprocess.PIPE,
                              check=True).stdout.decode(errors="surrogateescape")

    def written(self, file):
        path = self.folder / file
        return path.read_bytes().decode(errors="surrogateescape") if path.exists() else ""

    def count(self, pattern, file="log"):
        """How often the pattern stands in what was written."""
        return len(re.findall(pattern, self.written(file)))

    def of_process(self, file):
        return pathlib.Path(f"/proc/{self.process.pid}/{file}").read_text()

    def has(self, what):
        """How much the process has of something: "fd" for descriptors, "task" for threads."""
        return len(os.listdir(f"/proc/{self.process.pid}/{what}"))

    def resident(self):  # KiB
        return int(re.search(r"VmRSS:\s+(\d+)", self.of_process("status"))[1])


def touched(pid):
    """All that a process can write and has touched, mapping by mapping."""
    with open(f"/proc/{pid}/maps") as maps, open(f"/proc/{pid}/mem", "rb", 0) as memory, \
            open(f"/proc/{pid}/pagemap", "rb") as pagemap:
        for begin, end in re.findall(r"^(\w+)-(\w+) .w", maps.read(), re.MULTILINE):
            first, last = int(begin, 16) // mmap.PAGESIZE, int(end, 16) // mmap.PAGESIZE
            pagemap.seek(first * 8)
            states = array.array("Q", pagemap.read((last - first) * 8))
            yield b"".join(os.pread(memory.fileno(), mmap.PAGESIZE, page * mmap.PAGESIZE)
                           for page, state in enumerate(states, first) if state >> 62)


def pieces_in(pid, text):
    """How many pieces of the text, of eight characters each, are in the memory of the process."""
    pieces = [text[i:i + 8].encode() for i in range(len(text) - 7)]
    return sum(piece in memory for memory in touched(pid) for piece in pieces)
