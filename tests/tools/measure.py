#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""ping and perf against serve, as real processes."""

import contextlib
import json
import signal
import socket
import struct
import time

from support import (
    PAIRS, SANITIZED, STAGES, Peer, Process, Skip, case, each, frame, key, limit_memory,
    listening_address, main, run,
)


@each(*PAIRS)
def ping_counts_round_trips(kind, stages):
    key()
    serve = Process("serve", listening_address(kind), *stages)
    address = serve.address()
    ping = run("ping", address, *stages, "-c", "50", "-i", "0", "-s", "1000", "--json")
    found = json.loads(ping.output)
    order = [found[name] for name in ("min", "p50", "p90", "p95", "p99", "p99.9", "max")]
    assert order == sorted(order) and 0 < found["min"] <= found["mean"] <= found["max"]
    assert found["count"] == 50 and found["size"] == 1000
    text = run("ping", address, *stages, "-c", "3", "-i", "0.01", "-s", "0").output.decode()
    assert text.startswith("3 round trips of 0 bytes") and "p99.9" in text
    serve.kill(signal.SIGINT)
    serve.wait(0)
    assert not serve.complaints


@each(*PAIRS)
def perf_measures_both_directions(kind, stages):
    key()
    serve = Process("serve", listening_address(kind), *stages)
    perf = run("perf", serve.address(), *stages, "-t", "0.1", "-s", "1,5000", "--json")
    rows = [json.loads(line) for line in perf.output.splitlines()]
    assert [(row["direction"], row["size"]) for row in rows] == [
        ("send", 1), ("send", 5000), ("receive", 1), ("receive", 5000),
    ]
    for row in rows:
        assert row["messages"] > 0 and row["bytes"] == row["messages"] * row["size"]
        assert row["seconds"] >= 0.1 and row["cpu-seconds-here"] >= 0
        if not stages:
            framed = row["bytes"] + 4 * row["messages"]
            # The empty message at the end and the request before may be part of the count.
            assert framed <= row["wire-bytes"] <= framed + 4
        elif stages[0] == "--compress" and row["size"] == 5000:
            assert row["wire-bytes"] < 0.9 * row["bytes"]
        else:
            assert row["wire-bytes"] > row["bytes"]
    table = run("perf", serve.address(), *stages, "-t", "0.1", "-s", "100", "-d", "send")
    assert len(table.output.splitlines()) == 3 and b"CPU there" in table.output


@case
def random_data_does_not_compress_and_zeros_do():
    serve = Process("serve", "unix:socket", "--compress")
    ratio = {}
    for kind in ("text", "random", "zero"):
        options = ["--data", kind, "-t", "0.1", "-s", "10000", "-d", "send", "--json"]
        row = json.loads(run("perf", serve.address(), "--compress", *options).output)
        ratio[kind] = row["wire-bytes"] / row["bytes"]
    assert ratio["zero"] < 0.1 < ratio["text"] < 0.9 < 1 < ratio["random"] < 1.05, ratio


@case
def several_peers_at_once():
    serve = Process("serve", "127.0.0.1:0")
    address = serve.address()
    silent = socket.create_connection(("127.0.0.1", int(address.rsplit(":", 1)[1])))
    pings = [Process("ping", address, "-c", "20", "-i", "0.01") for _ in range(5)]
    for ping in pings:
        ping.wait()
    silent.close()


@case
def wrong_stages_are_named_on_both_sides():
    key("key", 1)
    key("other", 2)
    for one, other in (
        (["--encrypt", "key"], ["--encrypt", "other"]),
        (["--compress", "--encrypt", "key"], ["--encrypt", "key", "--compress"]),
        (["--compress"], []),
        ([], ["--encrypt", "key"]),
    ):
        serve = Process("serve", "unix:socket", *one)
        ping = run("ping", serve.address(), *other, codes=(5,))
        ping.complained("another key or other stages")
        serve.until(lambda: serve.complaints, "complaint")
        serve.complained("another key or other stages")
        serve.kill(signal.SIGTERM)
        serve.wait(0)


@case
def a_peer_that_serves_something_else_is_named():
    receive = Process("receive", "unix:socket", ".")
    run("perf", receive.address(), codes=(5,)).complained('"perf" is not what runs here (files)')
    receive.wait(5)
    serve = Process("serve", "unix:socket")
    run("send", serve.address(), "/dev/null", codes=(5,)).complained("not what runs here (ping, perf)")


@case
def a_peer_gone_in_the_middle_is_named():
    serve = Process("serve", "unix:socket")
    ping = Process("ping", serve.address(), "-c", "0", "-i", "0.01")
    perf = Process("perf", serve.address(), "-t", "100", "-d", "receive", "-s", "1000")
    # Both are past their hello when the processes that serve them end with serve.
    perf.until(lambda: b"direction" in perf.output, "table")
    ping.until(lambda: len(children(serve)) == 2, "second child")
    time.sleep(0.2)
    serve.kill()
    serve.wait(-9)
    ping.wait(4).complained("went away in the middle")
    perf.wait(4).complained("went away in the middle")


