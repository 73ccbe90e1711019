"""Reads captures with tshark and the dissector, and looks at what it makes of them.

dissector_test.py bytes DISSECTOR                 packets made here: every kind and type, malformed ones
dissector_test.py mutants DISSECTOR COUNT [SEED]  changed packets: no error of the dissector itself
dissector_test.py programs DISSECTOR COMPONENT WATCH   a session of the programs, recorded by both
"""

import os
import pathlib
import random
import re
import resource
import struct
import subprocess
import sys
import tempfile

ME, ND = 200, 100
START, END, MESSAGE, PEER, EXPIRY, TIMER, CLOCK = range(1, 8)
IN, OUT = 1, 2


def tshark(path, *options):
    command = ["tshark", "-n", "-2", "-X", "lua_script:" + sys.argv[2], "-r", path, *options]
    result = subprocess.run(command, capture_output=True, text=True, errors="replace", timeout=300)
    assert "Lua Error" not in result.stdout + result.stderr and "Lua:" not in result.stderr, \
        re.findall(r".*Lua.*", result.stdout + result.stderr)[:5]
    assert result.returncode == 0, result.stderr
    return result.stdout


def fields(path, *names):
    options = [option for name in names for option in ("-e", name)]
    lines = tshark(path, "-T", "fields", "-E", "separator=|", "-E", "aggregator=;", *options).splitlines()
    return [line.split("|") for line in lines]


def write(path, packets):
    with open(path, "wb") as file:
        file.write(struct.pack("<IHHiIII", 0xA1B23C4D, 2, 4, 0, 0, 66000, 147))
        for i, packet in enumerate(packets):
            file.write(struct.pack("<IIII", 1700000000 + i, 0, len(packet), len(packet)) + packet)


def packet(kind, direction, data=b"", peer=ND, number=None, result=0, size=44, sub=164):
    packet.number = number if number is not None else packet.number + 1
    sender, receiver = (peer, ME) if direction == IN else (ME, peer)
    return struct.pack(">3sBBBHIIIIIIIII", b"PGC", 1, kind, direction, size, sender, receiver, 3, sub,
                       0, result, 50 + packet.number, 0, packet.number) + data


def message(direction, kind, number, sequence=0, body=b"", ack=False, length=None, **more):
    length = length if length is not None else 16 + len(body)
    return packet(MESSAGE, direction,
                  struct.pack(">HBBIII", length, 0x80 if ack else 0, kind, number, 0, sequence) + body, **more)


def element(kind, value):
    return struct.pack(">HH", kind, len(value)) + value


def request(key_type, key, data_type, data=b"", data_length=None):
    return element(18, struct.pack(">HH", key_type, len(key)) + key +
                   struct.pack(">HH", data_type, len(data) if data_length is None else data_length) + data)


LINK = element(100, bytes.fromhex("0103 0004 00000002 000005dc 020000000001") + b"eth0")
INTERVALS = element(101, struct.pack(">IIII", 0x01000000, 2, 30, 100))
NEIGHBOUR = element(102, bytes.fromhex("0202 0106 00000002 20010db8000000000000000000000077 020000000077"))
ITEM = element(103, struct.pack(">III", 0x01000000, 9, 1) + b"rest")
REQUESTS = request(1000, bytes(4), 2) + request(2000, struct.pack(">I", 7), 3, b"xy") + request(9, b"k", 8)


