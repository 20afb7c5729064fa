"""A web server that wants its clients to authenticate, for curl to show how it does that; or lets everybody in."""

import http.server
import threading

PAGE = b"the page of this server"


class Origin(http.server.ThreadingHTTPServer):
    """`check(token, state)` gets what a client sent and a dictionary of its connection's own; it gives (let in, token
    to send back or ""). What was sent stays in `tokens`."""

    daemon_threads = True

    def __init__(self, scheme=None, check=None, port=0):
        self.scheme, self.check, self.tokens = scheme, check, []
        super().__init__(("127.0.0.1", port), _Handler)

    def __enter__(self):
        threading.Thread(target=self.serve_forever, args=(0.01,), daemon=True).start()
        return self

    def __exit__(self, *_):
        self.shutdown()
        self.server_close()


class _Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def setup(self):
        super().setup()
        self.state = {}

    def do_GET(self):  # pylint: disable=invalid-name
        word, _, token = self.headers.get("Authorization", "").partition(" ")
        let_in, back = self.server.scheme is None, ""
        if word == self.server.scheme and token:
            self.server.tokens.append(token)
            let_in, back = self.server.check(token, self.state)
        self.send_response(200 if let_in else 401)
        if back or not let_in:
            self.send_header("WWW-Authenticate", f"{self.server.scheme} {back}".strip())
        self.send_header("Content-Length", str(len(PAGE)))
        self.end_headers()
        self.wfile.write(PAGE)

    def log_message(self, *_):
        pass
