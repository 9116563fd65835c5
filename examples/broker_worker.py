#!/usr/bin/python3
"""A worker of broker.tcl in Python: answers with the text reversed.

    broker_worker.py [endpoint [name]]

The name and the process id together are the worker's address at the broker.
"""
import os
import signal
import sys


def fail(message):
    sys.stderr.write("broker_worker.py: %s\n" % message)
    sys.exit(2)


try:
    import zmq
except ImportError as error:
    fail("%s: install Debian's package python3-zmq" % error)

HEARTBEAT = 500  # milliseconds

if "-h" in sys.argv or "--help" in sys.argv:
    os.write(1, __doc__.encode())
    sys.exit(0)
if len(sys.argv) > 3:
    fail("argument \"%s\": nothing more is wanted" % sys.argv[3])
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
try:
    broker.connect(endpoint)
except zmq.ZMQError as error:
    fail("endpoint \"%s\": an endpoint such as tcp://127.0.0.1:5556 is wanted (%s)"
         % (endpoint, zmq.strerror(error.errno)))

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
