"""What the programs survive as processes: being killed, stopped, cut off, flooded.

processes_test.py lives COMPONENT WATCH      every row of LIVES, several at a time
processes_test.py stranger COMPONENT WATCH   another user; status 77 where this one cannot become another

The component changes its test items one after the other, so the revisions that a consumer knows tell by
themselves whether they belong together and how many changes they show.  What a consumer knows is put
together here from the changes it prints, which must follow from one another.
"""

import concurrent.futures
import errno
import itertools
import json
import os
import pathlib
import random
import select
import shlex
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time
import traceback
from socket import AF_UNIX, SOCK_DGRAM, SOCK_NONBLOCK, socket

COMPONENT, WATCH = (shlex.split(command) for command in sys.argv[2:4])
PATIENCE = 100 if len(COMPONENT) > 1 else 40  # seconds; longer in an emulator
ND, ME, OTHER = 100, 200, 777


def until(condition, what, step=lambda left: time.sleep(min(left, 0.02))):
    """Steps until the condition holds; a step takes at most the seconds it is given."""
    end = time.monotonic() + PATIENCE
    while not condition():
        assert time.monotonic() < end, f"{what}: not within {PATIENCE} s"
        step(max(end - time.monotonic(), 0))


class Process:
    """One whose output is read only when somebody waits for it: until then a full pipe holds it up."""

    def __init__(self, world, command, *options):
        self.errors, self.rest = world.folder / f"errors{len(world.processes)}", b""
        with self.errors.open("w") as errors:
            self.popen = subprocess.Popen([*command, *map(str, options)], stdout=subprocess.PIPE, stderr=errors,
                                          env={**os.environ, "PEGEIR_RUNTIME_DIR": str(world.run)})
        world.processes.append(self)

    def line(self, seconds):
        """Returns the next line, None if none comes in that time, "" at the end."""
        while b"\n" not in self.rest:
            if not select.select([self.popen.stdout], [], [], seconds)[0]:
                return None
            got = os.read(self.popen.stdout.fileno(), 1 << 16)
            if not got:
                return ""
            self.rest += got
        line, self.rest = self.rest.split(b"\n", 1)
        return line.decode()

    def end(self, number=signal.SIGTERM):
        """Ends it, with status 0 unless it is killed: so no sanitizer has anything to say either."""
        self.popen.send_signal(number)
        while self.line(PATIENCE):
            pass
        code = self.popen.wait(PATIENCE)
        assert code == (-number if number == signal.SIGKILL else 0), (self.popen.args, code)

    def said(self):
        return self.errors.read_text(errors="replace")


class Component(Process):
    def __init__(self, world, count, size=12, *options):
        super().__init__(world, COMPONENT, "--no-kernel", "-q", "--synthetic", count, "--synthetic-size", size, *options)
        self.count, self.size = count, size
        assert (self.line(PATIENCE) or "").startswith("ready id=100 "), self.said()


class Consumer(Process):
    def __init__(self, world, number, wanted, *options):
        super().__init__(world, WATCH, "--json", "--id", number, "--synthetic", wanted, *options)
        self.number, self.items, self.states, self.problems, self.report = number, {}, [], set(), ""

    def step(self, seconds):
        """Takes in what it prints next.  Returns whether there was something."""
        line = self.line(seconds)
        assert line != "", f"consumer {self.number} has ended"
        event = json.loads(line) if line else {"event": None}
        if event["event"] == "item":
            index, value = event["index"], (event["revision"], event["bytes"])
            known = self.items.pop(index, None)
            expected = {"new": known is None, "same": known == value, "changed": known and known != value, "gone": known}
            assert expected[event["change"]], (event, known)
            if event["change"] != "gone":
                self.items[index] = value
        elif event["event"] == "state":
            self.states.append(event["state"])
            assert event.get("items", len(self.items)) == len(self.items), event
        elif event["event"] == "diagnose":
            self.report = event["text"] if event["page"] == 1 else self.report
        elif event["event"] == "problem":
            self.problems.add(event["problem"])
        return line is not None

    def until(self, condition, what):
        until(condition, f"consumer {self.number}, {what}", self.step)

    def until_state(self, state):
        count = self.states.count(state)
        self.until(lambda: self.states.count(state) > count, f"{state} after {self.states}")

    def changes(self, count):
        """How many changes the component had made at least, and fewer than how many, to have these revisions."""
        least, beyond = 0, sys.maxsize
        for index, (revision, _) in self.items.items():
            last = (index or count) + (revision - 2) * count
            least, beyond = max(least, last), min(beyond, last + count)
        return least, beyond

    def knows(self, component, wanted, least=0):
        """Whether it knows what was served after some number of changes, at least that many."""
        after, beyond = self.changes(component.count)
        return (self.items.keys() == {index for index in wanted if index < component.count} and
                least <= after < beyond and
                all(text == f"{index % 256:02x}" * (component.size - 12) for index, (_, text) in self.items.items()))

    def follows(self, component, wanted):
        next_change = self.changes(component.count)[0] + 1
        self.until(lambda: self.knows(component, wanted, next_change), "following the changes")


