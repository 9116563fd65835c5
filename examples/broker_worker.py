#!/usr/bin/python3
"""A worker of broker.tcl in Python: answers with the text reversed.

    broker_worker.py [endpoint [name]]
"""
import os
import signal
import sys

import zmq

HEARTBEAT = 500  # milliseconds

endpoint = sys.argv[1] if len(sys.argv) > 1 else "tcp://127.0.0.1:5556"
name = "%s-%d" % (sys.argv[2] if len(sys.argv) > 2 else "python", os.getpid())


def stop(number, frame):
    sys.exit(0)


for number in (signal.SIGINT, signal.SIGTERM):
    signal.signal(number, stop)

context = zmq.Context()
broker = context.socket(zmq.DEALER)
broker.setsockopt(zmq.IDENTITY, name.encode())
broker.setsockopt(zmq.IMMEDIATE, 1)
broker.setsockopt(zmq.LINGER, 2000)
broker.connect(endpoint)

taken = 0
while True:
    try:
        broker.send_multipart([b"READY", b"%d" % taken], zmq.NOBLOCK)
    except zmq.Again:
        pass  # the broker is away: the next heartbeat says the same
    while broker.poll(HEARTBEAT):
        kind, *frames = broker.recv_multipart()
        if kind != b"REQUEST":
            continue
        taken += 1
        # Frames up to the empty one are the way back; they are returned untouched.
        gap = frames.index(b"") + 1
        answer = frames[gap].decode()[::-1]
        broker.send_multipart([b"REPLY", b"%d" % taken, *frames[:gap], answer.encode()])
