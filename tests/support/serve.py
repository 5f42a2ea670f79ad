#!/usr/bin/env python3
# A throw-away HTTP peer for the network tests, on 127.0.0.1 only:
#   serve.py DIR
# Prints "ACCEPT 127.0.0.1:PORT", then answers each request for /NAME (query
# and folders left out) from the files of DIR:
#   NAME.http  raw answer bytes as they stand, status line and all: broken
#              status lines, bodies longer or shorter than announced...;
#              empty: close at once
#   NAME.auth  "user:password": a request without that Basic authorization
#              gets 401
#   NAME.cmd   a shell command: the request body on its stdin, its stdout the
#              body of a 200
#   NAME       the body of a 200, empty when there is no such file.
# Each request is appended to DIR/NAME.log: request line,
# headers, and "body: HEX".  Whoever starts it stops it; see support/test_tsa.h.
import base64, http.server, os, subprocess, sys

root = sys.argv[1]


class Handler(http.server.BaseHTTPRequestHandler):
    def answer(self):
        body = self.rfile.read(int(self.headers.get("Content-Length") or 0))
        name = os.path.join(root, os.path.basename(self.path.split("?")[0]) or "index")
        with open(name + ".log", "a") as log:
            log.write(self.requestline + "\n" + "".join(f"{k}: {v}\n" for k, v in self.headers.items()))
            log.write("body: " + body.hex() + "\n\n")
        auth = read(name + ".auth")
        if auth and self.headers.get("Authorization") != "Basic " + base64.b64encode(auth).decode():
            self.wfile.write(b'HTTP/1.0 401 Unauthorized\r\nWWW-Authenticate: Basic realm="t"\r\n\r\n')
        elif os.path.exists(name + ".http"):
            self.wfile.write(read(name + ".http"))
        elif os.path.exists(name + ".cmd"):
            cmd = read(name + ".cmd").decode()
            self.reply(subprocess.run(cmd, shell=True, input=body, capture_output=True).stdout)
        else:
            self.reply(read(name))

    def reply(self, body):
        self.send_response(200)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *args):
        pass

    do_GET = do_POST = answer


def read(path):
    try:
        with open(path, "rb") as f:
            return f.read()
    except OSError:
        return b""


server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
print("ACCEPT 127.0.0.1:%d" % server.server_address[1], flush=True)
server.serve_forever()
