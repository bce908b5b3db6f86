#!/usr/bin/python3
"""A scripted SNMP v1/v2c agent: scripted_agent.py LOG SCRIPT. SCRIPT (JSON): "rows": N (printer_table()'s rows),
"answers": {oid: {"oid", "value"} (no value: endOfMibView) or {"error": N}, "times": N optional} for GETNEXTs of oid,
"silent_from": oid, "drop_every": K, "delay_every": [K, MS]. Logs requests, prints its port, serves until stdout
closes."""
import heapq, json, select, socket, sys, time

from pyasn1.codec.ber import decoder, encoder
from pysnmp.proto import api, rfc1902, rfc1905

TABLE = "1.3.6.1.4.1.99991.1.1.1.1.6.13.1.1"


key = lambda text: tuple(int(part) for part in text.split("."))  # noqa: E731


log, script = open(sys.argv[1], "a", buffering=1), json.loads(sys.argv[2])
table = sorted((key("%s.%d.1.%d" % (TABLE, c, r)), v) for r in range(1, script.get("rows", 0) + 1) for c, v in
               ((1, r), (2, 4 + r % 2), (3, "Profile %d" % r), (4, "PRF%05d.ICC" % r), (5, (r - 1) % 3 + 1), (7, 1)))
answers = {key(k): v for k, v in script.get("answers", {}).items()}
silent_from, drop_every = key(script.get("silent_from", "9")), script.get("drop_every", 0)
delay_every, delay_ms = script.get("delay_every", [0, 0])
sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
sock.bind(("127.0.0.1", 0))
print(sock.getsockname()[1], flush=True)
poller = select.poll()
poller.register(sock, select.POLLIN)
poller.register(sys.stdout, 0)  # POLLERR once the reader is gone
late, used, count = [], {}, 0  # late: (due, count, packet, peer)
while True:
    events = dict(poller.poll(max(0.0, late[0][0] - time.monotonic()) * 1000 if late else None))
    if events.get(sys.stdout.fileno()):
        break
    while late and late[0][0] <= time.monotonic():
        sock.sendto(*heapq.heappop(late)[2:])
    if not events.get(sock.fileno()):
        continue
    data, peer = sock.recvfrom(65535)
    version = int(api.decodeMessageVersion(data))
    module = api.protoModules[version]
    request, _ = decoder.decode(data, asn1Spec=module.Message())
    pdu = module.apiMessage.getPDU(request)
    kind = "get" if pdu.isSameTypeWith(module.GetRequestPDU()) else "getnext"
    binds = module.apiPDU.getVarBinds(pdu)
    name = binds[0][0].prettyPrint()
    log.write("%s %s\n" % (kind, name))
    asked, count = key(name), count + 1
    if (drop_every and count % drop_every == 0) or asked >= silent_from:
        continue
    step = answers.get(asked) if kind == "getnext" else None
    if step is not None:
        used[asked] = used.get(asked, 0) + 1
        if used[asked] > step.get("times", used[asked]):
            continue
    else:
        found = [(o, v) for o, v in table if (o == asked if kind == "get" else o > asked)][:1]
        step = ({"oid": ".".join(map(str, found[0][0])), "value": found[0][1]} if found else
                {"error": 2} if version == api.protoVersion1 else {"oid": name, "missing": kind == "get"})
    rpdu = module.apiMessage.getPDU(response := module.apiMessage.getResponse(request))
    if "error" in step:
        module.apiPDU.setVarBinds(rpdu, binds)
        module.apiPDU.setErrorStatus(rpdu, step["error"])
        module.apiPDU.setErrorIndex(rpdu, 1)
    else:
        value = step.get("value")
        value = (rfc1902.Integer(value) if isinstance(value, int) else
                 rfc1902.OctetString(value.encode()) if isinstance(value, str) else
                 rfc1905.noSuchInstance if step.get("missing") else rfc1905.endOfMibView)
        module.apiPDU.setVarBinds(rpdu, [(rfc1902.ObjectName(step["oid"]), value)])
    delay = delay_ms / 1000.0 if delay_every and count % delay_every == 0 else 0.0
    heapq.heappush(late, (time.monotonic() + delay, count, encoder.encode(response), peer))  # sent at once if due

