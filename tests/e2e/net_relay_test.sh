#!/usr/bin/env bash
# The relay that stands for a bad network in the scenarios of the served way.
set -euo pipefail
bin=$(cd "${1:?usage: $0 FOLDER_OF_PROGRAMS}" && pwd)
work=$(mktemp -d /tmp/kestrel-relay.XXXXXX)
trap 'rm -rf "$work"' EXIT
trap 'exit 130' INT TERM

cat >"$work/test.py" <<'END'
import atexit, os, socket, subprocess, sys, threading, time

relay_program, folder = sys.argv[1:]
control = folder + "/control"


def rules(text):
    with open(control + ".new", "w") as f:
        f.write(text)
    os.rename(control + ".new", control)
    expect("rules")


server = socket.create_server(("127.0.0.1", 0))


def serve():
    while True:
        peer, _ = server.accept()
        threading.Thread(target=echo, args=(peer,), daemon=True).start()


def echo(peer):
    try:
        while True:
            data = peer.recv(65536)
            if not data:
                peer.sendall(b"[end]")
                return peer.close()
            peer.sendall(data)
    except OSError:
        peer.close()


threading.Thread(target=serve, daemon=True).start()
relay = subprocess.Popen([relay_program, "127.0.0.1:0", "127.0.0.1:%d" % server.getsockname()[1], control],
                         stdout=subprocess.PIPE, text=True)
atexit.register(relay.kill)  # also after an assertion that failed
lines = []


def expect(word):
    while True:
        line = relay.stdout.readline()
        assert line, "the relay ended"
        lines.append(line)
        if line.startswith(word):
            return line


address = expect("listening").split()[1].split(":")


def dial():
    link = socket.create_connection((address[0], int(address[1])))
    link.settimeout(20)
    return link


def ask(link, text):
    link.sendall(text)
    got = b""
    while len(got) < len(text):
        piece = link.recv(65536)
        assert piece, "the connection ended"
        got += piece
    assert got == text, got[:40]


def silent(link):
    link.settimeout(0.3)
    try:
        data = link.recv(10)
    except socket.timeout:
        link.settimeout(20)
        return True
    raise AssertionError("unexpected: %r" % data)


def broken(link):
    try:
        link.sendall(b"x")
        while link.recv(10):
            pass
    except ConnectionError:
        return True
    raise AssertionError("ended in an orderly way")


old = dial()
ask(old, os.urandom(3000000))
old.shutdown(socket.SHUT_WR)
assert old.recv(10) == b"[end]"
assert old.recv(10) == b""
assert expect("close").split() == ["close", "1", "3000000", "3000005"], lines

old = dial()
ask(old, b"before")
rules("down_delay_msec=400\n")
begin = time.monotonic()
ask(old, b"late")
assert time.monotonic() - begin >= 0.4
rules("down=hold\nscope=existing\n")
old.sendall(b"held")
assert silent(old)
new = dial()
ask(new, b"not in scope")
rules("down=hold\nscope=new\n")
held = dial()
held.sendall(b"held")
assert silent(held)
ask(new, b"made before")
rules("scope=existing\nup_delay_msec=0\n")
assert held.recv(10) == b"held"
assert old.recv(10) == b"held"
rules("rate=100000\n")
begin = time.monotonic()
ask(new, bytes(100000))
assert time.monotonic() - begin >= 0.8
rules("cut=1\n")
assert broken(old) and broken(new)
new = dial()
ask(new, b"after the cut")
rules("cut=1\naccept=refuse\n")
ask(new, b"open ones stay")
refused = dial()
assert broken(refused)
rules("cut=1\naccept=hold\n")
unanswered = dial()
unanswered.sendall(b"hello?")
assert silent(unanswered)
with open(control + ".new", "w") as f:
    f.write("down=sideways\n")
os.rename(control + ".new", control)
assert "down=sideways" in expect("not understood")
ask(new, b"the last good rules hold")
relay.kill()
relay.wait()
print("relay: done")
END
timeout 100 python3 "$work/test.py" "$bin/net_relay" "$work"
