"""The Python client and command plans against a real vornd with the sample HAL.

One daemon serves the module, on a private socket name; its gyroscope reads from a FIFO nobody
writes, so JXT+GYRO outlives its configured 1-second timeout and vornd answers 1002.
Failures vornd cannot be made to produce (a partial reply, a foreign echo, silence) come from a
stand-in server. Paths come from ctest's environment (tests/python/CMakeLists.txt).
"""

import codecs
import json
import os
import socket
import struct
import subprocess
import threading
import time
import uuid
import xml.etree.ElementTree as ET

import pytest

from vorn_client import (MalformedReply, ReplyMismatch, VornClient, VornConnectionError,
                         VornTimeout, parse_reply)

VORND, VORNCTL, HAL = os.environ["VORND"], os.environ["VORNCTL"], os.environ["VORN_HAL"]
REPLIES = os.environ["VORN_REPLIES_DIR"]


def unique(stem):
    return "vorn-py-%s-%s" % (stem, uuid.uuid4().hex[:12])


def await_true(condition, limit=5.0):
    end = time.monotonic() + limit
    while time.monotonic() < end:
        if condition():
            return True
        time.sleep(0.01)
    return False


@pytest.fixture(scope="module")
def daemon(tmp_path_factory):
    tmp = tmp_path_factory.mktemp("vornd")
    gyro = tmp / "iio" / "iio:device0"
    gyro.mkdir(parents=True)
    os.mkfifo(gyro / "in_anglvel_x_raw")
    config = tmp / "vorn.json"
    config.write_text(json.dumps({
        "misc": {"libpath": HAL},
        "sensor": {"libpath": HAL, "whitelist": [
            {"command": "JXT+GSENSOR", "func": "gsensor_operate_cmd"},
            {"command": "JXT+GYRO", "func": "gyro_operate_cmd", "timeout": 1}]},
        "modem": {"support": False}}))
    name = unique("vornd")
    env = dict(os.environ, VORN_HAL_IIO_ROOT=str(tmp / "iio"))
    log = tmp / "vornd.log"   # a file, not a pipe nobody reads while the tests run
    with open(log, "wb") as err:
        proc = subprocess.Popen([VORND, "--socket", name, "--config", str(config)], env=env,
                                stdout=subprocess.DEVNULL, stderr=err)

    def answers():
        try:
            with VornClient(socket=name, timeout=1) as c:
                return c.send("JXT").ok
        except OSError:
            return False

    try:
        assert await_true(answers), "vornd did not come up"
        yield name
    finally:
        proc.terminate()
        proc.wait(timeout=5)
        # A fault in the daemon (a sanitizer's report among them) shows in its exit status.
        assert proc.returncode == 0, log.read_text(errors="replace")[-4000:]


class StandIn:
    """Listens on a fresh abstract name and answers the first transmission with answer(bytes),
    then hangs up; an empty answer is silence until the client goes."""

    def __init__(self, answer):
        self.name = unique("standin")
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.bind("\0" + self.name)
        self.listener.listen(1)
        self.answer = answer
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        conn, _ = self.listener.accept()
        with conn:
            conn.settimeout(5)
            try:
                while True:
                    data = conn.recv(65536)
                    if not data:
                        return
                    answer = self.answer(data)
                    if answer:
                        conn.sendall(answer)
                        return  # hang up, so that a partial answer stays partial
            except OSError:
                return

    def close(self):
        self.listener.close()
        self.thread.join(5)


def record(result, command, response):
    return (struct.pack("<iI", result, len(command)) + command
            + struct.pack("<I", len(response)) + response)