def children(process):
    path = f"/proc/{process.popen.pid}/task/{process.popen.pid}/children"
    with open(path, encoding="ascii") as file:
        return file.read().split()


@case
def an_interrupted_ping_still_sums_up():
    serve = Process("serve", "unix:socket")
    ping = Process("ping", serve.address(), "-c", "0", "-i", "0.01", "--json")
    ping.until(lambda: children(serve), "child")
    time.sleep(0.2)
    ping.kill(signal.SIGINT)
    ping.wait(130)
    assert json.loads(ping.output)["count"] > 0 and not ping.complaints


def after_hello(command, *options):
    """The program and the socket of a peer by hand that has returned its hello."""
    server = socket.create_server(("127.0.0.1", 0))
    process = Process(command, f"127.0.0.1:{server.getsockname()[1]}", *options)
    peer = server.accept()[0]
    peer.sendall(frame(message_from(peer)))
    return process, peer


def message_from(peer):
    size = struct.unpack("<i", peer.recv(4, socket.MSG_WAITALL))[0]
    return peer.recv(size, socket.MSG_WAITALL)


@case
def an_answer_that_differs_is_noticed():
    ping, peer = after_hello("ping")
    message = bytearray(message_from(peer))
    message[-1] ^= 1
    peer.sendall(frame(message))
    ping.wait(5).complained("answers with something else than it was sent")


@each(("ping", "ping"), ("perf", "perf", "-d", "receive"))
def a_message_that_drips_is_given_up(command, *options):
    process, peer = after_hello(command, *options, "--timeout", "1", "-s", "30000")
    message_from(peer)
    peer.sendall(struct.pack("<i", 30000))
    with contextlib.suppress(OSError):
        for _ in range(100):
            peer.sendall(b".")
            time.sleep(0.2)
    process.wait(4).complained("took too long to send a message")


@case
def callers_are_counted_although_the_signal_was_blocked():
    block = lambda: signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGCHLD])
    serve = Process("serve", "unix:socket", before=block)
    run("ping", serve.address(), "-c", "1")
    serve.until(lambda: not children(serve), "end of the child")


@case
def a_crowd_gets_no_more_than_100_processes():
    serve = Process("serve", "unix:socket", "--timeout", "2")
    serve.address()
    crowd = [socket.socket(socket.AF_UNIX) for _ in range(120)]
    for sock in crowd:
        sock.connect("socket")
    # The listen queue is in order, so all of the crowd is before the ping.
    ping, peak = Process("ping", "unix:socket", "-c", "1", "--timeout", "60"), 0
    while not ping.output:
        peak = max(peak, len(children(serve)))
        time.sleep(0.002)
    assert peak == 100, peak
    ping.wait()


@case
def only_eight_callers_may_use_large_messages():
    serve = Process("serve", "unix:socket")
    serve.address()
    crowd = []
    for _ in range(12):
        crowd.append(Peer("unix:socket", b"ping"))
        crowd[-1].socket.sendall(struct.pack("<i", 2 << 20))
    serve.until(lambda: len(children(serve)) == 8 and len(serve.complaints) == 4, "refusals")
    serve.complained("at most 1048576 are expected", lines=4)
    run("ping", "unix:socket", "-c", "1", "-s", str(1 << 20))
    for command in (["ping"], ["perf", "-t", "0.1"]):
        refused = run(*command, "unix:socket", "-s", str(2 << 20), codes=(1,))
        refused.complained("has many callers and takes messages of at most 1048576 bytes")
    crowd.pop(0).socket.close()
    serve.until(lambda: len(children(serve)) == 7, "end of a caller")
    run("ping", "unix:socket", "-c", "1", "-s", str(2 << 20))


@case
def a_caller_that_needs_too_much_memory_is_told_of():
    if SANITIZED:
        raise Skip("a sanitizer needs more address space")
    serve = Process("serve", "unix:socket")
    serve.address()
    limit_memory(serve, 16)
    peer = Peer("unix:socket", b"ping")
    with contextlib.suppress(OSError):
        peer.socket.sendall(struct.pack("<i", 40 << 20))
    serve.until(lambda: serve.complaints, "complaint")
    serve.complained("the system refuses memory or a thread")
    run("ping", "unix:socket", "-c", "1")


@case
def wrong_options_are_usage_errors():
    for options in (["--sizes", ""], ["--sizes", "0"], ["--sizes", "1,x"], ["--direction", "up"],
                    ["--data", "x"], ["--seconds", "0"]):
        run("perf", "unix:x", *options, codes=(2,))
    for options in (["-c", "-1"], ["-s", "-1"], ["-i", "-1"], ["-s", str(2**30)]):
        run("ping", "unix:x", *options, codes=(2,))


main()
