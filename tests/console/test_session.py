# SPDX-License-Identifier: BSD-3-Clause
"""The daemon and its client from outside, as two programs."""

import itertools
import os
import random
import re
import signal
import time
from concurrent.futures import ThreadPoolExecutor

import pytest
from daemon import (CLOSED, PASSPHRASE, PASSWORD, SANITIZED, SCALE, Op, Peer, Result, eventually, frame, in_parallel,
                    user)


def test_client_walks_through_a_session(daemon):
    daemon.start("-log log -trace trace -level 3")
    new = "\ntea party\ntea party\n"
    changed = "logged in; the password must be changed\n"
    for arguments, typed, outcome in [
        ("-user alice -c 'set hostname box-17; set hostname box-17; get hostname; event gui_event_config_changed now; "
         "call console_sessions; run system; set j a\033\u009b; get j; logout; get hostname'", PASSWORD,
         r"logged in\nset\nset\nbox-17\nraised\n1\nLinux .*\nset\na\?.\?\nlogged out\n0\n"),
        ("-user alice -c 'get missing'", PASSWORD, "logged in\n1\n"),
        ("-user alice -c 'run rm'", PASSWORD, "logged in\n1\n"),
        ("-user alice -c who", "wrong", "1\n"),
        ("-user dave -c 'get hostname; set hostname x; event e d; call console_sessions; run id; who; logout'",
         PASSPHRASE, changed + r"dave from 127.0.0.1, session \d+\nlogged out\n1\n"),
        ("-user dave -c 'passwd; get hostname; passwd; get hostname; passwd'",
         PASSPHRASE + "\nwrong" + new + PASSPHRASE + new, changed + "changed\nbox-17\n1\n"),
        ("-user dave -c 'passwd'", "tea party\nanother\none", "logged in\n1\n"),  # the new ones differ
        ("-user alice", f"{PASSWORD}\nget hostname\nset k {'x' * 5000} run id\nget k",
         "logged in\nbox-17\n1\n"),  # the long line is refused as a whole
        ("-c who", "", "1\n"),
        ("-c dance", "", "1\n"),
        ("-port 0", "", "2\n"),
        ("-port 1 -c who", "", "3\n"),
        ("-user alice -c help", "wrong", "1\n"),  # and no more
        ("-user alice -c who >/dev/full", PASSWORD, "1\n"),
    ]:
        output = daemon.client(arguments, typed)
        assert re.fullmatch(outcome, output), (arguments, output)
    assert daemon.count(r'consoled - 127\.0\.0\.1:\d+: "alice" logged in, session 1\n') == 1
    assert daemon.count(r'"dave" changes "password": (done|the password was not changed)\n') == 2
    assert ": operation 7\n" in daemon.written("trace")
    assert "close user=alice rhost=127.0.0.1 INTERFACE_IP=127.0.0.1" in daemon.written("record")


def sessions(peer):
    """How many the daemon has registered, that of the asking peer included."""
    return int(peer.ask(Op.CALL, "console_sessions", "").text)


