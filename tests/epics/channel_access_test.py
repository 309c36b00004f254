#!/usr/bin/python3
"""The EPICS server driven by the EPICS client library (libca through pyepics).

Starts the real program with a small tree and an access file in a temporary
data root, serves it on a free port on 127.0.0.1, and talks to it as any
facility tool would: search, connect, get in every form, put, monitors,
access rights. A few raw circuits check what libca would never send.

Run with ZEL_BINARY naming the program, and the names of the groups to run
as arguments (all when none). Exits non-zero when a group failed; every group
prints its name.
"""
import os
import select
import socket
import struct
import subprocess
import sys
import tempfile
import time
import traceback


def free_port():
    """A port free for both TCP and UDP on 127.0.0.1."""
    for _ in range(50):
        with socket.socket() as tcp:
            tcp.bind(("127.0.0.1", 0))
            port = tcp.getsockname()[1]
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as udp:
                try:
                    udp.bind(("127.0.0.1", port))
                except OSError:
                    continue
                return port
    raise RuntimeError("no free port")


PORT = free_port()
REPEATER_PORT = free_port()
# The test listens for beacons itself, on a port of its own.
BEACONS = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
BEACONS.bind(("127.0.0.1", 0))
BEACON_PORT = BEACONS.getsockname()[1]
# libca reads its settings once, when it is loaded.
os.environ.update({
    "EPICS_CA_AUTO_ADDR_LIST": "NO",
    "EPICS_CA_ADDR_LIST": "127.0.0.1",
    "EPICS_CA_SERVER_PORT": str(PORT),
    "EPICS_CA_REPEATER_PORT": str(REPEATER_PORT),
})
import epics  # noqa: E402
from epics import ca, dbr  # noqa: E402

CONFIG = f"""<?xml version="1.0"?>
<root label="Channel Access test">
  <epics type="epics_server" port="{PORT}" address="127.0.0.1" prefix="T:"
         beacon_addresses="127.0.0.1" beacon_port="{BEACON_PORT}" send_timeout="2"
         channels_max="64"/>
  <channels type="component">
    <temperature type="analog_io" units="degC" format="%.2f" value="21.5"/>
    <pressure type="analog_io" units="mbar" value="1000" deadband="5"/>
    <pump type="digital_io" value="false"/>
    <operator type="string_io" value="nobody"/>
    <untouched type="analog_io"/>
  </channels>
  <exerciser type="store_exerciser" store="exercise" permissions="operator"><poll rate="0.1"/></exerciser>
  <slow type="slow_write" hold_seconds="2" permissions="operator"/>
  <chamber type="component">
    <vacuum type="range_interlock_io" input="channels/pressure" upper_warning="1100" upper_limit="1200"/>
  </chamber>
</root>
"""
WAIT = 10.0  # the longest any expected event may take


class Failure(Exception):
    pass


def check(condition, what):
    if not condition:
        raise Failure(what)


def wait_for(predicate, what):
    deadline = time.monotonic() + WAIT
    while time.monotonic() < deadline:
        if predicate():
            return
        epics.poll(0.01, 0.05)
    raise Failure("waited in vain: " + what)


def connected(name, **options):
    pv = epics.PV(name, **options)
    check(pv.wait_for_connection(timeout=WAIT), f"{name} connects")
    return pv


def severity_of(name):
    chid = connected(name).chid
    return ca.get_with_metadata(chid, ftype=ca.promote_type(chid, use_time=True), timeout=WAIT)["severity"]


# ---- Raw circuits: what a well-behaved client never sends --------------------

def header(command, payload=b"", data_type=0, count=0, p1=0, p2=0):
    payload += b"\0" * (-len(payload) % 8)
    return struct.pack(">HHHHII", command, len(payload), data_type, count, p1, p2) + payload


def read_message(sock):
    raw = b""
    while len(raw) < 16:
        chunk = sock.recv(16 - len(raw))
        if not chunk:
            return None
        raw += chunk
    command, size, data_type, count, p1, p2 = struct.unpack(">HHHHII", raw)
    payload = b""
    while len(payload) < size:
        chunk = sock.recv(size - len(payload))
        if not chunk:
            return None
        payload += chunk
    return command, data_type, count, p1, p2, payload