class World:
    """A runtime directory and who meets in it."""

    def __init__(self, folder):
        self.folder, self.run, self.processes = pathlib.Path(folder), pathlib.Path(folder) / "run", []

    def path(self, *ids):
        return f"{self.run}/{'.'.join(map(str, ids))}.sock"


def killed(world, phase):
    """The component is killed in a phase of its consumer; its successor serves other items."""
    # Long enough to be interrupted: an upload is paced, and of a download the pipe holds a part.
    count, size, wanted = (21000, 12, 21000) if phase == "uploading" else (1500, 1000, "all")
    component = Component(world, count, size)
    if phase == "available":
        component.popen.send_signal(signal.SIGSTOP)  # it is there and does not answer
    watch = Consumer(world, ME, wanted, *(["--verify"] if phase == "verifying" else []))  # it would end "ready"
    watch.until_state("registered" if phase == "uploading" else phase)
    last = watch.states[-1]
    while phase == "uploading" and ("Subscribe data\n" not in watch.report or "sendSubNum           : 0\n" in watch.report):
        watch.report = ""
        watch.popen.send_signal(signal.SIGUSR1)
        watch.until(lambda: watch.report, "its report")
    component.end(signal.SIGKILL)
    watch.until_state("gone")
    assert watch.states[-2] == last, watch.states
    component = Component(world, count - 50, size + 4)
    watch.until_state("ready")
    assert watch.knows(component, range(count)), watch.states


def stopped(world, phase):
    """The consumer is stopped until nothing more fits its receive queue, while the items change."""
    component = Component(world, 700, 1000, "--change-every", 20)
    watch = Consumer(world, ME, "all")
    watch.until_state(phase)
    watch.popen.send_signal(signal.SIGSTOP)
    with socket(AF_UNIX, SOCK_DGRAM) as probe:
        probe.connect(world.path(ME))  # it polls writable until the queue is full
        until(lambda: not select.select([], [probe], [], 0)[1], "a full receive queue")
    served = Consumer(world, OTHER, "all")
    served.until_state("ready")  # the component goes on with the others
    least = served.changes(component.count)[0]
    assert least > watch.changes(component.count)[0]
    watch.popen.send_signal(signal.SIGCONT)
    watch.until(lambda: "ready" in watch.states and watch.knows(component, range(700), least), "what is served")
    assert watch.states.count("registered") == 1 and "gone" not in watch.states, watch.states


def crowd(world, size):
    """That many consumers at once, each with a subscription of its own."""
    component = Component(world, 400, 20, "--change-every", 10)
    wishes = [("all", range(400)), ("7", range(7)), ("500-600", []), ("0-399", range(400))]
    wishes += [(f"{begin}-{begin + 90}", range(begin, begin + 91)) for begin in range(0, 60 * (size - 4), 60)]
    consumers = [(Consumer(world, ME + i, text), wanted) for i, (text, wanted) in enumerate(wishes)]
    for watch, wanted in consumers:
        watch.until_state("ready")
        if wanted:
            watch.follows(component, wanted)
        assert not watch.problems and (wanted or not watch.items), (watch.problems, watch.items)


def removed(world, _):
    """The runtime directory goes away under both of them, more than once."""
    component = Component(world, 50, 12, "--change-every", 50)
    watch = Consumer(world, ME, "all")
    watch.until_state("ready")
    for times in (1, 2):
        world.run.rename(world.folder / "aside")  # at once, or they would be back in it while it is being emptied
        shutil.rmtree(world.folder / "aside")
        watch.until_state("gone")
        watch.until_state("ready")
        watch.follows(component, range(50))
        for process, number in ((component, ND), (watch, ME)):
            lines = process.said().splitlines()
            assert len(lines) == times and lines[-1].endswith(
                f"runtime directory {world.run}: was cleared; id {number} is there again"), lines


