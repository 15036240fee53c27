#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""Runs the TLS example with certificates made here. Usage: tlsexample.py TLS-ECHO"""

import pathlib
import socket
import ssl
import struct
import subprocess
import sys
import tempfile
import threading
import unittest

import unittap

PROGRAM = sys.argv[1]
WATCHDOG = 120  # seconds, against a hang only


def make_certificate(directory, name):
    """A self-signed certificate for 127.0.0.1, which is its own authority, and its key."""
    pem = directory / f"{name}.pem"
    key = directory / f"{name}.key"
    certificate = directory / f"{name}.crt"
    subprocess.run(
        ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256"]
        + ["-nodes", "-days", "2", "-subj", f"/CN={name}", "-addext", "subjectAltName=IP:127.0.0.1"]
        + ["-keyout", key, "-out", certificate],
        check=True,
        capture_output=True,
        timeout=WATCHDOG,
    )
    pem.write_text(certificate.read_text() + key.read_text())
    return pem, certificate


class Tap(threading.Thread):
    """Stands between the two and keeps what the caller sends."""

    def __init__(self, port):
        super().__init__(daemon=True)
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.target = port
        self.seen = b""
        self.start()

    def run(self):
        near, _ = self.listener.accept()
        far = socket.create_connection(("127.0.0.1", self.target))
        back = threading.Thread(target=self.pump, args=(far, near, False), daemon=True)
        back.start()
        self.pump(near, far, True)
        back.join(WATCHDOG)

    def pump(self, source, sink, keep):
        try:
            while data := source.recv(65536):
                if keep:
                    self.seen += data
                sink.sendall(data)
            sink.shutdown(socket.SHUT_WR)
        except OSError:
            pass  # one side has gone


class TlsExample(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        directory = pathlib.Path(self.directory.name)
        self.pem, self.certificate = make_certificate(directory, "server")
        _, self.stranger = make_certificate(directory, "stranger")
        self.server = subprocess.Popen(
            [PROGRAM, "serve", self.pem],
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
        )
        self.port = int(self.server.stdout.readline())

    def tearDown(self):
        self.server.kill()
        self.server.communicate()
        self.directory.cleanup()

    def call(self, port, trusted):
        return subprocess.run(
            [PROGRAM, "call", str(port), trusted],
            capture_output=True,
            text=True,
            timeout=WATCHDOG,
        )

    def test_echo(self):
        """/tls/a-trusted-peer-answers-and-nothing-travels-in-the-clear"""
        between = Tap(self.port)
        client = self.call(between.port, self.certificate)
        self.assertEqual((client.returncode, client.stdout), (0, "hello over TLS\n"), client.stderr)
        _, complaints = self.server.communicate(timeout=WATCHDOG)
        self.assertEqual((self.server.returncode, complaints), (0, ""))
        between.join(WATCHDOG)
        self.assertGreater(len(between.seen), 100)
        self.assertNotIn(b"hello", between.seen)

    def test_stranger(self):
        """/tls/a-peer-that-nobody-vouches-for-is-refused"""
        client = self.call(self.port, self.stranger)
        self.assertEqual((client.returncode, client.stdout), (1, ""))
        self.assertIn("certificate", client.stderr)
        self.server.communicate(timeout=WATCHDOG)
        self.assertEqual(self.server.returncode, 1)

    def test_other_answer(self):
        """/tls/another-answer-is-not-printed"""
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(self.pem)
        with socket.create_server(("127.0.0.1", 0)) as server:
            answer = threading.Thread(target=self.answer, args=(server, context))
            answer.start()
            client = self.call(server.getsockname()[1], self.certificate)
            answer.join(WATCHDOG)
        self.assertEqual((client.returncode, client.stdout), (1, ""))
        self.assertIn("The echo differs", client.stderr)

    @staticmethod
    def answer(server, context):
        """Sends a compressed block, a single run of literals, that controls a terminal."""
        text = b"\x1b[31mover TLS"
        frame = struct.pack("<i", len(text)) + text
        payload = bytes([len(frame) + 17]) + frame + b"\x11\0\0"
        with context.wrap_socket(server.accept()[0], server_side=True) as peer:
            peer.sendall(struct.pack("<II", len(payload), len(frame)) + payload)
            while peer.recv(1000):
                pass


unittap.main()