def session():
    """Packets with what their line begins with; a line without acknowledgement is followed by it."""
    packet.number = -1
    yield packet(START, 0, struct.pack(">Ii", 77, 3600) + b"\0\4prog\0\4/run", peer=0), "prog, process 77, begins"
    yield packet(PEER, IN, bytes([0, 0, 0, 1])), "200 is told that 100 has come"
    yield packet(TIMER, OUT, struct.pack(">III", 1, 3, 1000)), "200 starts timer 3, every 1000 ms"
    yield packet(EXPIRY, IN, struct.pack(">I", 3), peer=ME), "timer 3 of 200 expires"
    yield packet(CLOCK, IN, peer=ME), "200 reads the clock: 54 s"
    number = 0
    for kind, body, says, noun in [
            (16, b"", "registers with 100", "registration"),
            (17, b"", "begins its upload to 100", "begin of the upload"),
            (18, REQUESTS, "asks 100 for 3 items: every interface (neighbours), test item 7, key type 9, data type 8",
             "subscription"),
            (19, b"", "ends its upload to 100", "end of the upload"),
            (20, REQUESTS, "no longer asks 100 for 3 items: ", "end of subscription"),
            (21, b"", "begins a verification pass with 100", "begin of the verification"),
            (22, b"", "ends the upload of the verification pass to 100", "end of the verification's upload"),
            (29, b"", "tells 100 of a gap and asks for a new download", "sequence error")]:
        number += 1
        yield message(OUT, kind, number, body=body), "200 " + says
        yield message(IN, kind, number, body=body, ack=True), f"100 acknowledges the {noun} of 200, number {number}"
    for kind, sequence, body, says, noun in [
            (23, 5, b"", "begins a download to 200, sequence 5", "begin of the download"),
            (24, 5, LINK + INTERVALS, "downloads to 200 2 records: eth0, intervals of interface 2, sequence 5", ""),
            (24, 6, ITEM, "downloads to 200 1 record: test item 9, sequence 6", ""),
            (25, 7, b"", "ends the download to 200", "end of the download"),
            (26, 0, NEIGHBOUR, "updates 200: 1 record: neighbour 2001:db8::77 on 2 is gone", "update"),
            (27, 2**32 - 1, b"", "begins the download of the verification pass to 200", "begin of the verification's d"),
            (24, 2**32 - 1, ITEM, "downloads to 200", ""),
            (28, 0, b"", "ends the download of the verification pass to 200", "end of the verification's download")]:
        number += 1
        yield message(IN, kind, number, sequence, body), "100 " + says
        if noun:
            yield message(OUT, kind, number, sequence, body, ack=True), f"200 acknowledges the {noun}"
    yield packet(END, 0, peer=0), "200 ends its recording"


# Each row stands behind a start packet, with which everything begins anew, and has what its expert items say; nothing: there is none.
MALFORMED = [
    (lambda: b"", "0 bytes are too few for the head"),
    (lambda: b"PGC\1", "4 bytes are too few for the head"),
    (lambda: b"x" * 60, "no packet of a pegeir recording"),
    (lambda: b"PGC\2" + bytes(56), "version 2 is not known"),
    (lambda: packet(MESSAGE, IN, b"12345", size=43), "the head size is 43"),
    (lambda: packet(MESSAGE, IN, b"12345", size=50), "the head size is 50"),
    (lambda: packet(8, IN, b"12345"), "no kind 8"),
    (lambda: packet(MESSAGE, IN), "a message without bytes"),
    (lambda: packet(MESSAGE, IN, b"12345", sub=1), ""),
    (lambda: packet(START, 0), "a packet of this kind has data"),
    (lambda: packet(START, 0, bytes(9), peer=0), "9 bytes are too few"),
    (lambda: packet(START, 0, bytes(8) + b"\0\4pro", peer=0), "the text at byte 8 reaches beyond"),
    (lambda: packet(PEER, IN, b"123"), "3 bytes are too few"),
    (lambda: packet(TIMER, OUT, bytes(11)), "11 bytes are too few"),
    (lambda: packet(CLOCK, IN, number=9, peer=ME), "number 9 follows number 0"),
    (lambda: packet(MESSAGE, IN, bytes(15)), "15 bytes are too few for a message"),
    (lambda: message(IN, 15, 1), "no message type 15"),
    (lambda: message(IN, 16, 1, length=15), "the length is 15, but there are 16 bytes"),
    (lambda: message(IN, 16, 1, length=17), "the length is 17, but there are 16 bytes"),
    (lambda: message(OUT, 16, 1, ack=True, body=b"behind", length=16), "6 bytes behind the message"),
    (lambda: message(OUT, 16, 1, result=2), "refused: no such process"),
    (lambda: message(OUT, 16, 1), "this registration is not acknowledged in this capture"),
    (lambda: message(IN, 16, 1, ack=True), "what this acknowledges is not in this capture"),
    (lambda: message(IN, 24, 1, body=ITEM), "data of a download that has not begun"),
    (lambda: message(IN, 24, 1), "a message of data without any"),
    (lambda: message(OUT, 24, 1, ack=True, body=ITEM), "nobody acknowledges data"),
    (lambda: message(IN, 24, 1, body=ITEM + b"\0\1\0\1"), "4 bytes at the end are no whole element"),
    (lambda: message(IN, 24, 1, body=element(99, b"x")), "element type 99 is none"),
    (lambda: message(IN, 24, 1, body=element(102, bytes(29))), "at least 30 bytes, not 29"),
    (lambda: message(IN, 24, 1, body=element(103, b"")), "at least 12 bytes, not 0"),
    (lambda: message(IN, 24, 1, body=element(103, bytes(12))), "operation 0 is neither set nor delete"),
    (lambda: message(IN, 24, 1, body=LINK.replace(b"\0\4", b"\0\5")), "a name of 5 bytes reaches beyond"),
    (lambda: message(IN, 24, 1, body=element(102, b"\1\2\0\7" + bytes(26))), "0 or 6 bytes, not 7"),
    (lambda: message(OUT, 18, 1, body=element(17, b"x")), "only subscriptions"),
    (lambda: message(OUT, 18, 1, body=element(18, b"")), "a subscription without bytes"),
    (lambda: message(OUT, 18, 1, body=element(18, b"123")), "too short for a key"),
    (lambda: message(OUT, 18, 1, body=element(18, b"\3\350\0\5" + bytes(8))), "a key of 5 bytes reaches beyond"),
    (lambda: message(OUT, 18, 1, body=request(1000, b"12345", 1)), "has 4 bytes, not 5"),
    (lambda: message(OUT, 18, 1, body=request(1000, bytes(4), 1, b"", 3)), "data of 3 bytes reach beyond"),
    (lambda: message(OUT, 18, 1, body=request(1000, bytes(4), 1, b"abc", 2)), "1 byte behind the subscription"),
]