def attackers(chance, world, to, pretended):
    """Returns sockets, each with packets for process `to` of which none may have an effect."""
    def packet(body, sub=164, receiver=1, magic=0x50475201):
        return struct.pack(">IIII", magic, 3, sub, receiver) + body

    def message(kind, body, length=None, flags=0):
        return struct.pack(">HBBIII", 16 + len(body) if length is None else length, flags, kind, 1, 0, 1) + body

    junk, good = chance.randbytes, message(16, b"")
    anything = [junk(chance.randrange(1, 300)), packet(junk(16))[:chance.randrange(1, 16)], packet(junk(40), magic=1),
                packet(junk(65536)), packet(junk(140000)), packet(good, receiver=3), packet(good)]
    # What bears the right name is believed to come from there, and must be refused for what it says.
    believed = [packet(b""), packet(junk(15)), packet(message(chance.choice([0, 15, 30, 255]), junk(30))),
                packet(message(24, junk(20), 65535)), packet(message(18, b"", 17)), packet(good, sub=7),
                packet(message(23 if to == ND else 19, junk(9)))]
    unknown = [packet(message(kind, junk(chance.randrange(60)), flags=chance.choice([0, 128]))) for kind in range(16, 30)]
    senders = [("", anything), (world.path(pretended, to), believed), (world.path(OTHER, to), believed + unknown)]
    forged = ["\0" + world.path(pretended, to), f"{world.run}/\xff", *(world.path(*ids) for ids in (
        (0, to), (f"0{pretended}", to), (ND, ME, to), (pretended, to, "x"), (pretended, to + 1), (1 << 32, to)))]
    for name, packets in senders + [(name, anything) for name in forged]:
        one = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK)
        if name:
            one.bind(name)
            pathlib.Path(name.lstrip("\0")).unlink(missing_ok=True)  # as the processes do: the socket keeps it
        yield one, packets, to


def flooded(world, seed):
    """A download goes on between datagrams of all sorts from a process of the same user."""
    watch = Consumer(world, ME, "all")
    watch.until_state("waiting")
    chance, arrived = random.Random(seed), {ND: 0, ME: 0}
    senders = [*attackers(chance, world, ND, ME), *attackers(chance, world, ME, ND)]
    component = Component(world, 1500, 1000)

    def attack(_):
        one, packets, to = chance.choice(senders)
        for packet in packets:
            try:
                one.sendto(packet, world.path(to))
                arrived[to] += watch.states[-1] == "downloading"
            except BlockingIOError:
                pass  # its queue is full
        while chance.random() < 0.7 and watch.step(0.001):
            pass

    until(lambda: "ready" in watch.states, "ready under attack", attack)
    assert watch.knows(component, range(1500)) and min(arrived.values()) > 20, (arrived, watch.states)
    # A begin whose acknowledgement takes long comes again.
    states = [state for state, _ in itertools.groupby(watch.states)]
    assert states == ["waiting", "available", "registered", "downloading", "ready"], watch.states
    assert f"{world.path(ND)} refused " in component.said() and f"{world.path(ME)} refused " in watch.said()
    assert watch.problems == {"refused"}, watch.problems
    for one, _, _ in senders:
        one.close()


def stranger(world, _):
    """A socket that was connected as this user, and is used by another one."""
    component = Component(world, 5)
    with socket(AF_UNIX, SOCK_DGRAM) as link:
        link.connect(world.path(ND))
        link.bind(world.path(OTHER, ND))
        child, code = os.fork(), 77
        if child == 0:
            try:
                os.setuid(65534)
                code = 1
                link.send(struct.pack(">IIIIHBBIII", 0x50475201, 3, 164, 1, 16, 0, 16, 1, 0, 0))  # a registration
                code = link.connect_ex(world.path(ND)) != errno.EACCES
            finally:
                os._exit(code)
        code = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
    if code == 77:
        component.end()
        print("this user cannot become another")
        sys.exit(77)
    assert code == 0, "the other user got into the directory, or could not send"
    until(lambda: "refused a message: it comes from another user" in component.said(), "the refusal")
    assert ", user 65534)" in component.said() and world.path(OTHER, ND) in component.said(), component.said()
    watch = Consumer(world, ME, "all")
    watch.until_state("ready")
    assert watch.knows(component, range(5))


LIVES = [(stopped, "ready"), *((killed, phase) for phase in ("available", "uploading", "downloading", "ready", "verifying")),
         (stopped, "downloading"), (crowd, 10), (removed, ""), (flooded, 1), (flooded, 2)]


def live(life):
    act, argument = life
    began, wrong = time.monotonic(), ""
    with tempfile.TemporaryDirectory() as folder:
        world = World(os.path.realpath(folder))
        try:
            act(world, argument)
            for process in world.processes:
                if process.popen.returncode is None:
                    process.end()
        except Exception:
            wrong = traceback.format_exc() + "\n".join(process.said()[-3000:] for process in world.processes)
        finally:
            for process in world.processes:
                with process.popen:
                    process.popen.kill()
    print(f"{act.__name__} {argument}: {time.monotonic() - began:.1f} s {wrong or 'well'}", flush=True)
    return bool(wrong)


if sys.argv[1] == "stranger":
    sys.exit(live((stranger, "")))
with concurrent.futures.ThreadPoolExecutor(4) as pool:
    sys.exit(any(list(pool.map(live, LIVES))))
