"""A client for vornd, the device command daemon: send commands, check replies, run plans.

Standard library only, Python 3.9 or later.

    from vorn_client import VornClient

    with VornClient() as vorn:                 # the abstract socket "vorn"
        reply = vorn.send("JXT+GSENSOR=1")
        print(reply.result, reply.meaning, reply.text)

Each command goes out as one transmission, its exact bytes with no line end, and is answered
by one reply record, little-endian, with no framing around it:

    offset 0       int32   result code (0 success, 1..1000 errno, 1001..1010 vornd's own)
    offset 4       uint32  R, the length of the command as received
    offset 8       R bytes the command (vornd's echo; commands too long for one record are cut)
    offset 8 + R   uint32  S, the length of the response
    offset 12 + R  S bytes the response (for a failure, the line "<code>:<text>\\r\\n")

parse_reply() decodes it; vornctl decodes the same layout, and both are tested against the
same recorded replies.
"""

import os
import re
import socket as _socket
import struct
import time
from dataclasses import dataclass
from typing import List, Optional, Tuple, Union

__all__ = [
    "VornClient", "Reply", "PlanStep", "StepResult", "parse_reply", "meaning", "parse_plan",
    "VornError", "VornConnectionError", "VornTimeout", "ReplyMismatch", "MalformedReply",
]

# A field longer than this is not one of vornd's: its records stay far below it.
MAX_FIELD = 16 * 1024 * 1024
# The largest command vornd echoes whole; the echo of a longer one is its beginning.
MAX_WHOLE_ECHO = 3172 - 12

_TEXTS = {
    1001: "Normal error", 1002: "Time out", 1003: "Unsupport command", 1004: "Out of memory",
    1005: "Invalid descriptor", 1006: "Response is null", 1007: "Request is null",
    1008: "The parameter is invalid", 1009: "Out of range",
}


class VornError(Exception):
    """Anything that kept a command from getting its reply."""


class VornConnectionError(VornError, ConnectionError):
    """vornd is not there, or the connection broke (also in the middle of a reply)."""


class VornTimeout(VornError, TimeoutError):
    """No whole reply within the client's timeout."""


class ReplyMismatch(VornError):
    """The reply echoes another command (vornd --reply-routing=latest answers the client that
    sent last)."""


class MalformedReply(VornError, ValueError):
    """Bytes that no reply of vornd can be."""


def meaning(code: int) -> str:
    """The text of a result code, as vornd writes it ("Unsupport", "Unknow" included)."""
    if code == 0:
        return "Success"
    if 1 <= code <= 1000:
        return os.strerror(code)
    return _TEXTS.get(code, "Unknow error")


def _as_text(data: bytes) -> str:
    """Decodes UTF-8; bytes that are not text, and control characters, become \\xNN."""
    text = data.decode("utf-8", errors="backslashreplace")
    return re.sub(r"[\x00-\x08\x0b\x0c\x0e-\x1f\x7f]", lambda m: "\\x%02x" % ord(m.group()), text)


def _printable(text: str) -> str:
    """A text read from a plan, with bytes that are not text shown as \\xNN, as vornctl does."""
    return _as_text(text.encode("utf-8", "surrogateescape"))


@dataclass(frozen=True)
class Reply:
    result: int
    request: bytes   # the command as vornd echoed it
    response: bytes

    @property
    def command(self) -> str:
        return _as_text(self.request)

    @property
    def text(self) -> str:
        """The response decoded, with what is not text escaped."""
        return _as_text(self.response)

    @property
    def ok(self) -> bool:
        return self.result == 0

    @property
    def meaning(self) -> str:
        return meaning(self.result)

    def answers(self, command: bytes) -> bool:
        """Whether this reply echoes `command` (or the beginning of one too long to echo)."""
        if self.request == command:
            return True
        return (len(command) > MAX_WHOLE_ECHO and 0 < len(self.request) < len(command)
                and command.startswith(self.request))


def parse_reply(data: bytes) -> Tuple[Optional[Reply], bytes]:
    """Decodes the first reply record in `data`: (reply, the bytes after it), or (None, data)
    while the bytes are only the start of a record. Raises MalformedReply for a length that
    no reply of vornd can have."""
    data = bytes(data)
    if len(data) < 8:
        return None, data
    result, request_length = struct.unpack_from("<iI", data, 0)
    if request_length > MAX_FIELD:
        raise MalformedReply("malformed reply (request length %d)" % request_length)
    if len(data) < 12 + request_length:
        return None, data
    (response_length,) = struct.unpack_from("<I", data, 8 + request_length)
    if response_length > MAX_FIELD:
        raise MalformedReply("malformed reply (response length %d)" % response_length)
    end = 12 + request_length + response_length
    if len(data) < end:
        return None, data
    reply = Reply(result, data[8:8 + request_length], data[12 + request_length:end])
    return reply, data[end:]


