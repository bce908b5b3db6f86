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
Requests after the last answer get no answer. Every request is appended to LOG
as "<get|getnext|other> <oid>" and flushed before it is answered, so a test
reads the log once the walk has returned. The agent binds 127.0.0.1 on a free
UDP port, prints the port on a line of its own and serves until the reader of
its standard output closes it.
"""
import json
import select
import socket
import sys

from pyasn1.codec.ber import decoder, encoder
from pysnmp.proto import api, rfc1902, rfc1905


def answers(script):
    for step in script:
        for _ in range(step.get("repeat", 1)):
            yield step


def main():
    log = open(sys.argv[1], "a", buffering=1)
    steps = answers(json.loads(sys.argv[2]))
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.bind(("127.0.0.1", 0))
    print(sock.getsockname()[1], flush=True)
    poller = select.poll()
    poller.register(sock, select.POLLIN)
    poller.register(sys.stdout, 0)  # POLLERR once the reader is gone
    while True:
        events = dict(poller.poll())
        if events.get(sys.stdout.fileno()):
            return
        if not events.get(sock.fileno()):
            continue
        data, peer = sock.recvfrom(65535)
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
        log.write("%s %s\n" % (kind, binds[0][0].prettyPrint() if binds else "-"))
        log.flush()
        step = next(steps, {"silent": True})
        if step.get("silent"):
            continue
        response = module.apiMessage.getResponse(request)
        rpdu = module.apiMessage.getPDU(response)
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
        sock.sendto(encoder.encode(response), peer)


if __name__ == "__main__":
    main()
