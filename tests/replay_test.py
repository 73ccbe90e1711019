"""Plays back what the programs record.

replay_test.py REPLAY COMPONENT WATCH COMPILE LINK EMULATOR   the last three: how to build and run a test, ;-separated

One session is recorded: a component that is started late, killed in the middle of its service and started
again, updates, a verification pass, a consumer that ends in order.  What is played back is that recording,
and recordings made of it by changing bytes.
"""

import json
import os
import pathlib
import random
import struct
import subprocess
import sys
import tempfile
import time

REPLAY, COMPONENT, WATCH, COMPILE, LINK, EMULATOR = sys.argv[1:7]
PCAP = struct.Struct("=IHHiIII")
RECORD = struct.Struct("=IIII")
HEAD = struct.Struct(">3sBBBHIIIIIIIII")
MESSAGE, PEER, CLOCK, IN, OUT = 3, 4, 7, 1, 2
RESULT = 10  # in a head


class Packet:
    def __init__(self, stamp, raw):
        self.stamp, self.head, self.data = stamp, list(HEAD.unpack_from(raw)), raw[HEAD.size:]

    def sent(self, kind=None):
        """Whether it is a message that went out, a request of that type if one is given."""
        return self.head[2:4] == [MESSAGE, OUT] and (kind is None or self.data[2:4] == bytes([0, kind]))

    def raw(self):
        return HEAD.pack(*self.head) + self.data


def load(path):
    raw, packets, at = path.read_bytes(), [], PCAP.size
    while at < len(raw):
        seconds, fraction, size, _ = RECORD.unpack_from(raw, at)
        packets.append(Packet((seconds, fraction), raw[at + RECORD.size:at + RECORD.size + size]))
        at += RECORD.size + size
    return packets


def pcap(raws, linktype=147):
    return PCAP.pack(0xA1B23C4D, 2, 4, 0, 0, 262144, linktype) + b"".join(
        RECORD.pack(1, 0, len(raw), len(raw)) + raw for raw in raws)


def record(directory):
    """Returns the recordings of the consumer and of the component that lived longer."""
    run = ["--directory", str(directory / "run")]
    consumer = directory / "consumer.pcap"
    serve = [COMPONENT, *run, "--no-kernel", "--synthetic", "700", "--change-every", "300", "-q"]

    def await_state(name):
        for line in watch.stdout:
            if json.loads(line).get("state") == name:
                return
        sys.exit(f"pegeir-watch ended before it was {name}")

    watch = subprocess.Popen([WATCH, *run, "--synthetic", "600", "--json", "--until-verified", "--capture",
                              consumer], stdout=subprocess.PIPE, text=True)
    await_state("waiting")
    component = subprocess.Popen([*serve, "--capture", directory / "first.pcap"], stdout=subprocess.DEVNULL)
    await_state("downloading")
    component.kill()
    component.wait()
    await_state("gone")
    component = subprocess.Popen([*serve, "--capture", directory / "component.pcap"], stdout=subprocess.DEVNULL)
    await_state("verified")
    watch.stdout.read()
    assert watch.wait(20) == 0
    component.terminate()
    component.wait()
    return consumer, directory / "component.pcap"


def replay(content, *options):
    """Plays back a file or bytes.  Returns exit status, output, errors."""
    if isinstance(content, bytes):
        path = pathlib.Path(scratch) / "played.pcap"
        path.write_bytes(content)
    else:
        path = content
    done = subprocess.run([REPLAY, *options, path], stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=60,
                          encoding="utf-8", errors="replace")
    assert done.returncode in (0, 1, 2), (done.returncode, done.stderr)
    return done.returncode, done.stdout, done.stderr


def check_equal(consumer):
    code, text, errors = replay(consumer)
    assert (code, errors) == (0, ""), (code, text[-2000:], errors)
    for part in ["* Wait smooth data -> Ready (Smooth end)", "> 21 verify begin",
                 "< component 100 is gone", "+ synthetic 5: revision", "600, done", "\nequal: "]:
        assert part in text, part
    code, text, _ = replay(consumer, "--json", "--diagnose")
    objects = [json.loads(line) for line in text.splitlines()]
    # What a full queue refused then is refused again, and told as such.
    sent = [packet.data.hex() for packet in load(consumer) if packet.sent() and packet.head[RESULT] == 0]
    played = [one["bytes"] for one in objects if one["event"] == "sent"]
    assert code == 0 and played == sent, (code, len(played), len(sent))
    assert objects[-1]["equal"] and objects[-1]["messages"] == len(sent)
    reports = "".join(one["text"] for one in objects if one["event"] == "diagnose")
    assert "FSM statistic" in reports and "FSM blackbox info" in reports


def check_clock(consumer):
    """A second that began between a delivery and the library's look at the clock."""
    packets = load(consumer)
    at = next(i for i, packet in enumerate(packets) if packet.head[2:4] == [MESSAGE, IN]) + 1
    clock = Packet(packets[at - 1].stamp, packets[at - 1].raw())
    clock.head[2], clock.head[5:10], clock.data = CLOCK, [clock.head[6], 0, 0, 0, 0], b""
    packets.insert(at, clock)
    for number, packet in enumerate(packets):
        packet.head[13] = number
    code, text, errors = replay(pcap(packet.raw() for packet in packets))
    assert (code, errors) == (0, ""), (code, text[-2000:], errors)