def _known_length(data: bytearray) -> int:
    """The length of the record that starts `data`, as far as its bytes so far tell; 0 for a
    length no record can have (parse_reply then says so)."""
    if len(data) < 8:
        return 8
    (request_length,) = struct.unpack_from("<I", data, 4)
    if request_length > MAX_FIELD:
        return 0
    if len(data) < 12 + request_length:
        return 12 + request_length
    (response_length,) = struct.unpack_from("<I", data, 8 + request_length)
    return 0 if response_length > MAX_FIELD else 12 + request_length + response_length


# --- command plans ----------------------------------------------------------------------------

@dataclass
class PlanStep:
    """One plan line: the command and what its reply must be."""
    line: int
    command: str
    expected_result: int = 0
    pattern: Optional[str] = None
    malformed: str = ""   # why the line is not a step; empty for a good one


@dataclass
class StepResult:
    step: PlanStep
    round: int = 1
    run: bool = True      # False: left out after a failure with stop_on_failure
    passed: bool = False
    seconds: float = 0.0
    reply: Optional[Reply] = None
    kind: str = ""        # of a failure: malformed, result, response, timeout, connection
    message: str = ""


def _parse_expectation(rest: str, step: PlanStep) -> str:
    m = re.match(r"[ \t]*([-+]?[0-9]+)(?=$|[ \t#/])", rest)
    if not m:
        return 'a result code must follow "=>"'
    code = int(m.group(1))
    if not -2**31 <= code < 2**31:
        return "result code %s is out of range" % m.group(1)
    step.expected_result = code
    tail = rest[m.end():].lstrip(" \t")
    if not tail or tail.startswith("#"):
        return ""
    if not tail.startswith("/"):
        return "after the result code only /REGEX/ or a comment may follow"
    # The closing slash is the last one followed only by blanks or a comment.
    for k in range(len(tail) - 1, 0, -1):
        if tail[k] == "/" and re.fullmatch(r"[ \t]*(#.*)?", tail[k + 1:]):
            pattern = tail[1:k]
            break
    else:
        return 'the regular expression has no closing "/"'
    try:
        re.compile(pattern.encode("utf-8", "surrogateescape"))
    except re.error as e:
        return "bad regular expression /%s/: %s" % (_printable(pattern), e)
    step.pattern = pattern
    return ""


def parse_plan(text: str) -> List[PlanStep]:
    """The steps of a plan, by the same rules vornctl --plan reads it (see its --help)."""
    steps = []
    for number, line in enumerate(text.split("\n"), 1):
        if line.endswith("\r"):
            line = line[:-1]
        trimmed = line.strip(" \t")
        if not trimmed or trimmed.startswith("#"):
            continue
        # A "#" after a blank starts a comment, unless it stands after the "=>".
        m = re.search(r"[ \t]#", line)
        comment = m.start() + 1 if m else len(line)
        arrow = line.find("=>")
        if arrow < 0 or arrow > comment:
            steps.append(PlanStep(number, line[:comment].strip(" \t")))
            continue
        step = PlanStep(number, line[:arrow].strip(" \t"))
        if not step.command:
            step.malformed = 'no command before "=>"'
        else:
            step.malformed = _parse_expectation(line[arrow + 2:], step)
        steps.append(step)
    return steps


# --- the client -------------------------------------------------------------------------------

