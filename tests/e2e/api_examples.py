#!/usr/bin/env python3
"""Sends the examples of docs/api.md to a server and compares the form of the answers.

A block "request WHO" holds a request line and, below it, a body; the block "answer STATUS" behind it the answer. WHO is
nobody, admin, viewer or agent. "$NAME" stands for a value that an earlier answer had in this place, or the caller gave. In
an answer, null fits everything, other values are compared by type, objects by their keys, and every element of a list
with the first one of the example. "until JQ-LIKE.PATH" behind WHO repeats the request until that number is not 0.
"""
import json
import re
import ssl
import sys
import time
import urllib.error
import urllib.request

WAIT_SECONDS = 90


def examples(text):
    """(who, until, request text, status, answer text) of each pair of blocks."""
    blocks = re.findall(r"^```(request|answer)([^\n]*)\n(.*?)^```$", text, re.M | re.S)
    position = 0
    while position < len(blocks):
        kind, words, body = blocks[position]
        if kind != "request" or position + 1 >= len(blocks) or blocks[position + 1][0] != "answer":
            raise SystemExit("a request without an answer, or the other way round: " + body.split("\n")[0])
        words = words.split()
        answer = blocks[position + 1]
        yield words[0], words[2] if len(words) > 2 else None, body, int(answer[1].split()[0]), answer[2]
        position += 2


class Session:
    def __init__(self, url, ca, values):
        self.url = url
        self.context = ssl.create_default_context(cafile=ca)
        self.values = values

    def filled(self, text):
        return re.sub(r"\$([A-Z][A-Z0-9_]*)", lambda m: self.values.get(m.group(1), m.group(0)), text)

    def send(self, who, text):
        line, _, body = self.filled(text).partition("\n")
        method, path = line.split(" ", 1)
        headers = {"Content-Type": "application/json"}
        if who == "agent":
            headers["X-Access-Key"] = self.values["ACCESS_KEY"]
        elif who != "nobody":
            headers["Authorization"] = "Bearer " + self.values["TOKEN_" + who.upper()]
        data = body.strip("\n").encode() if body.strip() else None
        if data is not None and not body.lstrip().startswith(("{", "[")):
            headers["Content-Type"] = "application/octet-stream"
            data = body.encode()
        request = urllib.request.Request(self.url + path, data=data, method=method, headers=headers)
        try:
            with urllib.request.urlopen(request, context=self.context, timeout=120) as reply:
                return reply.status, reply.read().decode()
        except urllib.error.HTTPError as reply:
            return reply.code, reply.read().decode()


def differences(wanted, got, place="answer"):
    """What does not fit, as sentences."""
    if wanted is None:
        return []
    number = lambda value: isinstance(value, (int, float)) and not isinstance(value, bool)
    if type(wanted) is not type(got) and not (number(wanted) and number(got)):
        return ["%s is %s, not %s as in the example" % (place, json.dumps(got)[:80], json.dumps(wanted)[:80])]
    found = []
    if isinstance(wanted, dict):
        found += ["%s has no '%s'" % (place, key) for key in wanted if key not in got]
        found += ["%s has '%s', which the example does not tell of" % (place, key) for key in got if key not in wanted]
        for key in wanted:
            if key in got:
                found += differences(wanted[key], got[key], place + "." + key)
    elif isinstance(wanted, list) and wanted:
        if not got:
            found.append(place + " is empty")
        for index, element in enumerate(got):
            found += differences(wanted[0], element, "%s[%d]" % (place, index))
    return found


def take_values(wanted, got, values):
    if isinstance(wanted, str) and re.fullmatch(r"\$[A-Z][A-Z0-9_]*", wanted):
        values[wanted[1:]] = str(got)
    elif isinstance(wanted, dict):
        for key in wanted:
            if key in got:
                take_values(wanted[key], got[key], values)
    elif isinstance(wanted, list) and wanted and got:
        take_values(wanted[0], got[0], values)


def number_at(path, text):
    value = json.loads(text)
    for key in path.split("."):
        value = value[key]
    return value


def check(session, who, until, request, status, answer):
    deadline = time.monotonic() + WAIT_SECONDS
    while True:
        got_status, got = session.send(who, request)
        if until is None or (got_status == status and number_at(until, got)) or time.monotonic() > deadline:
            break
        time.sleep(0.2)
    if got_status != status:
        return ["status %d, not %d: %s" % (got_status, status, got[:300])]
    wanted = session.filled(answer).strip()
    if not wanted:
        return [] if not got.strip() else ["there is an answer: " + got[:200]]
    if wanted[0] not in "{[":
        return [] if wanted.split("\n")[0].rstrip() in got else ["the answer has no line '%s'" % wanted.split("\n")[0]]
    try:
        wanted, got = json.loads(wanted), json.loads(got)
    except ValueError as error:
        return ["not JSON: %s" % error]
    found = differences(wanted, got)
    if not found:
        take_values(wanted, got, session.values)
    return found


def uncovered(patterns, seen):
    """The resources "METHOD /path/{var}" that no example has asked for."""
    missing = []
    for pattern in patterns:
        method, path = pattern.split(" ", 1)
        form = re.compile(re.sub(r"\\{[a-z_]+\\}", "[^/?]+", re.escape(path)) + r"(\?.*)?$")
        if not any(one_method == method and form.match(one_path) for one_method, one_path in seen):
            missing.append(pattern)
    return missing


def main():
    document, url, ca, resources = sys.argv[1:5]
    values = dict(pair.split("=", 1) for pair in sys.argv[5:])
    session = Session(url, ca, values)
    failed = 0
    seen = []
    with open(document, encoding="utf-8") as file:
        text = file.read()
    for who, until, request, status, answer in examples(text):
        line = request.split("\n")[0]
        problems = check(session, who, until, request, status, answer)
        seen.append(tuple(session.filled(line).split(" ", 1)))
        print(("ok      " if not problems else "FAILED  ") + line)
        for problem in problems:
            print("        " + problem)
        failed += bool(problems)
    with open(resources, encoding="utf-8") as file:
        for pattern in uncovered([line.strip() for line in file if line.strip()], seen):
            print("FAILED  there is no example of " + pattern)
            failed += 1
    print("%d examples" % len(seen))
    return 1 if failed or len(seen) < 40 else 0


if __name__ == "__main__":
    sys.exit(main())