def check_differences(consumer):
    def changed(change, kind=None, skip=0):
        packets = load(consumer)
        index = [i for i, packet in enumerate(packets) if packet.sent(kind)][skip]
        change(packets, index)
        code, text, _ = replay(pcap(packet.raw() for packet in packets))
        assert code == 1, text[-2000:]
        return index + 1, text[text.index("first difference"):]

    def flip(packets, index):
        data = bytearray(packets[index].data)
        data[7] ^= 1
        packets[index].data = bytes(data)

    where, text = changed(flip, 18, 1)
    assert f"in packet {where}: another message is sent now than then" in text
    then, now = [line.split()[3] for line in text.splitlines() if line.split()[1:3] in (["then", "number"],
                                                                                     ["now", "number"])]
    assert int(then) ^ 1 == int(now), text

    def drop(packets, index):
        del packets[index]
        for number, packet in enumerate(packets):
            packet.head[-1] = number

    _, text = changed(drop, 19)
    assert "a message is sent now that was not sent then" in text and "19 subscribe end" in text

    def double(packets, index):
        packets.insert(index, packets[index])
        for number, packet in enumerate(packets):
            packet.head = packet.head[:-1] + [number]

    _, text = changed(double, 17)
    assert "a message that was sent then is not sent now" in text and "17 subscribe begin" in text

    def refuse(packets, index):
        packets[index].head[10] = 1  # the platform's answer: then the records go out again in a second

    _, text = changed(refuse, 18, 1)
    assert "a message is sent now that was not sent then" in text and "18 subscribe data" in text, text


def check_bad_files(consumer, component):
    whole = consumer.read_bytes()
    packets = load(consumer)
    for content, words in [
            (b"", "--capture"),
            (b"no capture file at all, but long enough for one's head", "--capture"),
            (pcap([packet.raw() for packet in packets], linktype=1), "link type 1"),
            (pcap([]), "no packet of pegeir's"),
            (pcap([b"\x55" * 60]), "it is none of pegeir's"),
            (component.read_bytes(), "component's recording"),
            (pathlib.Path("/nonexistent.pcap"), "No such file")]:
        code, text, errors = replay(content)
        assert (code, text) == (2, "") and words in errors, (code, text[:200], errors)
    raws = [packet.raw() for packet in packets]
    code, _, errors = replay(pcap([*raws[:9], b"\x55" * 60, *raws[9:]]))
    assert code == 0 and "packet 10 is left out" in errors, errors
    code, _, errors = replay(pcap([*raws[:5], *raws[6:]]))
    assert "packets are missing before packet 6" in errors, errors
    # Wherever the file was cut: what is left of it is equal.
    for size in random.Random(1).sample(range(400, len(whole)), 25):
        code, text, errors = replay(whole[:size])
        assert code == 0 and "the file is cut behind packet" in errors, (size, code, text[-500:], errors)


def check_mutants(consumer):
    whole = bytearray(consumer.read_bytes()[:60000])
    chance = random.Random(2)
    codes = set()
    for _ in range(150):
        mutant = bytearray(whole)
        for _ in range(chance.choice([1, 5, 50])):
            mutant[chance.randrange(24, len(mutant))] = chance.choice([0, 1, 0x7F, 0x80, 0xFF])
        codes.add(replay(bytes(mutant), "--json")[0])
    assert codes >= {0, 1}, codes


def check_to_test(consumer):
    """The session, and one that ends with a difference, as tests that compile, run and tell."""
    source, program = pathlib.Path(scratch) / "session.cpp", pathlib.Path(scratch) / "session"
    for skip, expected in [(None, 0), (2, 1)]:
        packets = load(consumer)
        if skip is not None:
            index = [i for i, packet in enumerate(packets) if packet.sent()][skip]
            packets[index].data = packets[index].data[:15] + b"\x01" + packets[index].data[16:]
        code, text, _ = replay(pcap(packet.raw() for packet in packets), "--to-test")
        assert code == expected
        source.write_text(text)
        begin = time.monotonic()
        subprocess.run([*filter(None, COMPILE.split(";")), source, "-o", program, *LINK.split(";")], check=True,
                       timeout=120)
        print(f"compiled {len(text.splitlines())} lines in {time.monotonic() - begin:.1f} s")
        done = subprocess.run([*filter(None, EMULATOR.split(";")), program], stdout=subprocess.PIPE, text=True, timeout=60)
        assert done.returncode == expected, done.stdout[-3000:]


with tempfile.TemporaryDirectory() as scratch:
    recordings = record(pathlib.Path(scratch))
    check_equal(recordings[0])
    check_clock(recordings[0])
    check_differences(recordings[0])
    check_bad_files(*recordings)
    check_mutants(recordings[0])
    check_to_test(recordings[0])