class VornClient:
    """One connection to vornd: VornClient() for the abstract socket "vorn",
    VornClient(socket="name"), or VornClient(tcp=("127.0.0.1", 5555)) (or "host:port") for a
    device reached through `adb forward tcp:5555 localabstract:vorn`. `timeout` bounds
    connecting and each reply, in seconds."""

    def __init__(self, socket: str = "vorn", tcp: Union[None, str, Tuple[str, int]] = None,
                 timeout: float = 20.0):
        self.socket_name = socket
        if isinstance(tcp, str):
            host, _, port = tcp.rpartition(":")
            tcp = (host.strip("[]"), int(port))
        self.tcp = tcp
        self.timeout = timeout
        self._sock: Optional[_socket.socket] = None
        self._pending = bytearray()
        self._connect()

    def __enter__(self) -> "VornClient":
        return self

    def __exit__(self, *exc) -> None:
        self.close()

    def __repr__(self) -> str:
        return "VornClient(%s)" % self._where()

    def _where(self) -> str:
        return "tcp %s:%d" % self.tcp if self.tcp else 'socket "%s"' % self.socket_name

    def _connect(self) -> None:
        self.close()
        self._pending = bytearray()
        try:
            if self.tcp:
                sock = _socket.create_connection(self.tcp, timeout=self.timeout)
                sock.setsockopt(_socket.IPPROTO_TCP, _socket.TCP_NODELAY, 1)
            else:
                sock = _socket.socket(_socket.AF_UNIX, _socket.SOCK_STREAM)
                # A blocking connect bounded by the send timeout: a listener whose backlog is
                # full keeps a plain connect waiting for ever.
                whole = max(self.timeout, 1e-6)
                tv = struct.pack("ll", int(whole), int((whole % 1) * 1e6))
                sock.setsockopt(_socket.SOL_SOCKET, _socket.SO_SNDTIMEO, tv)
                try:
                    sock.connect("\0" + self.socket_name)
                except BlockingIOError:
                    sock.close()
                    raise _socket.timeout("timed out")
                except OSError:
                    sock.close()
                    raise
        except _socket.timeout:
            raise VornTimeout("cannot reach vornd on %s: timed out" % self._where()) from None
        except OSError as e:
            raise VornConnectionError("cannot reach vornd on %s: %s"
                                      % (self._where(), e.strerror or e)) from None
        self._sock = sock

    def close(self) -> None:
        if self._sock is not None:
            self._sock.close()
            self._sock = None

    def send(self, command: Union[str, bytes]) -> Reply:
        """Sends one command and returns its reply. Raises VornTimeout, ReplyMismatch,
        VornConnectionError or MalformedReply; after any of them the next send connects
        afresh, so a late reply cannot be taken for another command's."""
        data = command.encode() if isinstance(command, str) else bytes(command)
        if not data:
            raise ValueError("empty command (vornd ignores empty transmissions)")
        if self._sock is None:
            self._connect()
        try:
            reply = self._exchange(data)
        except BaseException:
            self.close()
            raise
        if not reply.answers(data):
            self.close()
            raise ReplyMismatch("reply to another command: sent %r, the reply echoes %r"
                                % (_as_text(data), reply.command))
        return reply

    def _exchange(self, data: bytes) -> Reply:
        assert self._sock is not None
        deadline = time.monotonic() + self.timeout
        try:
            self._sock.settimeout(self.timeout)
            self._sock.sendall(data)
        except OSError as e:
            raise VornConnectionError("cannot send to vornd: %s" % (e.strerror or e)) from None
        while True:
            # Decoding waits until the record's known length is there, so that a large record
            # arriving in many pieces costs linear time.
            if len(self._pending) >= _known_length(self._pending):
                reply, rest = parse_reply(self._pending)
                if reply is not None:
                    self._pending = bytearray(rest)
                    return reply
            left = deadline - time.monotonic()
            if left <= 0:
                raise VornTimeout("no reply to %r within %g s%s" % (
                    _as_text(data), self.timeout,
                    " (a partial reply came)" if self._pending else ""))
            self._sock.settimeout(left)
            try:
                chunk = self._sock.recv(65536)
            except _socket.timeout:
                continue
            except OSError as e:
                raise VornConnectionError("no reply: %s" % (e.strerror or e)) from None
            if not chunk:
                raise VornConnectionError(
                    "connection closed by vornd in the middle of a reply (partial reply)"
                    if self._pending else "connection closed by vornd")
            self._pending += chunk

    def run_plan(self, path: str, repeat: int = 1,
                 stop_on_failure: bool = False) -> List[StepResult]:
        """Runs a plan file as `vornctl --plan` does and returns every step's verdict."""
        with open(path, encoding="utf-8", errors="surrogateescape") as f:
            steps = parse_plan(f.read())
        results: List[StepResult] = []
        stopped = False
        for rnd in range(1, repeat + 1):
            for step in steps:
                r = StepResult(step, rnd)
                if stopped:
                    r.run = False
                    results.append(r)
                    continue
                start = time.monotonic()
                unreachable = False
                if step.malformed:
                    r.kind, r.message = "malformed", "malformed plan line: " + step.malformed
                else:
                    unreachable = self._run_step(step, r)
                r.seconds = time.monotonic() - start
                results.append(r)
                # As vornctl does: a daemon that cannot be reached ends the run.
                if unreachable or (not r.passed and stop_on_failure):
                    stopped = True
        return results

    def _run_step(self, step: PlanStep, r: StepResult) -> bool:
        """Runs one step into `r`; True when vornd could not be reached at all."""
        if self._sock is None:
            try:
                self._connect()
            except VornError as e:
                r.kind, r.message = "connection", str(e)
                return True
        try:
            r.reply = self.send(step.command.encode("utf-8", errors="surrogateescape"))
        except VornTimeout as e:
            r.kind, r.message = "timeout", str(e)
            return False
        except VornError as e:
            r.kind, r.message = "connection", str(e)
            return False
        if r.reply.result != step.expected_result:
            r.kind = "result"
            r.message = "expected result %d, got %d (%s)" % (
                step.expected_result, r.reply.result, r.reply.meaning)
        elif step.pattern is not None and not re.search(
                step.pattern.encode("utf-8", "surrogateescape"), r.reply.response):
            r.kind = "response"
            r.message = "response does not match /%s/" % _printable(step.pattern)
        else:
            r.passed = True
        return False