def test_two_hundred_clients_are_all_served_and_leave_nothing(daemon):
    daemon.start()
    watcher = daemon.logged_in()
    descriptors, threads = daemon.has("fd"), daemon.has("task")

    def resident_when_they_have_left():
        assert eventually(lambda: sessions(watcher) == 1)
        assert eventually(lambda: (daemon.has("fd"), daemon.has("task")) == (descriptors, threads))
        return daemon.resident()

    def client(number):
        for login in range(max(40 // SCALE, 1)):
            peer = daemon.logged_in(user(number))  # they get in each other's way
            assert peer.ask(Op.WHO).result == Result.DONE
            if login % 2 == 1:  # every other one just vanishes
                assert peer.ask(Op.LOGOUT).result == Result.DONE

    everybody = in_parallel(200, lambda number: daemon.logged_in(user(number)))
    assert sessions(watcher) == 201
    del everybody
    before = resident_when_they_have_left()
    in_parallel(200, client)
    afterwards = resident_when_they_have_left()
    assert SANITIZED or afterwards < before + 4096


def test_broken_and_hostile_frames_harm_nobody_even_on_a_full_disk(daemon):
    daemon.start("-log /dev/full -trace /dev/full")
    steady = daemon.logged_in()
    for whole in [frame(Op.LOGIN, "alice", PASSWORD), frame(Op.WHO), frame(Op.GET, "hostname"),
                  frame(Op.EVENT, "e", "d"), frame(Op.RUN, "date")]:
        for cut in range(1, len(whole)):
            Peer(daemon.port).send(whole[:cut])  # and vanishes
        peer = Peer(daemon.port)
        peer.log_in()
        peer.send(whole[:-1])  # with a login open
    del peer

    def send_noise(seed):
        noise = random.Random(seed)
        for i in range(25_000 // SCALE):
            data = noise.randbytes(1 + noise.randrange(64))
            peer = Peer(daemon.port)
            peer.send(b"\0\1\0\0\0" + data[5:] if i % 2 == 0 else data)  # half of them get further in
            peer.finish()
    in_parallel(4, send_noise)
    assert steady.ask(Op.WHO).result == Result.DONE
    assert eventually(lambda: sessions(steady) == 1)
    assert Peer(daemon.port).log_in().result == Result.DONE


def test_without_descriptors_clients_are_refused_and_nothing_spins(daemon):
    daemon.start(descriptors=24)
    peers = [Peer(daemon.port) for _ in range(40)]
    results = [peer.ask(Op.WHO).result for peer in peers]
    assert set(results) <= {Result.NOT_LOGGED_IN, Result.BUSY, CLOSED.result}
    assert len(results) - results.count(Result.NOT_LOGGED_IN) > 10

    def processor_time():  # nanoseconds of the main thread
        return int(daemon.of_process("schedstat").split()[0])
    before = processor_time()
    time.sleep(1)
    assert processor_time() - before < 500_000_000
    peers.clear()
    assert eventually(lambda: daemon.has("fd") < 16)  # a sanitizer takes lacking ones for a broken object
    assert Peer(daemon.port).log_in().result == Result.DONE


def test_client_that_owes_a_request_is_hung_up(daemon):
    daemon.start("-idle 1")
    silent, stalled, trickling = (Peer(daemon.port) for _ in range(3))
    assert silent.log_in().result == Result.DONE
    stalled.send(b"\0\1\0")  # half a header, which a blocked receive waits for

    def trickle():
        for byte in b"\0\1\0\0\1\0\0\0\0\0\0\0":  # always in time for the next byte, never for the request
            trickling.send(bytes([byte]))
            time.sleep(0.4)
    with ThreadPoolExecutor() as pool:
        pool.submit(trickle)
        for peer in (silent, stalled, trickling):
            assert peer.receive() == CLOSED
    assert eventually(lambda: "close " in daemon.written("record"))


def test_one_program_runs_at_a_time_and_the_next_after_it(daemon):
    daemon.start()
    peers = [Peer(daemon.port) for _ in range(2)]
    assert [peer.log_in().result for peer in peers] == [Result.DONE] * 2
    before = daemon.has("fd")
    answers = []

    def run_beside_each_other():
        for peer in peers:
            peer.send(frame(Op.RUN, "id"))
        answers[:] = sorted(peer.receive() for peer in peers)
        return [answer.result for answer in answers] == [Result.DONE, Result.BUSY]
    assert eventually(run_beside_each_other)
    assert answers[0].text.startswith("uid=")
    assert peers[0].ask(Op.RUN, "disk").result == Result.DONE
    assert daemon.has("fd") == before


def test_program_ends_with_its_client_and_with_its_time(daemon, monkeypatch):
    language = daemon.folder / "languages" / "xx"
    language.mkdir(parents=True)
    waiting = language / "LC_IDENTIFICATION"  # what a program of GNU's opens first, and nobody writes
    os.mkfifo(waiting)
    monkeypatch.setenv("LOCPATH", str(language.parent))
    monkeypatch.setenv("LC_ALL", "xx")
    daemon.start()
    other = daemon.logged_in("user1")
    before = daemon.has("fd")
    peer = daemon.logged_in()
    peer.send(frame(Op.RUN, "id"))
    assert eventually(lambda: daemon.has("fd") > before + 1)
    times = [time.monotonic()]
    del peer
    assert eventually(lambda: daemon.has("fd") == before)
    times.append(time.monotonic())
    with pytest.raises(OSError):  # nobody opens it any more
        os.open(waiting, os.O_WRONLY | os.O_NONBLOCK)
    assert other.ask(Op.RUN, "id").result == Result.FAILED
    assert times[1] - times[0] < (time.monotonic() - times[1]) / 2


def test_operator_sees_who_is_in_and_ends_a_session(daemon):
    daemon.start("-log log")
    alice, other = daemon.logged_in(), daemon.logged_in("user1")
    daemon.signal(signal.SIGUSR1)
    assert eventually(
        lambda: daemon.count(r'consoled - session \d+: "(alice|user1)" from 127\.0\.0\.1 since \d\d/') == 2)
    assert daemon.count("consoled - 2 connections of users\n") == 1
    daemon.end_session(1)
    assert alice.receive() == CLOSED
    daemon.signal(signal.SIGUSR2)  # names none
    assert eventually(lambda: daemon.count("session -1: there is none\n") == 1)
    assert daemon.count("session 1: ended") == 1
    assert other.ask(Op.WHO).result == Result.DONE
    assert other.log_in("user1").text == "logged in already"


def test_starts_only_with_options_and_a_service_that_it_knows(daemon):
    for options, status in [("-service TEST -idle 0", 2), ("-lgo x", 2), ("-service tset", 1), ("-service ../test", 1),
                            ("-help", 0)]:
        daemon.launch(options)
        assert daemon.wait() == status, options
    assert "256 properties" in daemon.written("stdout")
    daemon.start("-service TEST")


def test_termination_closes_every_session(daemon):
    daemon.start("-log log")
    peers = [Peer(daemon.port) for _ in range(10)]
    for peer, cut in zip(peers, itertools.cycle(range(4))):
        assert peer.log_in().result == Result.DONE
        peer.send(b"\0\1\0"[:cut])
    peers[0].send(frame(Op.RUN, "id"))
    assert daemon.stop() == 0
    assert daemon.count("close ", "record") == 10
    assert daemon.written("log").endswith("consoled - stopped\n")