def raw_circuit():
    sock = socket.create_connection(("127.0.0.1", PORT), timeout=WAIT)
    sock.sendall(header(0, count=13) + header(21, b"rawhost\0") + header(20, b"raw\0"))
    return sock


def raw_channel(sock, name, cid):
    sock.sendall(header(18, name.encode() + b"\0", p1=cid, p2=13))
    while True:
        message = read_message(sock)
        check(message is not None, f"{name}: circuit stays open while creating")
        if message[0] == 18 and message[3] == cid:
            return message[4]  # the server's id
        check(message[0] in (0, 22), f"{name}: created (got command {message[0]})")


def raw_read(sock, sid, data_type, ioid, skipped=None):
    sock.sendall(header(15, data_type=data_type, count=1, p1=sid, p2=ioid))
    message = reply(sock, 15, ioid, skipped)
    return message[3], message[5]


def raw_write_notify(sock, sid, data_type, value, ioid, count=1):
    sock.sendall(header(19, value, data_type=data_type, count=count, p1=sid, p2=ioid))
    return reply(sock, 19, ioid)[3]  # the status


def reply(sock, command, ioid, skipped=None):
    """The next message of `command` for `ioid`; the others before it go to `skipped`."""
    while True:
        message = read_message(sock)
        check(message is not None, f"circuit stays open waiting for command {command}")
        if message[0] == command and message[4] == ioid:
            return message
        if skipped is not None:
            skipped.append(message)


def next_update(sock, subscription):
    """The double an update of a monitor carries."""
    return struct.unpack(">d", reply(sock, 1, subscription)[5][:8])[0]


def search_reply_port(times=1):
    """The port a search's answer names, after `times` searches sent at once."""
    search = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    request = header(0, count=13) + header(6, b"T:channels:temperature\0", data_type=5, count=13, p1=1, p2=1)
    for _ in range(times):
        search.sendto(request, ("127.0.0.1", PORT))
    search.settimeout(WAIT)
    answer = search.recv(1500)  # replies beyond the kernel's buffer are dropped
    search.close()
    check(answer[:2] == b"\0\0", "a search answer starts with the version")
    return struct.unpack(">HHHHII", answer[16:32])[2]


ECA_NOWTACCESS = 376
ECA_PUTFAIL = 160
ECA_BADTYPE = 114


# ---- Groups ---------------------------------------------------------------------

def library_behaviour():
    """Written against the client library's documented behaviour alone."""
    check(abs(epics.caget("T:channels:temperature", timeout=WAIT) - 21.5) < 1e-9, "caget reads a double")
    check(epics.caget("T:channels:temperature", as_string=True, timeout=WAIT) == "21.50",
          "as_string formats with the channel's precision")
    check(epics.caput("T:channels:temperature", 22.25, wait=True, timeout=WAIT) == 1, "caput with wait succeeds")
    check(epics.caget("T:channels:temperature", timeout=WAIT) == 22.25, "the put value reads back")
    pv = connected("T:channels:temperature", form="ctrl")
    check(pv.type == "ctrl_double" and pv.count == 1, f"a scalar double channel (type {pv.type}, count {pv.count})")
    check(pv.units == "degC" and pv.precision == 2, "units and precision of a ctrl channel")
    check(epics.caget("T:no:such:name", timeout=1.0) is None, "an unknown name gives None")


