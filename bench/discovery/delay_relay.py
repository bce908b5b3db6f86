#!/usr/bin/python3
"""A UDP relay on 127.0.0.1 that holds every packet for a fixed time each way:
a slow link between SNMP clients and an agent on the same machine.

Usage: delay_relay.py AGENT_PORT DELAY_MS

Prints the port it listens on, on a line of its own, then relays until the
reader of its standard output closes it. Each client address gets its own socket towards the
agent, so answers go back to the client that asked. Packets keep their order.
"""
import asyncio
import socket
import sys

BUFFER_BYTES = 4 << 20  # room for a whole window of packets in either direction


def udp_socket():
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, BUFFER_BYTES)
    sock.setblocking(False)
    return sock


def main():
    agent = ("127.0.0.1", int(sys.argv[1]))
    delay = float(sys.argv[2]) / 1000.0
    loop = asyncio.new_event_loop()
    front = udp_socket()
    front.bind(("127.0.0.1", 0))
    backs = {}

    def from_agent(back, client):
        while True:
            try:
                data = back.recv(65535)
            except BlockingIOError:
                return
            loop.call_later(delay, front.sendto, data, client)

    def from_client():
        while True:
            try:
                data, client = front.recvfrom(65535)
            except BlockingIOError:
                return
            back = backs.get(client)
            if back is None:
                back = udp_socket()
                back.connect(agent)
                backs[client] = back
                loop.add_reader(back, from_agent, back, client)
            loop.call_later(delay, back.send, data)

    loop.add_reader(front, from_client)
    try:
        loop.add_reader(sys.stdout, loop.stop)  # an error once the reader is gone
    except PermissionError:
        pass  # a file, not a pipe: relay until killed
    print(front.getsockname()[1], flush=True)
    loop.run_forever()


if __name__ == "__main__":
    main()
