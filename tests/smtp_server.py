#!/usr/bin/python3
"""A loopback SMTP server for the tests and the demo.

    smtp_server.py --mode MODE --port-file FILE [--dir DIR] [--reply TEXT]

Modes: accept (every message is saved as DIR/<n>.eml), auth (AUTH LOGIN is
required; user "parlova" with password "secret" is accepted), refuse (DATA
is answered with --reply), silent (connections are accepted and never
answered). The chosen port is written to FILE once the server listens.
"""
import argparse
import asyncio
import os
import socket
import sys


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def write_port(path, port):
    tmp = path + ".tmp"
    with open(tmp, "w") as f:
        f.write(str(port))
    os.replace(tmp, path)


class Saver:
    def __init__(self, folder, reply=None):
        self.folder = folder
        self.reply = reply
        self.count = 0

    async def handle_DATA(self, server, session, envelope):
        if self.reply:
            return self.reply
        self.count += 1
        os.makedirs(self.folder, exist_ok=True)
        path = os.path.join(self.folder, "%d.eml" % self.count)
        with open(path + ".tmp", "wb") as f:
            f.write(envelope.original_content or envelope.content)
        os.replace(path + ".tmp", path)
        return "250 OK"


def run_silent(port_file):
    listener = socket.socket()
    listener.bind(("127.0.0.1", 0))
    listener.listen(8)
    write_port(port_file, listener.getsockname()[1])
    held = []
    while True:
        connection, _ = listener.accept()
        held.append(connection)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--mode", default="accept")
    parser.add_argument("--port-file", required=True)
    parser.add_argument("--dir", default=".")
    parser.add_argument("--reply", default="554 5.7.1 Message refused")
    args = parser.parse_args()
    if args.mode == "silent":
        run_silent(args.port_file)
        return

    from aiosmtpd.controller import Controller
    from aiosmtpd.smtp import AuthResult, LoginPassword

    def authenticator(server, session, envelope, mechanism, auth_data):
        ok = isinstance(auth_data, LoginPassword) and auth_data.login == b"parlova" and auth_data.password == b"secret"
        return AuthResult(success=ok, handled=False)

    handler = Saver(args.dir, args.reply if args.mode == "refuse" else None)
    options = {}
    if args.mode == "auth":
        options = dict(authenticator=authenticator, auth_required=True, auth_require_tls=False)
    port = free_port()
    controller = Controller(handler, hostname="127.0.0.1", port=port, **options)
    controller.start()
    write_port(args.port_file, port)
    try:
        asyncio.get_event_loop().run_until_complete(asyncio.sleep(3600))
    except KeyboardInterrupt:
        pass
    finally:
        controller.stop()


if __name__ == "__main__":
    sys.exit(main())