def types_and_forms():
    """Each native type in its plain, STS, TIME, GR and CTRL forms."""
    cases = {
        "T:channels:temperature": (dbr.DOUBLE, 21.5),
        "T:epics:port": (dbr.LONG, PORT),
        "T:channels:pump": (dbr.ENUM, 0),
        "T:channels:operator": (dbr.STRING, "nobody"),
    }
    for name, (native, expected) in cases.items():
        chid = ca.create_channel(name)
        check(ca.connect_channel(chid, timeout=WAIT), f"{name} connects")
        check(ca.field_type(chid) == native, f"{name} has native type {native}, not {ca.field_type(chid)}")
        for form in (0, 2, 4):  # the forms pyepics reads: plain, TIME, CTRL
            data = ca.get_with_metadata(chid, ftype=native + 7 * form, timeout=WAIT)
            check(data is not None and data["value"] == expected,
                  f"{name} form {form}: {data and data['value']!r} == {expected!r}")
            if form == 2:
                check(data["severity"] == 0 and data["status"] == 0, f"{name}: no alarm")
                check(abs(data["timestamp"] - time.time()) < 3600, f"{name}: stamp near now, {data['timestamp']}")
    # STS and GR, read on a raw circuit and unpacked as the protocol lays them out.
    layouts = {
        "T:channels:temperature": ((dbr.DOUBLE + 7, ">hhid", 3), (dbr.DOUBLE + 21, ">hhhh8s6dd", 11)),
        "T:epics:port": ((dbr.LONG + 7, ">hhi", 2), (dbr.LONG + 21, ">hh8s6ii", 9)),
        "T:channels:pump": ((dbr.ENUM + 7, ">hhH", 2), (dbr.ENUM + 21, ">hhh" + "26s" * 16 + "H", 19)),
        "T:channels:operator": ((dbr.STRING + 7, ">hh40s", 2), (dbr.STRING + 21, ">hh40s", 2)),
    }
    with raw_circuit() as sock:
        for cid, (name, forms) in enumerate(layouts.items(), start=1):
            sid = raw_channel(sock, name, cid)
            for data_type, layout, at in forms:
                status, payload = raw_read(sock, sid, data_type, 100 + data_type)
                check(status == 1, f"{name} type {data_type} reads")
                fields = struct.unpack_from(layout, payload)
                value = fields[at]
                if isinstance(value, bytes):
                    value = value.rstrip(b"\0").decode()
                check(value == cases[name][1] and fields[:2] == (0, 0),
                      f"{name} type {data_type}: {fields}")
        status, _ = raw_read(sock, raw_channel(sock, "T:channels:temperature", 99), 35, 7)
        check(status == ECA_BADTYPE, "a request type beyond DBR_CTRL_DOUBLE is refused")
    ctrl = ca.get_ctrlvars(ca.create_channel("T:channels:pump"), timeout=WAIT)
    check(list(ctrl["enum_strs"]) == ["false", "true"], f"a boolean's states {ctrl['enum_strs']}")
    values = connected("T:exerciser:values")
    check(values.count == 16 and ca.field_type(values.chid) == dbr.DOUBLE, f"a vector as an array: {values.count}")
    wait_for(lambda: len(set(values.get(use_monitor=False))) == 1, "an array's elements arriving as one value")
    long_text = ca.get(ca.create_channel("T:channels:operator$"), as_string=True, timeout=WAIT)
    check(long_text == "nobody", f"a string as a CHAR array: {long_text!r}")
    check(severity_of("T:channels:untouched") == 3, "a value never assigned is INVALID")
    # Conversions: a double read as a string, a LONG channel as a double.
    check(ca.get(ca.create_channel("T:channels:temperature"), ftype=dbr.STRING, timeout=WAIT) == "21.50",
          "a double read as DBR_STRING, with the precision of its format")


