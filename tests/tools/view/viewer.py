"""Runs `talvoro view` under the virtual camera for the viewer's tests, and talks to it.

The tool and the launcher come from the environment (TALVORO_TOOL_PATH, TALVORO_LAUNCHER_PATH), as
ctest passes them.
"""

import http.client
import json
import os
import re
import select
import signal
import socket
import subprocess
import tempfile
import time
import urllib.parse

TOOL = os.environ.get("TALVORO_TOOL_PATH", "talvoro")
LAUNCHER = os.environ.get("TALVORO_LAUNCHER_PATH", "talvoro-vcam")


def wait_for(condition, timeout, what):
    """Polls `condition` until it returns something true, and returns that."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"timed out after {timeout} s waiting for {what}")
        time.sleep(0.05)


class Viewer:
    """`talvoro-vcam run CAMERAS --trace FILE -- talvoro view --port 0 ARGS`, until stop()."""

    def __init__(self, cameras, args=()):
        self.dir = tempfile.TemporaryDirectory(prefix="talvoro-view-test-")
        self.trace = os.path.join(self.dir.name, "trace.txt")
        command = [LAUNCHER, "run"]
        for camera in cameras:
            command += ["--camera", camera]
        # The run's directory first, for `talvoro-vcam ctl`; then the tool in the shell's place.
        command += ["--trace", self.trace, "--", "sh", "-c",
                    'echo "run $UMOCKDEV_DIR"; exec "$0" "$@"', TOOL, "view", "--port", "0", *args]
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                        cwd=self.dir.name)
        self.output = ""
        deadline = time.monotonic() + 60
        while "token=" not in self.output or not self.output.endswith("\n"):
            ready, _, _ = select.select([self.process.stdout], [], [], 1)
            if ready:
                data = os.read(self.process.stdout.fileno(), 4096)
                if not data:
                    raise AssertionError("talvoro view ended: " +
                                         self.process.stderr.read().decode(errors="replace"))
                self.output += data.decode()
            if time.monotonic() > deadline:
                self.process.kill()
                raise AssertionError("talvoro view printed no URL: " + self.output)
        self.run_dir = re.search(r"^run (.*)$", self.output, re.M).group(1)
        self.url = re.search(r"http://\S+", self.output).group(0)
        parts = urllib.parse.urlsplit(self.url)
        self.host, self.port = parts.hostname, parts.port
        self.origin = f"http://{parts.netloc}"
        self.token = urllib.parse.parse_qs(parts.query)["token"][0]

    def stop(self):
        """Ctrl-C; returns the exit status and what the tool wrote on standard error."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGINT)
        try:
            _, err = self.process.communicate(timeout=30)
        except subprocess.TimeoutExpired:
            self.process.kill()
            _, err = self.process.communicate()
        self.dir.cleanup()
        return self.process.returncode, err.decode(errors="replace")

    def ctl(self, action, serial):
        """`talvoro-vcam ctl plug|unplug SERIAL` in the viewer's run."""
        subprocess.run([LAUNCHER, "ctl", action, serial], check=True,
                       env=dict(os.environ, UMOCKDEV_DIR=self.run_dir))

    def tool_pid(self):
        """The talvoro process (the launcher's child)."""
        for entry in os.listdir("/proc"):
            if not entry.isdigit():
                continue
            try:
                with open(f"/proc/{entry}/stat") as f:
                    fields = f.read().rsplit(")", 1)[1].split()
            except OSError:
                continue
            if int(fields[1]) == self.process.pid:
                return int(entry)
        raise AssertionError("no talvoro process under the launcher")

    # ---- HTTP ----

    def request(self, method, path, body=None, token=True, headers=None):
        """(status, parsed JSON or raw bytes) of one request."""
        if token is True:
            token = self.token
        if token is not None:
            path += ("&" if "?" in path else "?") + "token=" + token
        all_headers = dict(headers or {})
        if body is not None and not isinstance(body, (bytes, str)):
            body = json.dumps(body)
            all_headers.setdefault("Content-Type", "application/json")
        if method == "POST":
            all_headers.setdefault("Origin", self.origin)
        connection = http.client.HTTPConnection(self.host, self.port, timeout=30)
        try:
            connection.request(method, path, body=body, headers=all_headers)
            response = connection.getresponse()
            data = response.read()
        finally:
            connection.close()
        if response.getheader("Content-Type", "").startswith("application/json"):
            return response.status, json.loads(data)
        return response.status, data

    def get(self, path, **kwargs):
        return self.request("GET", path, **kwargs)

    def post(self, path, body, **kwargs):
        return self.request("POST", path, body=body, **kwargs)

    def status(self, serial):
        _, body = self.get("/api/cameras")
        for camera in body["cameras"]:
            if camera["serial"] == serial:
                return camera
        return None

    def viewers(self):
        return self.get("/api/cameras")[1]["viewers"]

    def control(self, serial, name):
        status, controls = self.get(f"/api/cameras/{serial}/controls")
        assert status == 200, controls
        return next(c for c in controls if c["name"] == name)

    def trace_lines(self, since=0):
        """The wire trace's lines after the first `since` bytes, and the file's size."""
        with open(self.trace, "rb") as f:
            f.seek(since)
            data = f.read()
        return data.decode(errors="replace").splitlines(), since + len(data)

    def trace_size(self):
        return os.path.getsize(self.trace)


class LiveStream:
    """A live stream read message by message over a plain socket."""

    def __init__(self, viewer, receive_buffer=None):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        if receive_buffer:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self.socket.settimeout(30)
        self.socket.connect((viewer.host, viewer.port))
        self.socket.sendall(f"GET /api/live?token={viewer.token} HTTP/1.1\r\n"
                            f"Host: {viewer.host}:{viewer.port}\r\n\r\n".encode())
        self.raw = b""
        self.body = b""
        self.status = None

    def read_head(self):
        """The HTTP status; for a refusal also its JSON body."""
        while b"\r\n\r\n" not in self.raw:
            self._receive()
        head, self.raw = self.raw.split(b"\r\n\r\n", 1)
        self.status = int(head.split()[1])
        if self.status != 200:
            length = int(re.search(rb"Content-Length: (\d+)", head, re.I).group(1))
            while len(self.raw) < length:
                self._receive()
            return self.status, json.loads(self.raw[:length])
        return self.status, None

    def _receive(self):
        data = self.socket.recv(65536)
        if not data:
            raise EOFError("the server closed the stream")
        self.raw += data

    def _dechunk(self):
        # Chunked transfer encoding: hex size, CRLF, data, CRLF.
        while True:
            end = self.raw.find(b"\r\n")
            if end < 0:
                return
            size = int(self.raw[:end], 16)
            if len(self.raw) < end + 2 + size + 2:
                return
            self.body += self.raw[end + 2:end + 2 + size]
            self.raw = self.raw[end + 2 + size + 2:]
            if size == 0:
                raise EOFError("the stream ended")

    def message(self):
        """The next message: (header dict, payload bytes)."""
        while True:
            newline = self.body.find(b"\n")
            if newline >= 0:
                header = json.loads(self.body[:newline])
                size = header.get("bytes", 0)
                if len(self.body) >= newline + 1 + size:
                    payload = self.body[newline + 1:newline + 1 + size]
                    self.body = self.body[newline + 1 + size:]
                    return header, payload
            self._receive()
            self._dechunk()

    def images_until(self, done):
        """Reads image messages until done(header) is true for one; returns that header."""
        while True:
            header, _ = self.message()
            if header["type"] == "image" and done(header):
                return header

    def close(self):
        self.socket.close()
