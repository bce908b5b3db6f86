#!/usr/bin/python3
"""A scripted SNMP v1/v2c agent: scripted_agent.py LOG SCRIPT. SCRIPT (JSON): "rows": N (printer_table()'s rows),
"file": the file name's format ("PRF%05d.ICC"), "answers": {oid: {"oid", "value"} (no value: endOfMibView) or
{"error": N}, "times": N optional} for GETNEXTs of oid, "silent_from": oid, "drop_every": K, "delay_every": [K, MS],
"tcp_closes": a TCP port of the same number that takes each connection and closes it at once, "hold": FILE (while it
exists, answers wait, in order), "dump": [FILE, PORT] (serves, instead of the table, the MIB-2 tree in FILE (host
resources left out), walked first from the v1 agent on 127.0.0.1:PORT if FILE does not exist). Logs requests (and in
LOG.most the most answers it has had waiting at once), prints its port, serves until stdout closes."""
import bisect, heapq, json, os, select, socket, sys, time

from pyasn1.codec.ber import decoder, encoder
from pyasn1.type import univ
from pysnmp.proto import api, rfc1902, rfc1905

TABLE = "1.3.6.1.4.1.99991.1.1.1.1.6.13.1.1"


key = lambda text: tuple(int(part) for part in text.split("."))  # noqa: E731


def dumped(path, port):  # [(oid, value)] of the MIB-2 tree, once walked into path with v1 GETNEXTs
    v1, name, found, agent = api.protoModules[api.protoVersion1], (1, 3, 6, 1, 2, 1), [], socket.socket(type=2)
    while not os.path.exists(path):
        message, pdu = v1.Message(), v1.GetNextRequestPDU()
        v1.apiPDU.setDefaults(pdu), v1.apiPDU.setVarBinds(pdu, [(name, v1.Null(""))])
        v1.apiMessage.setDefaults(message), v1.apiMessage.setCommunity(message, "public")
        v1.apiMessage.setPDU(message, pdu), agent.sendto(encoder.encode(message), ("127.0.0.1", port))
        answer = v1.apiMessage.getPDU(decoder.decode(agent.recv(65535), asn1Spec=v1.Message())[0])
        name, value = v1.apiPDU.getVarBinds(answer)[0] if not v1.apiPDU.getErrorStatus(answer) else ((), None)
        if tuple(name[:7]) == (1, 3, 6, 1, 2, 1, 25):  # host resources: thousands of rows of installed software
            name = (1, 3, 6, 1, 2, 1, 26)
            continue
        if tuple(name[:6]) != (1, 3, 6, 1, 2, 1):
            with open(path + ".part", "w") as out:
                out.writelines("%s\t%s\t%s\n" % (o, type(v).__name__, int(v) if isinstance(v, univ.Integer) else
                               v if isinstance(v, univ.ObjectIdentifier) else v.asOctets().hex()) for o, v in found)
            os.rename(path + ".part", path)
        found.append((name, value))
    rows = [line.rstrip("\n").split("\t") for line in open(path)]
    return [(key(o), getattr(v1, kind)(int(text) if kind in ("Integer", "Counter", "Gauge", "TimeTicks") else text
                                        if kind == "ObjectIdentifier" else bytes.fromhex(text)))
            for o, kind, text in rows]


log, script = open(sys.argv[1], "a", buffering=1), json.loads(sys.argv[2])
table = dumped(*script["dump"]) if "dump" in script else sorted(
    (key("%s.%d.1.%d" % (TABLE, c, r)), v) for r in range(1, script.get("rows", 0) + 1) for c, v in
    ((1, r), (2, 4 + r % 2), (3, "Profile %d" % r), (4, script.get("file", "PRF%05d.ICC") % r), (5, (r - 1) % 3 + 1),
     (7, 1)))
names = [o for o, v in table]
answers = {key(k): v for k, v in script.get("answers", {}).items()}
silent_from, drop_every = key(script.get("silent_from", "9")), script.get("drop_every", 0)
hold = script.get("hold", "/nonexistent")
delay_every, delay_ms = script.get("delay_every", [0, 0])
sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
sock.bind(("127.0.0.1", 0))
closer = socket.create_server(sock.getsockname()) if script.get("tcp_closes") else None
print(sock.getsockname()[1], flush=True)
poller = select.poll()
poller.register(sock, select.POLLIN)
poller.register(sys.stdout, 0)  # POLLERR once the reader is gone
if closer:
    poller.register(closer, select.POLLIN)
late, used, count, most = [], {}, 0, 0  # late: (due, count, packet, peer)
while True:
    held = late and os.path.exists(hold)  # looked at again every 5 ms
    events = dict(poller.poll(5 if held else max(0.0, late[0][0] - time.monotonic()) * 1000 if late else None))
    if events.get(sys.stdout.fileno()):
        break
    while late and late[0][0] <= time.monotonic() and not held:
        sock.sendto(*heapq.heappop(late)[2:])
    if closer and events.get(closer.fileno()):
        closer.accept()[0].close()
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
        at = bisect.bisect_left(names, asked) if kind == "get" else bisect.bisect_right(names, asked)
        found = table[at:at + 1] if at < len(table) and (kind != "get" or names[at] == asked) else []
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
                 rfc1902.OctetString(value.encode()) if isinstance(value, str) else value if value is not None else
                 rfc1905.noSuchInstance if step.get("missing") else rfc1905.endOfMibView)
        module.apiPDU.setVarBinds(rpdu, [(rfc1902.ObjectName(step["oid"]), value)])
    delay = delay_ms / 1000.0 if delay_every and count % delay_every == 0 else 0.0
    heapq.heappush(late, (time.monotonic() + delay, count, encoder.encode(response), peer))  # sent at once if due
    if len(late) > most:
        most = len(late)
        with open(sys.argv[1] + ".most", "w") as out:
            out.write(str(most))

