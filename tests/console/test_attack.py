# SPDX-License-Identifier: BSD-3-Clause
"""What strangers, and users who mean no good, can do to the daemon: as much as a number says, and no more."""

import math
import os
import re
import signal
import subprocess
import time

import pytest
from daemon import (CLOSED, CONSOLE, LIMITS, PASSPHRASE, SANITIZED, SCALE, UNKIND_MODULE, Answer, Op, Peer, Result,
                    eventually, frame, in_parallel, pieces_in, user)

SLOW_REFUSALS = "auth optional pam_faildelay.so delay="  # microseconds
UNKIND = f"auth optional [{UNKIND_MODULE}]"


def seconds_since(begin):
    return math.ceil(time.monotonic() - begin)


def test_silent_connections_leave_room_and_hardly_a_line(daemon):
    daemon.start("-log log -trace trace -level 9")
    silent = [Peer(daemon.port) for _ in range(600)]
    assert len(daemon.written("log") + daemon.written("trace")) < 1000
    for i in range(3000 // SCALE):
        assert Peer(daemon.port).log_in(user(i)).result == Result.DONE, i
    assert daemon.has("fd") <= 522
    assert daemon.stop() == 0
    assert daemon.count(r"\d\d+ gave way") >= 1
    del silent


def test_wrong_passwords_that_take_time_hold_up_nobody_else(daemon):
    daemon.add_to_stack(SLOW_REFUSALS + "2000000")
    daemon.start()
    known = daemon.logged_in()
    begin = time.monotonic()
    peers = [Peer(daemon.port) for _ in range(600)]
    for peer in peers:
        peer.send(frame(Op.LOGIN, "alice", "looking-glass"))
    for i in range(20):
        assert known.ask(Op.CALL, "console_sessions", "") == (Result.DONE, "1"), i
        for request in [(Op.WHO,), (Op.SET, "motto", "calm"), (Op.GET, "motto")]:
            assert known.ask(*request).result == Result.DONE, i
    assert daemon.stop() == 0
    assert daemon.count("authenticate ", "record") <= 12 + seconds_since(begin)  # the others are turned away


def test_guesses_are_slowed_down_and_named(daemon):
    daemon.start("-log log")
    begin = time.monotonic()
    guesses = [frame(Op.LOGIN, name, "looking-glass") for name in ("alice", '9 "as \u009bx')]
    peers = [Peer(daemon.port) for _ in range(24)]
    for i, peer in enumerate(peers):
        peer.send((guesses[i % 2] + guesses[1 - i % 2]) * 50)
    time.sleep(1.5)
    assert eventually(lambda: daemon.count("authenticate ", "record") > 5)
    assert daemon.stop() == 0
    seconds = seconds_since(begin)
    assert daemon.count("authenticate ", "record") <= 11 + seconds
    assert daemon.count(r'refused \d+ from 127.0.0.1, \d+ as "(alice", \d+|9 .as ..x", \d+) as') >= 1
    assert daemon.count(r" \d\d turned away") >= 1  # at most three of each connection
    assert daemon.count("\n") < 8 + seconds


def test_log_is_private_and_follows_no_link_and_is_reopened(daemon):
    (daemon.folder / "precious").write_text("kept")
    (daemon.folder / "link").symlink_to("precious")
    for options in ("-log link", "-trace link", "-log no/folder", "-trace no/folder"):
        daemon.launch(options)
        assert daemon.wait() == 1, options
    assert daemon.written("precious") == "kept"

    daemon.start("-log log -trace trace")
    for file in ("log", "trace"):
        (daemon.folder / file).rename(daemon.folder / f"{file}.1")
    daemon.signal(signal.SIGHUP)
    assert eventually((daemon.folder / "trace").exists)
    assert Peer(daemon.port).log_in().result == Result.DONE
    for file in ("log", "trace"):
        assert daemon.count('"alice" logged in', file) == 1, file
        assert (daemon.folder / file).stat().st_mode & 0o777 == 0o600, file
    assert daemon.count("alice", "log.1") == 0


def test_program_holds_nothing_of_the_daemon(daemon):
    daemon.start("-log log -trace trace")
    peer = daemon.logged_in()
    for number in os.listdir(f"/proc/{daemon.process.pid}/fdinfo"):
        flags = int(re.search(r"flags:\s+(\d+)", daemon.of_process(f"fdinfo/{number}"))[1], 8)
        assert int(number) <= 2 or flags & os.O_CLOEXEC, number
    assert peer.ask(Op.RUN, "id").result == Result.DONE
    assert daemon.stop() == 0
    daemon.start()  # on the same port, at once
    daemon.logged_in()


@pytest.mark.skipif(SANITIZED, reason="the memory of a sanitizer is searched in vain")
def test_password_is_nowhere_after_the_login(daemon):
    daemon.start("-log log -trace trace -level 9")
    for name, password, outcome in [
        ("bob", PASSPHRASE, "need not be changed"),
        ("carol", PASSPHRASE, "login refused"),
        ("dave", PASSPHRASE, "\nchanged\n"),
        ("alice", "x94Kfq!m0Z", "login refused"),
        ("nobody", "q" * 100 + "w" * 100, "login refused"),
    ]:
        with open(daemon.folder / "client", "w") as output, subprocess.Popen(
                [CONSOLE, "-port", str(daemon.port), "-user", name], stdin=subprocess.PIPE, stdout=output,
                stderr=subprocess.STDOUT, text=True) as client:
            typed = [password, "passwd", password, password, password, "set motto motto is no secret, and kept\n"]
            client.stdin.write("\n".join(typed))
            client.stdin.flush()
            assert eventually(lambda text=outcome: daemon.count(text, "client") > 0), name
            if outcome != "login refused":  # or it has ended
                assert pieces_in(client.pid, password) == 0, f"client, {name}"
            assert pieces_in(daemon.process.pid, password) == 0, f"daemon, {name}"
        for file in ("log", "trace", "record", "stderr"):
            assert password not in daemon.written(file), (file, name)
    assert daemon.count('"bob" sets "motto": done') == 1
    assert pieces_in(daemon.process.pid, "motto is no secret, and kept") > 0  # the search works


def test_properties_of_a_user_and_of_all_are_bounded(daemon):
    daemon.start()
    users = min(max(40 // SCALE, 1), 9)  # in the long form one more than there is room for
    made = 0
    for number in range(users):
        peer = daemon.logged_in(user(number))
        for i in range(LIMITS["UserProperties"] + 20):
            answer = peer.ask(Op.SET, f"{user(number)}.{i}", "v" * 3800)
            made += answer.result == Result.DONE
            assert answer.result == Result.DONE or answer.text == "no room for another property"
        assert peer.ask(Op.SET, "user0.0", "changed").result == Result.DONE
    assert made == min(users * LIMITS["UserProperties"], LIMITS["Properties"])
    assert SANITIZED or daemon.resident() < 32 * 1024


def test_flood_of_a_user_is_paced_and_each_deed_is_in_the_log(daemon):
    daemon.start("-log log -trace trace -level 9")
    begin = time.monotonic()
    peers = [daemon.logged_in() for _ in range(3)]
    flood = b"".join(frame(Op.SET, "k", str(i)) + frame(Op.CALL, "no", "") + frame(Op.GET, f"missing{i}")
                     for i in range(400))
    in_parallel(3, lambda i: peers[i].send(flood))
    assert eventually(lambda: daemon.count('sets "k": done\n') > 200)
    time.sleep(2)
    assert daemon.logged_in("user1").ask(Op.SET, "root", "x").result == Result.DONE
    assert daemon.stop() == 0
    deeds = daemon.count('"alice" sets "k": done\n') + daemon.count('"alice" calls "no": the call failed\n')
    assert deeds <= LIMITS["DeedsAtOnce"] + 10 * (1 + seconds_since(begin))
    assert daemon.count('"user1" sets "root": done\n') == 1
    assert daemon.count("\n") <= deeds + 15  # and hardly any other line
    assert daemon.written("stdout") == f"consoled: listening on port {daemon.port}\n"


def test_one_user_leaves_places_to_others(daemon):
    daemon.start()
    peers = [daemon.logged_in() for _ in range(LIMITS["UserSessions"])]
    assert Peer(daemon.port).log_in().text == "no room for another session of yours"
    assert daemon.logged_in("user1").ask(Op.WHO).result == Result.DONE
    peers.pop()
    daemon.logged_in()


@pytest.mark.parametrize("in_pam", [False, True])
def test_step_that_hangs_holds_up_neither_others_nor_the_end(daemon, in_pam):
    daemon.add_to_stack(SLOW_REFUSALS + "90000000" if in_pam else UNKIND)
    daemon.start("-log log")
    one, other, guesser = daemon.logged_in(), daemon.logged_in("user1"), Peer(daemon.port)
    if in_pam:
        guesser.send(frame(Op.LOGIN, "alice", "looking-glass"))
    else:
        one.send(frame(Op.CALL, "hang", ""))
    for i in range(20):
        assert other.ask(Op.SET, "motto", "calm").result == Result.DONE, i
        assert other.ask(Op.GET, "motto") == (Result.DONE, "calm"), i
    assert eventually(lambda: daemon.count("authenticate ", "record") == 3 if in_pam
                      else daemon.count("hangs\n", "stderr") == 1)
    assert daemon.stop() == 0  # a kill would come before the step is over
    assert daemon.count("close ", "record") == 2
    assert daemon.count("a session hangs") == 1


def test_module_that_exits_leaves_a_line_and_not_the_status_of_a_success(daemon):
    daemon.add_to_stack(UNKIND)
    daemon.start("-log log")
    assert daemon.logged_in().ask(Op.CALL, "exit", "") == CLOSED
    assert daemon.wait() == 1
    assert daemon.count(r"ended by exit\(\)") == 1


def test_names_look_like_nothing_else_in_the_log(daemon):
    daemon.start("-log log -trace trace -level 9")
    peer = daemon.logged_in()
    name = 'z: done 11/25/2026 04:34:47 consoled - 127.0.0.1:1: bob sets root" x\u009b'
    for operation in (Op.SET, Op.EVENT, Op.CALL):
        peer.ask(operation, name, "v")
    peer.ask(Op.RUN, name)
    for file in ("log", "trace"):
        assert daemon.count(r'"alice" \w+ "z: done[^"\n]+root\? x\?\?": ', file) == 4, file
        assert "\udcc2" not in daemon.written(file), file


def test_refusals_tell_nothing_by_their_time_and_hold_no_place(daemon):
    daemon.start()
    peers = []
    begin = time.monotonic()
    for i in range(LIMITS["RefusalsAtOnce"]):  # there are fewer places to log in
        peers.append(Peer(daemon.port))
        peers[i].send(frame(Op.LOGIN, "nobody" if i % 2 else "alice", "wrong"))
        assert eventually(lambda: daemon.count("authenticate ", "record") == len(peers))
    for peer in peers:
        assert peer.receive() == Answer(Result.REFUSED, "login refused")
        assert time.monotonic() - begin >= LIMITS["RefusalTime"] / 1000
    for result in (Result.REFUSED, Result.REFUSED, CLOSED.result):  # three are all that a connection has
        assert peers[0].log_in("nobody").result == result


@pytest.mark.skipif("address" in os.environ["SANITIZERS"],
                    reason="the sanitizer opens a pipe to look at an object's type")
def test_lack_of_descriptors_is_no_refusal(daemon):
    daemon.start("-log log", descriptors=40)
    peers = [Peer(daemon.port)]
    peers[0].ask(Op.WHO)
    for _ in range(60):
        peers.append(Peer(daemon.port))
        if peers[-1].ask(Op.WHO).result != Result.NOT_LOGGED_IN:
            break
    assert peers[0].log_in().text == "no login is possible at present"
    del peers[1:]
    assert eventually(lambda: daemon.has("fd") < 16)
    assert peers[0].log_in().result == Result.DONE
    assert daemon.stop() == 0
    assert daemon.count("refused") == 0
