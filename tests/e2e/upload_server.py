"""A server that takes reports as the test tells it to, on 127.0.0.1."""
import email
import email.policy
import gzip
import http.server
import json
import socket
import ssl
import struct
import threading
import time


class Upload:
    """One request that arrived whole."""

    def __init__(self, headers, body):
        self.headers = headers
        kind = f"Content-Type: {headers['Content-Type']}\r\n\r\n".encode()
        self.parts = list(email.message_from_bytes(kind + body, policy=email.policy.HTTP).iter_parts())
        named = {part.get_param("name", header="content-disposition"): part.get_payload(decode=True)
                 for part in self.parts if not part.get_filename()}
        self.header = json.loads(named["header"])
        self.id = named["id"].decode()
        self.name = named["name"].decode()
        self.whole = named["whole"].decode()
        files = {part.get_filename(): part for part in self.parts if part.get_filename()}
        self.files = {name: part.get_payload(decode=True) for name, part in files.items()}
        for name, part in files.items():
            if part.get_content_type() == "application/gzip":
                self.files[name] = gzip.decompress(self.files[name])


class Server:
    """Answers as `answers` says, one after another, then 200. An answer is a status, (status, headers), or a
    function of the handler."""

    def __init__(self, certificates=None, port=0):
        self.answers = []
        self.uploads = []
        self.times = []
        server = self

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def do_POST(self):
                server.times.append(time.monotonic())
                answer = server.answers.pop(0) if server.answers else 200
                if callable(answer):
                    answer(self)
                    self.close_connection = True
                    return
                upload = Upload(self.headers, self.rfile.read(int(self.headers["Content-Length"])))
                status, headers = answer if isinstance(answer, tuple) else (answer, {})
                server.uploads.append((status, upload))
                self.send_response(status)
                for name, value in headers.items():
                    self.send_header(name, value)
                self.send_header("Content-Length", "0")
                self.end_headers()

            def log_message(self, *_):
                pass

        self.http = http.server.ThreadingHTTPServer(("127.0.0.1", port), Handler)
        self.http.daemon_threads = True
        self.http.handle_error = lambda *_: None
        scheme = "http"
        if certificates:
            context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            context.load_cert_chain(certificates / "server.pem")
            context.load_verify_locations(certificates / "ca.pem")
            context.verify_mode = ssl.CERT_REQUIRED
            self.http.socket = context.wrap_socket(self.http.socket, server_side=True, do_handshake_on_connect=False)
            scheme = "https"
        self.url = f"{scheme}://127.0.0.1:{self.http.server_port}/reports"
        self.thread = threading.Thread(target=self.http.serve_forever, args=(0.05,))
        self.thread.start()

    def names(self, status=200):
        """Of the reports that were answered so."""
        return [upload.name for given, upload in self.uploads if given == status]

    def close(self):
        self.http.shutdown()
        self.http.server_close()
        self.thread.join()


def hang(handler):
    """Reads nothing, says nothing, until the client has gone."""
    handler.connection.settimeout(60)
    while handler.connection.recv(65536):
        pass


def reset(handler):
    handler.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    handler.connection.close()


def garbage(handler):
    handler.connection.sendall(b"\0\xff garbage \n" * 100)


def trickle(handler):
    """An answer whose body comes a byte at a time and never ends."""
    handler.rfile.read(int(handler.headers["Content-Length"]))
    handler.connection.sendall(b"HTTP/1.1 200 OK\r\n\r\n")
    try:
        while True:
            handler.connection.sendall(b"x")
            time.sleep(0.2)
    except OSError:
        pass


def flood(handler):
    """Takes the report and answers with a body that never ends."""
    handler.rfile.read(int(handler.headers["Content-Length"]))
    handler.connection.sendall(b"HTTP/1.1 200 OK\r\n\r\n")
    try:
        while True:
            handler.connection.sendall(b"x" * 65536)
    except OSError:
        pass
