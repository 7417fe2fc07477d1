#!/usr/bin/env python3
"""Tests of how gvusb --broker connects to a broker, and of what it says when it cannot."""

import os
import re
import signal
import socket
import subprocess
import types

import tool
from cases import BULK, case, check, check_equal, main, started
from harness import command, frames, free_port, wait_until


def expect_failure(result, pattern, status=1):
    check_equal((result.status, result.output), (status, ""))
    check(re.search(pattern, result.errors), result.errors)


def at_port(port):
    return types.SimpleNamespace(port=port)


@case()
def reports_a_broker_that_is_not_there(test):
    port = free_port()
    for arguments in (("list",), ("send", "gate/1A2B3C", "02"), ("monitor",)):
        expect_failure(tool.run(at_port(port), *arguments),
                       f"^gvusb: broker mqtt://127.0.0.1:{port}: cannot connect: Connection refused\n$")


@case()
def reports_a_broker_that_does_not_answer(test):
    with socket.create_server(("127.0.0.1", 0)) as silent:
        port = silent.getsockname()[1]
        result = tool.run(at_port(port), "list", options=["--connect-timeout", "0.1"])
    expect_failure(result, f"^gvusb: broker mqtt://127.0.0.1:{port}: cannot connect: no answer in time")


@case()
def ends_while_the_connection_is_not_made(test):
    # The kernel drops what exceeds the backlog, so connecting takes minutes.
    with socket.socket() as full:
        full.bind(("127.0.0.1", 0))
        full.listen(0)
        port = full.getsockname()[1]
        waiting = []
        for _ in range(3):
            waiting.append(test.enter_context(socket.socket()))
            waiting[-1].setblocking(False)
            waiting[-1].connect_ex(("127.0.0.1", port))
        result = tool.run(at_port(port), "list", options=["--connect-timeout", "0.1"])
    expect_failure(result, "cannot connect: no answer in time; see --connect-timeout\n$")


@case()
def rejects_addresses(test):
    for address, why in (("mqtt://", "the host is missing"),
                         ("http://localhost", "the scheme is 'http', not mqtt or mqtts"),
                         ("localhost:0", "'0' is not a port"), ("mqtt://example.com", "needs --insecure")):
        ended = subprocess.run([tool.PROGRAM, "--broker=" + address, "list"], capture_output=True, text=True, check=False)
        check_equal(ended.returncode, 2)
        check(why in ended.stderr, ended.stderr)


def secret(test, name, text):
    path = os.path.join(test.folder, name)
    with open(path, "w", encoding="utf-8") as file:
        file.write(text + "\n")
    return path


def broker_with_users(test, rules):
    """A broker with the user "app", whose password is in the file "right", and an access list."""
    passwords = os.path.join(test.folder, "passwords")
    subprocess.run(["mosquitto_passwd", "-c", "-b", passwords, "app", "secret"], check=True, capture_output=True)
    os.chmod(passwords, 0o644)
    access = os.path.join(test.folder, "access")
    with open(access, "w", encoding="utf-8") as file:
        file.write("user app\n" + "".join(f"{rule}\n" for rule in rules))
    secret(test, "right", "secret")
    return test.broker(lines=["allow_anonymous false", f"password_file {passwords}", f"acl_file {access}"])


def as_app(test):
    return ("--user", "app", "--password-file", os.path.join(test.folder, "right"))


@case()
def logs_in_with_a_password_from_a_file(test):
    broker = broker_with_users(test, ["topic readwrite #"])
    check_equal(tool.run(broker, "list", options=as_app(test)).status, 4)
    wrong = secret(test, "wrong", "Secret")
    for options in ((), ("--user", "app"), ("--user", "app", "--password-file", wrong)):
        expect_failure(tool.run(broker, "list", options=options),
                       rf"^gvusb: broker mqtt://127.0.0.1:{broker.port}: the login was refused: ")
    missing = os.path.join(test.folder, "missing")
    expect_failure(tool.run(broker, "list", options=("--user", "app", "--password-file", missing)),
                   f"'{missing}' cannot be read")


@case()
def needs_few_rights(test):
    # Those of an application in the sample access list.
    broker = broker_with_users(test, ["topic read gvusb/+/status", "topic read gvusb/+/readers/+",
                                      "pattern write gvusb-answers/+/%u/#", "pattern read gvusb-answers/%u/#"])
    check_equal(tool.run(broker, "list", options=as_app(test)).status, 4)
    result = tool.run(broker, "monitor", "--idle-timeout", "0.05", options=as_app(test))
    check_equal((result.status, result.errors), (3, ""))


@case()
def lists_without_the_right_to_publish(test):
    broker = broker_with_users(test, ["topic read #"])
    check_equal(tool.run(broker, "list", options=as_app(test)).status, 4)


@case()
def reports_a_forbidden_topic_at_once(test):
    broker = broker_with_users(test, ["topic read #", "topic write gvusb/+/readers/+/get"])
    result = tool.run(broker, "send", "gate/1A2B3C", "02", "--timeout", "100000", options=as_app(test))
    expect_failure(result, f"^gvusb: broker mqtt://127.0.0.1:{broker.port}: it forbids to publish to "
                           "'gvusb/gate/readers/1A2B3C/transceive': Not authorized\n$")