def test_happy_path_refused_command_and_hal_error(daemon):
    with VornClient(socket=daemon, timeout=5) as vorn:
        r = vorn.send("JXT+GSENSOR=1")
        assert (r.ok, r.result, r.meaning, r.command) == (True, 0, "Success", "JXT+GSENSOR=1")
        assert r.text == "X:-0.002,Y:0.002,Z:1.000"
        r = vorn.send("JXT+NOSUCH")
        assert (r.ok, r.result, r.meaning) == (False, 1001, "Normal error")
        assert r.response == b"1001:Normal error\r\n"
        r = vorn.send(b"JXT+GSENSOR=bogus")
        assert (r.result, r.meaning, r.text) == (22, os.strerror(22), "22:Invalid argument\r\n")
    assert vorn._sock is None, "the with block closes the connection"


def test_timeouts_daemons_and_clients(daemon):
    # vornd's own timeout, configured to 1 s, answers the stuck HAL call.
    with VornClient(socket=daemon, timeout=5) as vorn:
        start = time.monotonic()
        r = vorn.send("JXT+GYRO=1")
        assert (r.result, r.text) == (1002, "1002:Time out\r\n")
        assert time.monotonic() - start < 4
    # The client's own timeout, against a server that never answers.
    silent = StandIn(lambda data: b"")
    try:
        with VornClient(socket=silent.name, timeout=0.3) as vorn:
            with pytest.raises(VornTimeout, match="no reply to 'JXT' within 0.3 s"):
                vorn.send("JXT")
    finally:
        silent.close()


def test_daemon_not_there():
    with pytest.raises(VornConnectionError, match="cannot reach vornd"):
        VornClient(socket=unique("nobody"), timeout=1)


@pytest.mark.parametrize("answer, error, match", [
    (lambda d: record(0, d, b"full")[:10], VornConnectionError, "partial reply"),
    (lambda d: record(0, b"JXT+OTHER", b""), ReplyMismatch, "reply to another command"),
    (lambda d: record(0, d, b"")[:4] + b"\xff\xff\xff\xff", MalformedReply, "request length"),
])
def test_replies_that_are_not_answers(answer, error, match):
    server = StandIn(answer)
    try:
        with VornClient(socket=server.name, timeout=2) as vorn:
            with pytest.raises(error, match=match):
                vorn.send("JXT")
    finally:
        server.close()


def test_recorded_replies_decode_as_vornctl_decodes_them():
    files = 0
    with open(os.path.join(REPLIES, "replies.txt")) as manifest:
        for line in manifest:
            line = line.rstrip("\n")
            if not line or line.startswith("#"):
                continue
            f = line.split("\t")
            with open(os.path.join(REPLIES, f[0]), "rb") as data:
                raw = data.read()
            files += 1
            if f[1] == "malformed":
                with pytest.raises(MalformedReply):
                    parse_reply(raw)
                continue
            reply, rest = parse_reply(raw)
            if f[1] == "incomplete":
                assert (reply, rest) == (None, raw), f[0]
                continue
            unescape = lambda s: codecs.escape_decode(s.encode())[0]
            assert reply.result == int(f[2]), f[0]
            assert reply.request == unescape(f[3]), f[0]
            assert reply.response == unescape(f[4]), f[0]
            assert len(rest) == int(f[5]), f[0]
    assert files >= 7


PLAN = r"""# a station's plan: passing, failing and malformed lines
JXT
JXT+MEMORY  => 0 /MemTotal:\d+ kB/
JXT+GSENSOR=bogus => 22        # a HAL error is expected here
JXT+GSENSOR=1 => 0 /Z:9\.\d+/  # fails: the reading is in g
JXT+NOSUCH                     # fails: refused with 1001
JXT+GYRO=1 => 1002
JXT+GSENSOR=1 => zero
JXT+GSENSOR=1 => 0 /(/
"""
# A pattern byte that is not text must not spoil the report.
PLAN_BYTES = PLAN.encode() + b"JXT => 0 /\xff</\n"
VERDICTS = [(2, True), (3, True), (4, True), (5, False), (6, False), (7, True), (8, False),
            (9, False), (10, False)]