def puts():
    """Puts go through the write path: refusals for read-only and state values."""
    pump = connected("T:channels:pump")
    check(pump.put(1, wait=True, timeout=WAIT) == 1, "put-callback completes")
    check(pump.get(use_monitor=False) == 1, "the boolean is set")
    check(epics.caput("T:channels:operator", "alice", wait=True, timeout=WAIT) == 1, "a string put")
    check(epics.caget("T:channels:operator", timeout=WAIT) == "alice", "the string is set")
    check(epics.caput("T:channels:operator$", "a text longer than a DBR_STRING's forty characters",
                      wait=True, timeout=WAIT) == 1, "a long string through the CHAR array")
    check(epics.caget("T:channels:operator$", as_string=True, timeout=WAIT) ==
          "a text longer than a DBR_STRING's forty characters", "the long string reads back")
    state = connected("T:chamber:vacuum")
    check(state.read_access and not state.write_access, "an interlock state is read-only to clients")
    setting = connected("T:epics:port")
    check(not setting.write_access, "the server's own settings are read-only")

    with raw_circuit() as sock:
        sid = raw_channel(sock, "T:chamber:vacuum", 7)
        check(raw_write_notify(sock, sid, dbr.LONG, struct.pack(">i", 1), 1) == ECA_NOWTACCESS,
              "a write to a state value is refused by the server too")
        sid = raw_channel(sock, "T:epics:port", 9)
        check(raw_write_notify(sock, sid, dbr.LONG, struct.pack(">i", 1), 3) == ECA_NOWTACCESS,
              "a write to a read-only setting is refused by the server too")
        sid = raw_channel(sock, "T:channels:temperature", 8)
        check(raw_write_notify(sock, sid, dbr.STRING, b"warm".ljust(40, b"\0"), 2) == ECA_PUTFAIL,
              "a text that is no number is refused")
    check(epics.caget("T:chamber:vacuum", timeout=WAIT) == 0, "the state is unchanged")
    values = connected("T:exerciser:values")
    check(values.put([1.5, 2.5, 3.5], wait=True, timeout=WAIT) == 1, "a vector put")
    got = list(values.get(use_monitor=False))
    check(got[:3] == [1.5, 2.5, 3.5], f"the vector reads back: {got}")
    busy_put_holds_only_its_circuit()
    puts_apply_in_order()


def busy_put_holds_only_its_circuit():
    """A put waiting for a busy node stalls neither other circuits nor searches."""
    with raw_circuit() as slow, raw_circuit() as other:
        slow_sid = raw_channel(slow, "T:slow:value", 1)
        watch_sid = raw_channel(other, "T:slow:value", 1)
        other_sid = raw_channel(other, "T:channels:temperature", 2)
        other.sendall(header(1, struct.pack(">fffHH", 0, 0, 0, 1, 0), dbr.DOUBLE, 1, watch_sid, 5))
        check(next_update(other, 5) == 0.0, "the slow value's first update")
        slow.sendall(header(19, struct.pack(">d", 8.0), dbr.DOUBLE, 1, slow_sid, 1))
        # The value is set, and its node now holds its thread for two seconds.
        check(next_update(other, 5) == 8.0, "the slow put applied")
        status, _ = raw_read(other, other_sid, dbr.DOUBLE, 2)
        check(status == 1, "a get on another circuit")
        check(search_reply_port() == PORT, "a search answered")
        check(not select.select([slow], [], [], 0)[0], "both answered while the slow put is still pending")
        check(reply(slow, 19, 1)[3] == 1, "the slow put answered when done")


def puts_apply_in_order():
    """Puts sent at once on one channel apply and answer in the order sent."""
    with raw_circuit() as sock:
        sid = raw_channel(sock, "T:channels:pressure", 1)
        sock.sendall(b"".join(header(19, struct.pack(">d", 1000.0 + i), dbr.DOUBLE, 1, sid, i) for i in range(20)))
        answers = [read_message(sock) for _ in range(20)]
        check([(m[0], m[4]) for m in answers] == [(19, i) for i in range(20)], "write-notify answers in order")
        _, value = raw_read(sock, sid, dbr.DOUBLE, 99)
        check(struct.unpack(">d", value[:8])[0] == 1019.0, "the last put sent is the value")


def monitors():
    """Monitors deliver each change in order, and the latest after a burst."""
    seen = []
    pv = connected("T:channels:temperature", callback=lambda value=None, **kw: seen.append(value))
    wait_for(lambda: seen, "the first update")
    for v in (1.0, 2.0, 3.0, 4.0):
        pv.put(v, wait=True, timeout=WAIT)
        wait_for(lambda: seen[-1] == v, f"update {v}")
    check(seen[-4:] == [1.0, 2.0, 3.0, 4.0], f"changes in order: {seen[-4:]}")
    for i in range(500):
        pv.put(100.0 + i)
    wait_for(lambda: seen[-1] == 599.0, "the latest value after a burst")
    events_off_holds_updates_back()
    deadband_skips_small_changes()
    pv.clear_callbacks()
    count = len(seen)
    pv.disconnect()
    epics.caput("T:channels:temperature", 5.0, wait=True, timeout=WAIT)
    epics.poll(0.2, 0.3)
    check(len(seen) == count, "a cleared channel hears nothing more")


