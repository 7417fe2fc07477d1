#!/usr/bin/env python3
"""Tests of the configuration of gvusb-mqtt, and of its connection by TLS.

usage: configuration_test.py EMULATOR SERVICE CASE
"""

import os
import subprocess

from cases import case, check, check_equal, main
from harness import wait_until

BULK = "id=1A2B3C"


def run(test, *arguments, **environment):
    """Run the service to its end. Return its exit status and what it prints on standard error."""
    done = subprocess.run([test.program, *arguments], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=60, env={**os.environ, **environment})
    return done.returncode, done.stderr + done.stdout


def openssl(*arguments):
    subprocess.run(["openssl", *arguments], check=True, capture_output=True)


def certificates(test):
    """Make a certification authority, and certificates for the broker at 127.0.0.1 and for a client."""
    def path(name):
        return os.path.join(test.folder, name)

    for authority in ("ca", "other-ca"):
        openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "2",
                "-subj", "/CN=" + authority, "-keyout", path(authority + ".key"), "-out", path(authority + ".crt"))
    for name, subject in (("broker", "IP:127.0.0.1"), ("elsewhere", "IP:127.0.0.2"), ("client", "DNS:client")):
        openssl("req", "-new", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj", "/CN=" + name,
                "-keyout", path(name + ".key"), "-out", path(name + ".csr"))
        with open(path("extension"), "w", encoding="utf-8") as file:
            file.write("subjectAltName=" + subject + "\n")
        openssl("x509", "-req", "-in", path(name + ".csr"), "-CA", path("ca.crt"), "-CAkey", path("ca.key"),
                "-CAcreateserial", "-days", "2", "-extfile", path("extension"), "-out", path(name + ".crt"))
        os.chmod(path(name + ".key"), 0o644)
    return path


def tls_broker(test, path, *lines, certificate="broker"):
    return test.broker(listener_lines=[f"cafile {path('ca.crt')}", f"certfile {path(certificate + '.crt')}",
                                       f"keyfile {path(certificate + '.key')}", *lines])


def tls_service(test, broker, *options, **more):
    return test.service(broker.port, scheme="mqtts", options=options, **more)


def wait_connected(service):
    wait_until(lambda: "connected to" in service.log(), "connected")


def wait_logged(service, text):
    wait_until(lambda: text in service.log(), f"logged '{text}'; the log:\n{service.log()}")


@case()
def is_read_from_a_file(test):
    name = os.path.join(test.folder, "gvusb-mqtt.conf")
    with open(name, "w", encoding="utf-8") as file:
        file.write("# A comment\nbroker=broker.example.org\nmachine=gate-7\nqueue=5\n")
    check_equal(run(test, "--config", name, "--check"), (0, ""))
    with open(name, "a", encoding="utf-8") as file:
        file.write("queu=5\n")
    status, text = run(test, "--config", name, "--check")
    check_equal(status, 2)
    check("queu" in text, text)


@case()
def is_rejected_with_its_reason(test):
    for arguments, reason in (
            ((), "--broker is required"),
            (("--broker", "mqtt://broker"), "a connection without TLS to another machine needs --insecure"),
            (("--broker", "broker", "--machine", "a/b"), "machine name 'a/b'"),
            (("--broker", "broker", "--prefix", "/a"), "prefix '/a'"),
            (("--broker", "broker", "--queue", "0"), "--queue"),
            (("--broker", "broker", "--keep-alive", "4"), "--keep-alive"),
            (("--broker", "broker", "--key", "file"), "--certificate"),
            (("--broker", "broker", "--password-file", "file"), "--user"),
            (("--broker", "broker", "--password", "secret"), "--password"),
            (("--broker", "broker", "--config", "/nonexistent"), "/nonexistent")):
        status, text = run(test, *arguments, "--check")
        check_equal((arguments, status), (arguments, 2))
        check(reason in text, text)


@case()
def names_the_file_that_it_cannot_use(test):
    for option in ("--ca-file", "--password-file"):
        status, text = run(test, "--broker", "broker", "--user", "gate", "--state-directory", test.folder, option,
                           "/nonexistent")
        check_equal(status, 1)
        check("'/nonexistent' cannot be read" in text, text)
    status, text = run(test, "--broker", "broker", "--user", "gate", "--state-directory", test.folder,
                       "--password-file", "credential:password", CREDENTIALS_DIRECTORY=test.folder)
    check_equal(status, 1)
    check(f"'{test.folder}/password' cannot be read" in text, text)