@case()
def rejects_a_user_that_cannot_be_in_a_topic(test):
    expect_failure(tool.run(test.broker(), "list", options=("--user", "a+b")), "must not contain '\\+' or '#'", 2)


@case(BULK)
def reports_a_lost_connection(test):
    command("mute 1 in")
    broker, _, _ = started(test)
    check_equal(tool.run(broker, "set", "gate/1A2B3C", "TIMEOUT", "60000").status, 0)
    sending = tool.Running(test, broker, "send", "gate/1A2B3C", "02", "--timeout", "60000", "--keep-going", "--repeat",
                           "2")
    wait_until(lambda: frames(1) == 1, "sent")
    broker.kill()
    result = sending.result()
    check_equal((result.status, result.output), (1, "answered  0\nfailed    0\n"))
    check(re.search(f"^gvusb: broker mqtt://127.0.0.1:{broker.port}: the connection was lost.*; the request may have run",
                    result.errors), result.errors)


@case()
def reports_a_broker_that_hangs(test):
    broker = test.broker()
    monitor = tool.Running(test, broker, "send", "gate/1A2B3C", "--timeout", "50")
    check_equal(monitor.result().status, 0)  # no frames
    broker.child.send(signal.SIGSTOP)
    result = tool.run(broker, "send", "gate/1A2B3C", "02", options=["--connect-timeout", "0.1"])
    expect_failure(result, "cannot connect: no answer in time")


def make_certificates(test):
    """A certification authority, and the certificates that it has signed."""

    def openssl(*arguments):
        subprocess.run(["openssl", *arguments], cwd=test.folder, check=True, capture_output=True)

    key = ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes")
    openssl("req", "-x509", *key, "-keyout", "ca.key", "-out", "ca.pem", "-subj", "/CN=ca")
    for name, address in (("server", "IP:127.0.0.1"), ("client", "DNS:client"), ("elsewhere", "DNS:elsewhere")):
        openssl("req", *key, "-keyout", f"{name}.key", "-out", f"{name}.csr", "-subj", f"/CN={name}")
        with open(os.path.join(test.folder, f"{name}.ext"), "w", encoding="utf-8") as file:
            file.write(f"subjectAltName={address}\n")
        openssl("x509", "-req", "-in", f"{name}.csr", "-CA", "ca.pem", "-CAkey", "ca.key", "-CAcreateserial", "-out",
                f"{name}.pem", "-extfile", f"{name}.ext")
    return lambda name: os.path.join(test.folder, name)


def broker_with_tls(test, path, *lines, certificate="server"):
    return test.broker(listener_lines=[f"cafile {path('ca.pem')}", f"certfile {path(certificate + '.pem')}",
                                       f"keyfile {path(certificate + '.key')}", *lines])


@case()
def trusts_a_certification_authority(test):
    path = make_certificates(test)
    broker = broker_with_tls(test, path)

    def errors(*options, **connection):
        return tool.run(broker, "list", options=options, scheme="mqtts", **connection)

    check_equal(errors("--ca-file", path("ca.pem")).status, 4)
    expect_failure(errors(), f"broker mqtts://127.0.0.1:{broker.port}: cannot connect: TLS: .*certificate verify failed")
    expect_failure(errors("--ca-file", path("client.pem")), "certificate verify failed")
    expect_failure(errors("--ca-file", path("missing.pem")), "missing.pem' cannot be read: No such file")
    expect_failure(errors("--ca-file", path("client.ext")), "Unable to load CA certificates")
    expect_failure(errors("--ca-file", path("ca.pem"), host="localhost"), "host name verification failed")


@case()
def rejects_the_certificate_of_another_host(test):
    path = make_certificates(test)
    broker = broker_with_tls(test, path, certificate="elsewhere")
    expect_failure(tool.run(broker, "list", options=["--ca-file", path("ca.pem")], scheme="mqtts"),
                   "host name verification failed")


@case()
def shows_its_own_certificate(test):
    path = make_certificates(test)
    broker = broker_with_tls(test, path, "require_certificate true", "use_identity_as_username true")
    trusted = ["--ca-file", path("ca.pem")]
    own = ["--certificate", path("client.pem"), "--key", path("client.key")]
    check_equal(tool.run(broker, "list", options=trusted + own, scheme="mqtts").status, 4)
    expect_failure(tool.run(broker, "list", options=trusted, scheme="mqtts"), "cannot connect: ")
    expect_failure(tool.run(broker, "list", options=own, scheme="mqtts"), "certificate verify failed")
    wrong = ["--certificate", path("client.pem"), "--key", path("server.key")]
    expect_failure(tool.run(broker, "list", options=trusted + wrong, scheme="mqtts"), "Unable to load client key file")
    expect_failure(tool.run(broker, "list", options=trusted + own[:2], scheme="mqtts"), "--certificate requires --key", 2)


if __name__ == "__main__":
    main()