def test_plan_with_junit_report_and_the_same_verdicts_from_python(daemon, tmp_path):
    plan = tmp_path / "station.plan"
    plan.write_bytes(PLAN_BYTES)
    junit = tmp_path / "report.xml"
    run = subprocess.run([VORNCTL, "-s", daemon, "--timeout=5", "--plan", str(plan),
                          "--junit", str(junit)], capture_output=True, text=True, timeout=60)
    assert run.returncode == 1, run.stderr
    lines = run.stdout.splitlines()
    assert [(l.startswith("PASS"), l.split()[2]) for l in lines if l[:4] in ("PASS", "FAIL")] \
        == [(ok, str(n)) for n, ok in VERDICTS]
    assert lines[-1].startswith("vornctl: 9 steps: 4 passed, 5 failed")

    suite = ET.parse(junit).getroot().find("testsuite")
    assert (suite.get("name"), suite.get("tests"), suite.get("failures"), suite.get("skipped")) \
        == ("station", "9", "5", "0")
    cases = suite.findall("testcase")
    assert [c.get("name") for c in cases][:2] == ["line 2: JXT", "line 3: JXT+MEMORY"]
    failures = {c.get("name"): c.find("failure") for c in cases if c.find("failure") is not None}
    assert failures["line 5: JXT+GSENSOR=1"].get("message") == r"response does not match /Z:9\.\d+/"
    assert "response X:-0.002,Y:0.002,Z:1.000" in failures["line 5: JXT+GSENSOR=1"].text
    assert failures["line 6: JXT+NOSUCH"].get("message") == \
        "expected result 0, got 1001 (Normal error)"
    assert failures["line 8: JXT+GSENSOR=1"].get("type") == "malformed"
    assert "bad regular expression" in failures["line 9: JXT+GSENSOR=1"].get("message")
    assert failures["line 10: JXT"].get("message") == r"response does not match /\xff</"
    assert all(float(c.get("time")) >= 0 for c in cases)

    # --json: one object a step; --stop-on-failure leaves the rest out, in every round.
    run = subprocess.run([VORNCTL, "-s", daemon, "-j", "-p", str(plan), "-r", "2",
                          "--stop-on-failure", "--junit", str(junit)],
                         capture_output=True, text=True, timeout=60)
    assert run.returncode == 1, run.stderr
    steps = [json.loads(l) for l in run.stdout.splitlines()]
    assert [(s["line"], s["passed"]) for s in steps] == VERDICTS[:4]
    assert steps[3]["response"] == "X:-0.002,Y:0.002,Z:1.000"
    root = ET.parse(junit).getroot()
    assert (root.get("tests"), root.get("failures"), root.get("skipped")) == ("18", "1", "14")

    with VornClient(socket=daemon, timeout=5) as vorn:
        results = vorn.run_plan(str(plan))
    assert [(r.step.line, r.passed) for r in results] == VERDICTS
    assert results[4].message == "expected result 0, got 1001 (Normal error)"


def test_tcp_through_a_relay(daemon):
    # What `adb forward tcp:PORT localabstract:NAME` does, on loopback.
    listener = socket.create_server(("127.0.0.1", 0))
    port = listener.getsockname()[1]

    def relay():
        tcp, _ = listener.accept()
        local = socket.socket(socket.AF_UNIX)
        local.connect("\0" + daemon)
        with tcp, local:
            while True:
                data = tcp.recv(65536)
                if not data:
                    return
                local.sendall(data)
                reply = None
                pending = b""
                while reply is None:
                    pending += local.recv(65536)
                    reply, _ = parse_reply(pending)
                tcp.sendall(pending)

    thread = threading.Thread(target=relay, daemon=True)
    thread.start()
    with VornClient(tcp="127.0.0.1:%d" % port, timeout=5) as vorn:
        assert vorn.send("JXT+GSENSOR=1").text == "X:-0.002,Y:0.002,Z:1.000"
    thread.join(5)
    listener.close()
