"""A private nginx with its RTMP module on free loopback ports, gone at the end of the `with` block."""

import os
import pathlib
import shutil
import socket
import subprocess
import time

from rtmp_wire import VIDEO

CONFIGURATION = """\
load_module {module};
daemon off;
{user}
worker_processes 1;
pid {prefix}/nginx.pid;
error_log {prefix}/error.log warn;
events {{ worker_connections 64; }}
rtmp {{
  server {{
    listen 127.0.0.1:{port};
    chunk_size 4096;
    application live {{
      live on;
      record all;
      record_path {prefix};
      record_suffix .flv;
      record_unique off;
    }}
  }}
}}
"""


class Server:
    def __init__(self, prefix):
        self.prefix = pathlib.Path(prefix)
        self._process = None
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            self.port = probe.getsockname()[1]

    def __enter__(self):
        module = "/usr/lib/nginx/modules/ngx_rtmp_module.so"
        if not os.path.exists(module):
            raise RuntimeError("nginx's RTMP module is missing; scripts/setup installs it")
        nginx = shutil.which("nginx", path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin")
        if nginx is None:
            raise RuntimeError("nginx is missing; scripts/setup installs it")
        user = "user root;" if os.geteuid() == 0 else ""
        configuration = self.prefix / "nginx.conf"
        configuration.write_text(
            CONFIGURATION.format(module=module, user=user, prefix=self.prefix, port=self.port)
        )
        log = self.prefix / "error.log"
        self._process = subprocess.Popen(
            [nginx, "-p", str(self.prefix), "-c", str(configuration), "-e", str(log)],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
        )
        deadline = time.monotonic() + 5
        while time.monotonic() < deadline and self._process.poll() is None:
            try:
                socket.create_connection(("127.0.0.1", self.port), 1).close()
                return self
            except OSError:
                time.sleep(0.05)
        self.__exit__()
        raise RuntimeError("nginx does not start: " + (log.read_text() if log.exists() else "no log"))

    def __exit__(self, *_):
        if self._process.poll() is None:
            self._process.terminate()
            self._process.wait(10)

    @property
    def address(self):
        return ("127.0.0.1", self.port)

    def recording(self, stream, kind=VIDEO):
        """Pictures, or sound, that the server recorded of `stream`: a list of (timestamp in milliseconds, size of tag)."""
        path = self.prefix / f"{stream}.flv"
        data = path.read_bytes() if path.exists() else b""
        tags, at = [], 13
        while at + 11 <= len(data):
            size = int.from_bytes(data[at + 1 : at + 4], "big")
            stamp = int.from_bytes(data[at + 4 : at + 7], "big") | data[at + 7] << 24
            coded = data[at] == kind and data[at + 12 : at + 13] == b"\1"  # No sequence header.
            if coded:
                tags.append((stamp, size))
            at += 11 + size + 4
        return tags
