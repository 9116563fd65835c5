"""The workloads on pyzmq: /usr/bin/python3 pyzmq.py multipart|plain workload argument...

As zmq.tcl does them, each the way pyzmq's own documentation writes it: "multipart"
exchanges lists of frames, as the package does; "plain" single frames, where a message has
no more than one.  Every workload prints one line "value ..."; those with a peer print the
endpoint that they are bound to before.
"""
import os
import sys
import time

import zmq

context = zmq.Context()
plain = sys.argv[1] == "plain"


def sender(s):
    return s.send if plain else s.send_multipart


def receiver(s):
    return s.recv if plain else s.recv_multipart


def message(size, frames=1):
    payload = b"x" * size
    return payload if plain else [payload] * frames


def ops_per_second(count, run):
    run(count // 10)
    start = time.perf_counter()
    run(count)
    return count / (time.perf_counter() - start)


def socket(kind, server):
    """A socket, which has the keys of the environment, if any."""
    s = context.socket(kind)
    if "BENCH_KEYS" in os.environ:
        public, secret = os.environb[b"BENCH_KEYS"].split()
        s.curve_publickey, s.curve_secretkey = public, secret
        if server:
            s.curve_server = True
        else:
            s.curve_serverkey = public
    return s


def bound(kind):
    s = socket(kind, True)
    s.bind("tcp://127.0.0.1:*")
    print(s.getsockopt_string(zmq.LAST_ENDPOINT).rstrip("\0"), flush=True)
    return s


def connected(kind, endpoint):
    s = socket(kind, False)
    s.connect(endpoint)
    return s


def inproc(size, frames, copy, count):
    pull = context.socket(zmq.PULL)
    push = context.socket(zmq.PUSH)
    pull.bind("inproc://self")
    push.connect("inproc://self")
    send, recv, payload = sender(push), receiver(pull), message(size, frames)

    def through(n):
        for _ in range(n):
            send(payload)
            got = recv()

    return ops_per_second(count, through)


def recv(count):
    recv = receiver(bound(zmq.PULL))

    def receive(n):
        for _ in range(n):
            got = recv()

    return ops_per_second(count, receive)


def send(size, count):
    send, payload = sender(bound(zmq.PUSH)), message(size)

    def transmit(n):
        for _ in range(n):
            send(payload)

    return ops_per_second(count, transmit)


def poller_with(idle):
    """A poller, and the receive method of each of its sockets."""
    poller = zmq.Poller()
    handlers = {}
    for s in [context.socket(zmq.PULL) for _ in range(idle)] + [bound(zmq.PULL)]:
        poller.register(s, zmq.POLLIN)
        handlers[s] = receiver(s)
    return poller, handlers


def poll(idle, count):
    poller, handlers = poller_with(idle)

    def loop(n):
        while n > 0:
            for s, _ in poller.poll(5000):
                got = handlers[s]()
                n -= 1

    return ops_per_second(count, loop)


def react(idle, count):
    """As poll, until a message of two frames; plain frames are counted."""
    if plain:
        return poll(idle, count)
    poller, handlers = poller_with(idle)

    def loop(n):
        running = True
        while running:
            for s, _ in poller.poll(5000):
                if len(handlers[s]()) == 2:
                    running = False

    return ops_per_second(count, loop)


def rtt(endpoint, size, count):
    s = connected(zmq.REQ, endpoint)
    send, recv, payload = sender(s), receiver(s), message(size)

    def ask(n):
        for _ in range(n):
            send(payload)
            got = recv()

    return ops_per_second(count, ask)


def echo():
    s = bound(zmq.REP)
    send, recv = sender(s), receiver(s)
    while True:
        send(recv())


words = [int(word) if word.isdigit() else word for word in sys.argv[3:]]
print("value", {
    "inproc": inproc, "recv": recv, "send": send, "reactor": react, "poll": poll,
    "rtt": rtt, "echo": echo,
}[sys.argv[2]](*words), flush=True)
os._exit(0)  # what is still queued is of no interest