def updates_sent_during(sock, sid, name, values):
    """The updates a raw circuit's monitors send while `values` are put in turn.

    A change's updates go out before the put is answered; a read on the raw
    circuit after each put then comes back after them.
    """
    messages = []
    for i, v in enumerate(values):
        epics.caput(name, v, wait=True, timeout=WAIT)
        raw_read(sock, sid, dbr.DOUBLE, 1000 + i, messages)
    return [struct.unpack(">d", m[5][:8])[0] for m in messages if m[0] == 1]


def deadband_skips_small_changes():
    """A monitor over a value with a deadband reports only changes that large."""
    epics.caput("T:channels:pressure", 1000.0, wait=True, timeout=WAIT)
    with raw_circuit() as sock:
        sid = raw_channel(sock, "T:channels:pressure", 1)
        sock.sendall(header(1, struct.pack(">fffHH", 0, 0, 0, 1, 0), dbr.DOUBLE, 1, sid, 5))
        check(next_update(sock, 5) == 1000.0, "the first update")
        sent = updates_sent_during(sock, sid, "T:channels:pressure", (1002.0, 1004.0, 1006.0, 1007.0, 1000.0))
        check(sent == [1006.0, 1000.0], f"only changes of the deadband or more: {sent}")


def events_off_holds_updates_back():
    """Between events off and on a monitor sends nothing; then the latest value."""
    with raw_circuit() as sock:
        sid = raw_channel(sock, "T:channels:temperature", 1)
        sock.sendall(header(1, struct.pack(">fffHH", 0, 0, 0, 1, 0), dbr.DOUBLE, 1, sid, 5))
        next_update(sock, 5)
        sock.sendall(header(8))  # events off, done once the read after it is answered
        raw_read(sock, sid, dbr.DOUBLE, 9)
        sent = updates_sent_during(sock, sid, "T:channels:temperature", (31.0, 32.0, 33.0))
        check(not sent, f"nothing sent while events are off: {sent}")
        sock.sendall(header(9))  # events on
        check(next_update(sock, 5) == 33.0, "the latest value once events are on")


def alarms():
    """A value's severity follows the interlock that watches it."""
    states = []
    pressure = connected("T:channels:pressure", form="time",
                         callback=lambda severity=None, **kw: states.append(severity))
    wait_for(lambda: states and states[-1] == 0, "no alarm at 1000 mbar")
    for value, severity in ((1150.0, 1), (1300.0, 2), (1000.0, 0)):
        epics.caput("T:channels:pressure", value, wait=True, timeout=WAIT)
        wait_for(lambda: states[-1] == severity, f"severity {severity} at {value} mbar")
        check(severity_of("T:chamber:vacuum") == severity, "the interlock's own severity")
    limits = ca.get_ctrlvars(pressure.chid, timeout=WAIT)
    check(limits["upper_alarm_limit"] == 1200.0 and limits["upper_warning_limit"] == 1100.0,
          f"the interlock's limits are the alarm limits: {limits}")


def access_rights(access_file):
    """Rights follow the role map while clients stay connected."""
    pv = connected("T:channels:temperature")
    check(pv.write_access, "an operator writes")
    with open(access_file, "w") as f:
        f.write("# host user role\n* * viewer\n")
    wait_for(lambda: not pv.write_access, "write access withdrawn")
    check(pv.read_access, "a viewer still reads")
    with open(access_file, "w") as f:
        f.write("127.0.0.1 * none\n")
    wait_for(lambda: not pv.read_access, "read access withdrawn")
    with open(access_file, "w") as f:
        f.write("127.0.0.1 * operator\n")
    wait_for(lambda: pv.write_access, "write access given back")


