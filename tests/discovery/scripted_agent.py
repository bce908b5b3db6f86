#!/usr/bin/python3
"""A scripted SNMP v1/v2c agent for the walk's failure cases.

Usage: scripted_agent.py LOG SCRIPT

SCRIPT is a JSON list with one answer per request received, in order:
  {"oid": "1.3.6...", "int": 5}        one variable, INTEGER
  {"oid": "1.3.6...", "str": "A.ICC"}  one variable, OCTET STRING
  {"oid": "1.3.6...", "endOfMibView": true}   (v2c only)
  {"error": 5}                         error status (5 genErr, 2 noSuchName)
  {"silent": true}                     no answer
  {"repeat": N, ...one of the above}   the same answer N times
Requests after the last answer get no answer.

SCRIPT may instead be a JSON object: an agent whose answers depend only on the
name asked for, so that any number of requests in flight, in any order, get
the answers one-at-a-time requests would get:
  "table": {"1.3.6...": {"int": 5} or {"str": "A.ICC"}, ...}
      the agent's variables; GETNEXT answers the first one after the name
      (past the last: noSuchName in v1, endOfMibView in v2c), GET the name's
      own (noSuchName / noSuchInstance when it has none);
  "answers": {"1.3.6...": step}
      a GETNEXT for exactly that name gets `step` (a step as above) instead;
      with "times": N only the first N times, then no answer;
  "silent_from": "1.3.6..."   no answer for any name from this one on;
  "drop_every": K             the K-th, 2K-th, ... request gets no answer;
  "delay_every": [K, MS]      the K-th, 2K-th, ... request is answered MS
                              milliseconds late (the others overtake it).
Every request is appended to LOG
as "<get|getnext|other> <oid>" and flushed before it is answered, so a test
reads the log once the walk has returned. The agent binds 127.0.0.1 on a free
UDP port, prints the port on a line of its own and serves until the reader of
its standard output closes it.
"""
import heapq
import json
import select
import socket
import sys
import time

from pyasn1.codec.ber import decoder, encoder
from pysnmp.proto import api, rfc1902, rfc1905


def answers(script):
    for step in script:
        for _ in range(step.get("repeat", 1)):
            yield step


def oid_key(text):
    return tuple(int(part) for part in text.split("."))


class ListScript:
    """One answer per request, in order of arrival."""

    def __init__(self, script):
        self.steps = answers(script)

    def step(self, kind, name, count):
        return next(self.steps, {"silent": True}), 0.0


class NameScript:
    """Answers that depend on the name asked for (see the module's text)."""

    def __init__(self, script):
        self.table = sorted((oid_key(k), v) for k, v in script.get("table", {}).items())
        self.answers = {oid_key(k): v for k, v in script.get("answers", {}).items()}
        self.used = {}
        silent = script.get("silent_from")
        self.silent_from = oid_key(silent) if silent else None
        self.drop_every = script.get("drop_every", 0)
        self.delay_every, self.delay_ms = script.get("delay_every", [0, 0])

    def step(self, kind, name, count):
        delay = self.delay_ms / 1000.0 if self.delay_every and count % self.delay_every == 0 else 0.0
        if self.drop_every and count % self.drop_every == 0:
            return {"silent": True}, 0.0
        key = oid_key(name)
        if self.silent_from is not None and key >= self.silent_from:
            return {"silent": True}, 0.0
        if kind == "getnext" and key in self.answers:
            answer = self.answers[key]
            self.used[key] = self.used.get(key, 0) + 1
            if self.used[key] > answer.get("times", self.used[key]):
                return {"silent": True}, 0.0
            return answer, delay
        if kind == "get":
            for oid, value in self.table:
                if oid == key:
                    return dict(value, oid=name), delay
            return {"missing": True, "oid": name}, delay
        for oid, value in self.table:
            if oid > key:
                return dict(value, oid=".".join(map(str, oid))), delay
        return {"end": True, "oid": name}, delay


def respond(module, version, request, binds, step):
    response = module.apiMessage.getResponse(request)
    rpdu = module.apiMessage.getPDU(response)
    if "missing" in step or "end" in step:
        if version == api.protoVersion1:
            step = {"error": 2}
        else:
            value = rfc1905.noSuchInstance if "missing" in step else rfc1905.endOfMibView
            module.apiPDU.setVarBinds(rpdu, [(rfc1902.ObjectName(step["oid"]), value)])
            return response
    if "error" in step:
        module.apiPDU.setVarBinds(rpdu, binds)
        module.apiPDU.setErrorStatus(rpdu, step["error"])
        module.apiPDU.setErrorIndex(rpdu, 1)
    else:
        oid = rfc1902.ObjectName(step["oid"])
        if "int" in step:
            value = rfc1902.Integer(step["int"])
        elif "str" in step:
            value = rfc1902.OctetString(step["str"].encode())
        else:
            value = rfc1905.endOfMibView
        module.apiPDU.setVarBinds(rpdu, [(oid, value)])
    return response


def main():
    log = open(sys.argv[1], "a", buffering=1)
    script = json.loads(sys.argv[2])
    agent = NameScript(script) if isinstance(script, dict) else ListScript(script)
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.bind(("127.0.0.1", 0))
    print(sock.getsockname()[1], flush=True)
    poller = select.poll()
    poller.register(sock, select.POLLIN)
    poller.register(sys.stdout, 0)  # POLLERR once the reader is gone
    late = []  # (due, sequence, packet, peer)
    count = 0
    while True:
        wait = max(0.0, late[0][0] - time.monotonic()) * 1000 if late else None
        events = dict(poller.poll(wait))
        if events.get(sys.stdout.fileno()):
            return
        while late and late[0][0] <= time.monotonic():
            _, _, packet, peer = heapq.heappop(late)
            sock.sendto(packet, peer)
        if not events.get(sock.fileno()):
            continue
        data, peer = sock.recvfrom(65535)
        count += 1
        version = int(api.decodeMessageVersion(data))
        module = api.protoModules[version]
        request, _ = decoder.decode(data, asn1Spec=module.Message())
        pdu = module.apiMessage.getPDU(request)
        if pdu.isSameTypeWith(module.GetNextRequestPDU()):
            kind = "getnext"
        elif pdu.isSameTypeWith(module.GetRequestPDU()):
            kind = "get"
        else:
            kind = "other"
        binds = module.apiPDU.getVarBinds(pdu)
        name = binds[0][0].prettyPrint() if binds else "-"
        log.write("%s %s\n" % (kind, name))
        log.flush()
        step, delay = agent.step(kind, name, count)
        if step.get("silent"):
            continue
        packet = encoder.encode(respond(module, version, request, binds, step))
        if delay > 0:
            heapq.heappush(late, (time.monotonic() + delay, count, packet, peer))
        else:
            sock.sendto(packet, peer)


if __name__ == "__main__":
    main()