@case(BULK)
def creates_its_state_directory(test):
    status, text = run(test, "--broker", "localhost", "--state-directory", "/nonexistent/state")
    check_equal(status, 1)
    check("/nonexistent/state: No such file or directory" in text, text)
    service = test.service(test.broker().port)
    wait_connected(service)
    check_equal(os.stat(service.state).st_mode & 0o777, 0o700)


@case(BULK)
def connects_with_tls(test):
    path = certificates(test)
    broker = tls_broker(test, path)
    service = tls_service(test, broker, "--ca-file", path("ca.crt"))
    wait_connected(service)
    check(f"connected to 127.0.0.1:{broker.port} with TLS as gate" in service.log(), service.log())
    client = test.client(broker, ca=path("ca.crt"))
    check_equal(client.ask("gate", "1A2B3C", "transceive", b"\x01").payload, b"\x01")
    check_equal(service.child.end(), 0)


@case(BULK)
def trusts_no_broker_of_another_authority(test):
    path = certificates(test)
    service = tls_service(test, tls_broker(test, path), "--ca-file", path("other-ca.crt"))
    wait_logged(service, "certificate verify failed")
    check("connected to" not in service.log(), service.log())


@case(BULK)
def trusts_no_certificate_of_another_host(test):
    path = certificates(test)
    service = tls_service(test, tls_broker(test, path, certificate="elsewhere"), "--ca-file", path("ca.crt"))
    wait_logged(service, "no connection to 127.0.0.1: TLS")
    check("connected to" not in service.log(), service.log())


@case(BULK)
def trusts_the_authorities_of_the_system(test):
    path = certificates(test)
    # OpenSSL reads this file in place of the system's.
    service = tls_service(test, tls_broker(test, path), environment={"SSL_CERT_FILE": path("ca.crt")})
    wait_connected(service)


@case(BULK)
def shows_its_certificate(test):
    path = certificates(test)
    broker = tls_broker(test, path, "require_certificate true", "use_identity_as_username true")
    service = tls_service(test, broker, "--ca-file", path("ca.crt"))
    wait_logged(service, "no connection to 127.0.0.1")
    service.child.end()
    service = tls_service(test, broker, "--ca-file", path("ca.crt"), "--certificate", path("client.crt"), "--key",
                          "credential:client.key", environment={"CREDENTIALS_DIRECTORY": test.folder})
    wait_connected(service)


@case(BULK)
def logs_in_with_a_password_of_a_file(test):
    passwords = os.path.join(test.folder, "passwords")
    subprocess.run(["mosquitto_passwd", "-b", "-c", passwords, "gate", "secret word"], check=True, capture_output=True)
    os.chmod(passwords, 0o644)
    broker = test.broker(lines=["allow_anonymous false", f"password_file {passwords}"])
    secret = os.path.join(test.folder, "secret")
    with open(secret, "w", encoding="utf-8") as file:
        file.write("wrong\n")
    os.chmod(secret, 0o644)
    service = test.service(broker.port, options=["--user", "gate", "--password-file", secret])
    wait_logged(service, "the broker refuses the connection: Not authorized")
    warning = f"everybody on this machine can read '{secret}'"
    check(warning in service.log(), service.log())
    # The file is read at the start.
    service.child.end()
    os.chmod(secret, 0o600)
    os.remove(service.child.log_name)
    with open(secret, "w", encoding="utf-8") as file:
        file.write("secret word\n")
    service = test.service(broker.port, options=["--user", "gate", "--password-file", "credential:secret"],
                           environment={"CREDENTIALS_DIRECTORY": test.folder})
    wait_connected(service)
    check(warning not in service.log(), service.log())


@case(BULK)
def says_that_an_answer_was_refused(test):
    rights = os.path.join(test.folder, "acl")
    with open(rights, "w", encoding="utf-8") as file:
        file.write("topic readwrite gvusb/#\ntopic read gvusb-answers/#\n")
    os.chmod(rights, 0o644)
    broker = test.broker(lines=[f"acl_file {rights}"])
    client = test.client(broker)
    service = test.service(broker.port)
    wait_connected(service)
    client.request("gate", "1A2B3C", "transceive", b"\x01")
    wait_logged(service, f"the broker refuses an answer on '{client.response_topic}': Not authorized")


@case(BULK)
def warns_of_a_connection_without_tls_to_another_machine(test):
    # The kernel takes the address 0 for this machine; the service does not know that.
    broker = test.broker()
    service = test.service(broker.port, host="0", options=["--insecure"])
    wait_connected(service)
    check("the connection to 0 is not encrypted (--insecure)" in service.log(), service.log())


if __name__ == "__main__":
    main()