def robustness():
    """Garbage closes only its own circuit."""
    watcher = connected("T:channels:temperature", auto_monitor=True)
    sock = raw_circuit()
    sock.sendall(header(0x4242, b"garbage"))
    check(read_message_until_closed(sock), "a circuit sent garbage is closed")
    sock = raw_circuit()
    sock.sendall(struct.pack(">HHHHIIII", 1, 0xFFFF, 6, 0, 1, 1, 1 << 30, 1))
    check(read_message_until_closed(sock), "an oversized message closes its circuit")
    epics.caput("T:channels:temperature", 42.0, wait=True, timeout=WAIT)
    wait_for(lambda: watcher.get() == 42.0, "the other circuit keeps working")
    with raw_circuit() as sock:
        sids = [raw_channel(sock, "T:channels:temperature", cid) for cid in range(64)]
        sock.sendall(header(18, b"T:channels:temperature\0", p1=64, p2=13))
        refusal = read_message(sock)
        check(refusal[0] == 26 and refusal[3] == 64, f"a channel beyond channels_max is refused: {refusal}")
        check(raw_read(sock, sids[-1], dbr.DOUBLE, 1)[0] == 1, "the circuit at its limit still reads")


def beacons():
    """Beacons announce the server's port, numbered one after another."""
    BEACONS.settimeout(WAIT)
    seen = []
    while len(seen) < 2:
        command, _, data_type, count, sequence, _ = struct.unpack(">HHHHII", BEACONS.recv(64)[:16])
        check(command == 13 and data_type == 13 and count == PORT, "a beacon names version and port")
        seen.append(sequence)
    check(seen[1] == seen[0] + 1, f"beacons count up: {seen}")


def stalled_client():
    """A client that stops reading is dropped; the server goes on."""
    circuits = connected("T:epics:circuits")
    before = circuits.get(use_monitor=False)
    sock = raw_circuit()
    sid = raw_channel(sock, "T:channels:temperature", 1)
    wait_for(lambda: circuits.get(use_monitor=False) == before + 1, "the new circuit counted")
    sock.settimeout(0.5)
    read = header(15, data_type=34, count=1, p1=sid, p2=1) * 1000
    try:
        for _ in range(10000):  # at most 160 MB of requests; the server stops reading long before
            sock.sendall(read)
    except OSError:
        pass  # the server stopped reading: it waits for this client
    wait_for(lambda: circuits.get(use_monitor=False) == before, "the stalled circuit dropped")
    sock.close()
    check(epics.caget("T:channels:temperature", timeout=WAIT) is not None, "others are served")


def search_flood():
    """A flood of searches is answered while the tree goes on."""
    check(search_reply_port(times=20000) == PORT, "a search is answered with the server's port")
    check(epics.caput("T:channels:temperature", 7.0, wait=True, timeout=WAIT) == 1, "puts still go through")
    check(epics.caget("T:channels:temperature", timeout=WAIT) == 7.0, "and read back")


def read_message_until_closed(sock):
    try:
        while read_message(sock) is not None:
            pass
        return True
    except OSError:
        return False
    finally:
        sock.close()


def main():
    binary = os.environ["ZEL_BINARY"]
    with tempfile.TemporaryDirectory() as root:
        os.makedirs(os.path.join(root, "config"))
        access_file = os.path.join(root, "config", "epics_access")
        with open(access_file, "w") as f:
            f.write("127.0.0.1 * operator\n")
        config = os.path.join(root, "system.xml")
        with open(config, "w") as f:
            f.write(CONFIG)
        log = open(os.path.join(root, "output.txt"), "w+")
        process = subprocess.Popen(
            [binary, "--config", config, "--dir", root, "--data-root", root, "--pid-file",
             os.path.join(root, "zel.pid"), "--io-mount", "none", "--port", "0"],
            stdout=log, stderr=subprocess.STDOUT)
        groups = {
            "library_behaviour": library_behaviour,
            "types_and_forms": types_and_forms,
            "puts": puts,
            "monitors": monitors,
            "alarms": alarms,
            "access_rights": lambda: access_rights(access_file),
            "robustness": robustness,
            "beacons": beacons,
            "stalled_client": stalled_client,
            "search_flood": search_flood,
        }
        chosen = sys.argv[1:] or list(groups)
        failed = []
        try:
            for name in chosen:
                group = groups[name]
                try:
                    group()
                    print(f"ok   {name}")
                except Exception:
                    failed.append(name)
                    print(f"FAIL {name}")
                    traceback.print_exc()
        finally:
            process.terminate()
            process.wait(timeout=30)
            if failed:
                log.seek(0)
                print("---- program output ----")
                print(log.read()[-8000:])
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
