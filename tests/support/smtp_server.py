#!/usr/bin/python3
"""A loopback SMTP server for the tests and the demo.

    smtp_server.py --mode MODE --port-file FILE [--dir DIR] [--reply TEXT]

Modes: accept (every message is saved as DIR/<n>.eml), auth (AUTH LOGIN is
required; user "parlova" with password "secret" is accepted), refuse (DATA
is answered with --reply), silent (connections are accepted and never
answered), starttls (as auth, but STARTTLS is required first), tls (as auth,
over TLS from the first byte), no-starttls (offers AUTH LOGIN but not
STARTTLS, and keeps every byte it receives in DIR/received), and four
that misbehave: flood (a greeting of endless "220-" lines), trickle (a
greeting one byte a second, never finished), drop (STARTTLS and the
handshake, then the connection dropped without a TLS close) and stall
(STARTTLS, then a handshake record a byte every half second). The secured
modes take --cert and --key (PEM). The chosen port is written to FILE once
the server listens.
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


def run_recording(port_file, folder):
    """Answers like a server that knows no STARTTLS and records what comes."""
    listener = socket.socket()
    listener.bind(("127.0.0.1", 0))
    listener.listen(8)
    write_port(port_file, listener.getsockname()[1])
    os.makedirs(folder, exist_ok=True)
    while True:
        connection, _ = listener.accept()
        with connection, open(os.path.join(folder, "received"), "ab") as record:
            connection.sendall(b"220 plain.example ESMTP\r\n")
            pending = b""
            while True:
                data = connection.recv(4096)
                if not data:
                    break
                record.write(data)
                record.flush()
                pending += data
                while b"\n" in pending:
                    line, pending = pending.split(b"\n", 1)
                    if line.upper().startswith(b"EHLO"):
                        connection.sendall(b"250-plain.example\r\n250-AUTH LOGIN\r\n250 8BITMIME\r\n")
                    elif line.upper().startswith(b"AUTH"):
                        connection.sendall(b"334 VXNlcm5hbWU6\r\n")
                    else:
                        connection.sendall(b"250 OK\r\n")


def run_misbehaving(port_file, mode, cert, key):
    import ssl
    import time
    listener = socket.socket()
    listener.bind(("127.0.0.1", 0))
    listener.listen(8)
    write_port(port_file, listener.getsockname()[1])
    while True:
        connection, _ = listener.accept()
        try:
            if mode == "flood":
                while True:
                    connection.sendall(b"220-flood " + b"x" * 1000 + b"\r\n")
            elif mode == "trickle":
                for byte in b"220 slowly.example ESMTP\r\n":
                    connection.sendall(bytes([byte]))
                    time.sleep(1)
            else:
                connection.sendall(b"220 drop.example ESMTP\r\n")
                reader = connection.makefile("rb")
                reader.readline()
                connection.sendall(b"250-drop.example\r\n250 STARTTLS\r\n")
                reader.readline()
                connection.sendall(b"220 go ahead\r\n")
                if mode == "stall":
                    connection.recv(4096)  # the client's hello
                    # A handshake record of 16 KiB, a byte every half second.
                    connection.sendall(b"\x16\x03\x03\x40\x00")
                    while True:
                        connection.sendall(b"\x00")
                        time.sleep(0.5)
                context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
                context.load_cert_chain(cert, key)
                secured = context.wrap_socket(connection, server_side=True)
                secured.sendall(b"220 drop.example ESMTP\r\n")
                secured.recv(4096)
                # Gone without a TLS close, as a dropped line or a crash does.
                os.close(secured.detach())
        except (OSError, ValueError):
            pass
        finally:
            connection.close()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--mode", default="accept")
    parser.add_argument("--port-file", required=True)
    parser.add_argument("--dir", default=".")
    parser.add_argument("--reply", default="554 5.7.1 Message refused")
    parser.add_argument("--cert")
    parser.add_argument("--key")
    args = parser.parse_args()
    if args.mode == "silent":
        run_silent(args.port_file)
        return
    if args.mode == "no-starttls":
        run_recording(args.port_file, args.dir)
        return
    if args.mode in ("flood", "trickle", "drop", "stall"):
        run_misbehaving(args.port_file, args.mode, args.cert, args.key)
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
    elif args.mode in ("starttls", "tls"):
        import ssl
        context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
        context.load_cert_chain(args.cert, args.key)
        options = dict(authenticator=authenticator, auth_required=True)
        if args.mode == "starttls":
            options.update(tls_context=context, require_starttls=True, auth_require_tls=True)
        else:
            # Secured from the first byte, which aiosmtpd's check does not see.
            options.update(ssl_context=context, auth_require_tls=False)
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
