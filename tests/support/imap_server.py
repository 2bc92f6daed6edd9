#!/usr/bin/python3
"""A private Dovecot IMAP server on loopback, for the tests and the bench.

    imap_server.py --dir DIR [--no-ssl] [--cert-host NAME]

Writes its configuration, a throw-away certificate for NAME (default
127.0.0.1; another name makes a certificate the client must refuse), a
password file with the user "chatuser", password "s3cret", and mail in
DIR/mail; starts Dovecot (which daemonises; its pid is in
DIR/run/master.pid), waits until it answers, and writes "PLAIN TLS" (the
two port numbers) to DIR/ports. With --no-ssl the server offers no
STARTTLS and no implicit TLS port is opened. Nothing of the system's own
Dovecot is used or touched. Dovecot's log is DIR/log/dovecot.log.
"""
import argparse
import grp
import os
import pwd
import socket
import subprocess
import sys
import time


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def answers(port):
    try:
        with socket.create_connection(("127.0.0.1", port), timeout=1) as s:
            return s.recv(100).startswith(b"* OK")
    except OSError:
        return False


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--dir", required=True)
    parser.add_argument("--no-ssl", action="store_true")
    parser.add_argument("--cert-host", default="127.0.0.1")
    options = parser.parse_args()
    d = os.path.abspath(options.dir)
    for sub in ("run", "log", "mail"):
        os.makedirs(os.path.join(d, sub), exist_ok=True)
    os.chmod(d, 0o755)

    if os.getuid() == 0:
        internal, login = "dovecot", "dovenull"
        uid, gid = pwd.getpwnam("dovecot").pw_uid, grp.getgrnam("dovecot").gr_gid
    else:
        internal = login = pwd.getpwuid(os.getuid()).pw_name
        uid, gid = os.getuid(), os.getgid()
    os.chown(os.path.join(d, "mail"), uid, gid)

    cert, key = os.path.join(d, "cert.pem"), os.path.join(d, "key.pem")
    alt = ("IP:" if options.cert_host.replace(".", "").isdigit() else "DNS:") + options.cert_host
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2",
                    "-subj", "/CN=" + options.cert_host, "-addext", "subjectAltName=" + alt,
                    "-keyout", key, "-out", cert], check=True, capture_output=True)
    os.chmod(key, 0o644)  # read by Dovecot's own users

    with open(os.path.join(d, "users"), "w") as f:
        f.write("chatuser:{PLAIN}s3cret:%d:%d::%s\n" % (uid, gid, os.path.join(d, "mail", "chatuser")))

    plain, secure = free_port(), free_port()
    ssl = "no" if options.no_ssl else "yes"
    imaps = "" if options.no_ssl else (
        "  inet_listener imaps {\n    address = 127.0.0.1\n    port = %d\n  }\n" % secure)
    config = f"""base_dir = {d}/run
state_dir = {d}/run
log_path = {d}/log/dovecot.log
protocols = imap
listen = 127.0.0.1
ssl = {ssl}
ssl_cert = <{cert}
ssl_key = <{key}
disable_plaintext_auth = no
auth_mechanisms = plain login
auth_verbose = yes
default_internal_user = {internal}
default_internal_group = {internal}
default_login_user = {login}
first_valid_uid = 0
first_valid_gid = 0
passdb {{
  driver = passwd-file
  args = {d}/users
}}
userdb {{
  driver = passwd-file
  args = {d}/users
}}
mail_location = maildir:~/Maildir
service imap-login {{
  inet_listener imap {{
    address = 127.0.0.1
    port = {plain}
  }}
{imaps}}}
"""
    conf = os.path.join(d, "dovecot.conf")
    with open(conf, "w") as f:
        f.write(config)
    subprocess.run(["/usr/sbin/dovecot", "-c", conf], check=True)
    for _ in range(200):
        if answers(plain):
            break
        time.sleep(0.05)
    else:
        sys.exit("Dovecot did not answer; see " + os.path.join(d, "log", "dovecot.log"))
    with open(os.path.join(d, "ports.tmp"), "w") as f:
        f.write("%d %d" % (plain, secure))
    os.replace(os.path.join(d, "ports.tmp"), os.path.join(d, "ports"))


if __name__ == "__main__":
    main()