def check_session(path):
    packets, lines = zip(*session())
    write(path, packets)
    rows = fields(path, "_ws.col.Info", "pegeir.request_in", "pegeir.ack_in", "pegeir.ack_time")
    assert len(rows) == len(lines)
    for i, (row, line) in enumerate(zip(rows, lines)):
        assert row[0].startswith(line), (row, line)
        if " acknowledges " in line:
            assert row[1:4] == [str(i), "", "1.000000000"] and rows[i - 1][2] == str(i + 1), (row, rows[i - 1])
    experts = [row for row in fields(path, "frame.number", "_ws.expert.message") if row[1]]
    assert len(experts) == 4 and all("key type 9 is none" in row[1] for row in experts), experts
    shown = tshark(path, "-V")
    for text in ["Name: eth0", "MTU: 1500", "Largest interval (s): 100", "State: reachable (2)", "Router: True",
                 "MAC address: 02:00:00:00:00:77", "Revision: 1", "Index: 7", "Local time ahead of GMT (s): 3600"]:
        assert text in shown, text


def check_malformed(path):
    packets = []
    for make, _ in MALFORMED:
        packet.number = -1
        packets += [packet(START, 0, bytes(12), peer=0), make()]
    write(path, packets)
    rows = fields(path, "_ws.expert.message", "_ws.col.Info")
    assert len(rows) == len(packets) and not any(row[0] for row in rows[::2]), rows[::2]
    for row, (_, says) in zip(rows[1::2], MALFORMED):
        assert says in row[0] if says else not row[0], (says, row)


def check_downloads(path):
    """What is out of order over several packets."""
    packet.number = -1
    update = {"kind": 26, "number": 7, "body": NEIGHBOUR}
    rows = [ # each with what its expert items say and the frame that acknowledges it
        (message(OUT, 16, 1), "", "3"), (message(OUT, 16, 2), "the same as frame 1,", "11"),
        (message(IN, 16, 1, ack=True), "there has been a later", ""),
        (message(IN, 23, 1, 5), "not acknowledged", ""), (message(IN, 24, 2, 5), "a message of data without any", ""),
        (message(IN, 24, 3, 6, ITEM), "sequence number 6, but 5 was expected", ""),
        (message(IN, 24, 4, 5, ITEM), "", ""),
        (message(IN, 25, 5, 7), "sequence number 7, but 6 was expected", ""),
        (message(IN, 25, 6, 6), "the same as frame 8,", "10"), (message(OUT, 25, 6, ack=True), "", ""),
        (message(IN, 16, 2, ack=True), "", ""), (message(OUT, 17, 3), "", "14"),
        (message(OUT, 17, 4, result=1), "refused: receiver's queue full", ""),
        (message(IN, 17, 3, ack=True), "there has been a later", ""),
        (message(IN, **update), "", "17"), (message(IN, **update), "the same as frame 15,", "17"),
        (message(OUT, ack=True, **update), "", ""), (message(IN, **update), "the same as frame 16,", "19"),
        (message(OUT, ack=True, **update), "", ""),
        (packet(TIMER, OUT, struct.pack(">III", 1, 0, 1000), result=1), "refused: result 1", ""),
        (packet(PEER, IN, bytes(4)), "", ""),
        (message(IN, 17, 3, ack=True), "what this acknowledges is not in this capture", "")]
    write(path, [row[0] for row in rows])
    for shown, (_, says, ack) in zip(fields(path, "_ws.expert.message", "pegeir.ack_in"), rows, strict=True):
        assert (says in shown[0] if says else not shown[0]) and shown[1] == ack, (shown, says, ack)
        assert "expected" in says or "expected" not in shown[0], shown
    results = re.findall("Result: (.*[1-9].*)", tshark(path, "-V"))
    assert results == ["receiver's queue full (1)", "1"], results


def mutants(path, count, seed):
    chance = random.Random(seed)
    packet.number = -1
    seeds = [entry[0] for entry in session()] + [make() for make, _ in MALFORMED]
    for begin in range(0, count, 2500):
        packets = []
        for _ in range(min(2500, count - begin)):
            mutant = bytearray(chance.choice(seeds))
            for _ in range(chance.randint(1, 4)):
                # Behind the magic as a rule, or little would be dissected.
                at = chance.randrange(4 if chance.random() < 0.95 else 0, max(len(mutant), 5))
                change = chance.randrange(4)
                if change == 0 and at < len(mutant):
                    mutant[at] = chance.choice([0, 1, 0x7F, 0x80, 0xFF, chance.randrange(256)])
                elif change == 1:
                    del mutant[at:at + chance.randint(1, 8)]
                elif change == 2:
                    mutant[at:at] = chance.randbytes(chance.randint(1, 8))
                elif change == 3:
                    del mutant[at:]
            packets.append(bytes(mutant))
        write(path, packets)
        assert tshark(path, "-V").count("\nFrame ") >= len(packets) - 1
    print(f"{count} mutants, seed {seed}")


def programs(directory, component, watch):
    os.environ["PEGEIR_RUNTIME_DIR"] = directory + "/run"
    captures = [directory + "/component.pcap", directory + "/watch.pcap"]

    def consume(capture, size=None):
        """Returns what a consumer, ready and ended in order, has said about its recording."""
        limit = (lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (size, size))) if size else None
        return subprocess.run([watch, "--id", "200", "--synthetic", "all", "--until-ready", "--capture", capture],
                              check=True, timeout=30, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
                              preexec_fn=limit).stderr

    server = subprocess.Popen([component, "--no-kernel", "--synthetic", "3", "--capture", captures[0]],
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    try:
        server.stdout.readline()
        # What somebody else may have put where a recording is to be written stays as it is.
        theirs = pathlib.Path(directory, "theirs")
        theirs.write_text("theirs")
        os.symlink(theirs, directory + "/link")
        traps = [(directory + "/link", None, "symbolic link")]
        if os.geteuid() == 0:
            pathlib.Path(directory, "foreign").write_text("theirs")
            os.chown(directory + "/foreign", 12345, 12345)
            traps.append((directory + "/foreign", None, "another user"))
        for capture, size, says in [*traps, ("/dev/full", None, "No space left on device"),
                                    (captures[0], None, "another process records into it"),
                                    (directory + "/none/x", None, "No such file"),
                                    (directory, None, "Is a directory"),
                                    (captures[1], 700, "File too large; it holds ")]:
            said = consume(capture, size)
            assert said.count("\n") == 1 and capture in said and says in said, said
        assert f"it holds {len(fields(captures[1], 'frame.number'))} packets" in said, said
        assert consume(captures[1]) == ""
        os.link(theirs, directory + "/hard")
        said = consume(directory + "/hard")
        assert "other names" in said and theirs.read_text() == "theirs", said
        os.chmod(captures[1], 0o644)
        assert consume(captures[1]) == "" and os.stat(captures[1]).st_mode & 0o777 == 0o600
    finally:
        server.kill() # and yet all of it is there
        server.wait()
    for capture in captures:
        rows = fields(capture, "_ws.col.Info", "_ws.expert.message")
        said = "\n".join(row[0] for row in rows)
        assert not [row for row in rows if row[1]], rows
        for line in ["200 registers with 100, number 1", "200 asks 100 for 1 item: every test item",
                     "100 downloads to 200 3 records: test item 0, test item 1, test item 2",
                     "200 acknowledges the end of the download of 100"]:
            assert line in said, (line, said)
        assert "begins to record" in rows[0][0], rows
    assert rows[-1][0] == "200 ends its recording", rows


with tempfile.TemporaryDirectory() as folder:
    if sys.argv[1] == "bytes":
        for check in [check_session, check_malformed, check_downloads]:
            check(folder + "/test.pcap")
    elif sys.argv[1] == "mutants":
        mutants(folder + "/test.pcap", int(sys.argv[3]), int(sys.argv[4]) if len(sys.argv) > 4 else 1)
    else:
        programs(folder, *sys.argv[3:5])
