"""examples/worker.tcl on pyzmq: the same sockets and the same steps for every job.

worker.py -jobs endpoint -results endpoint -dead endpoint

Configuration file, statistics and job script are left out: they cost a job nothing.
"""
import signal
import sys
import time

import zmq

option = dict(zip(sys.argv[1::2], sys.argv[2::2]))
name = option.get("-name", "worker").encode()
heartbeat = 1.0  # seconds
linger = 900  # milliseconds
stopping = False


def stop(number, frame):
    global stopping
    stopping = True


signal.signal(signal.SIGTERM, stop)
signal.signal(signal.SIGINT, stop)

context = zmq.Context()
jobs, results, dead = (context.socket(kind) for kind in (zmq.PULL, zmq.PUSH, zmq.PUSH))
jobs.rcvhwm = 50
for socket, word in ((jobs, "-jobs"), (results, "-results"), (dead, "-dead")):
    socket.connect(option[word])


def job(*frames):
    return frames


def beat(state=b"running"):
    try:
        results.send_multipart([b"heartbeat", name, state], zmq.DONTWAIT)
    except zmq.Again:
        pass


def room():
    """Whether what a job yields can leave at once; else waits until it can."""
    for socket in (results, dead):
        while not socket.get(zmq.EVENTS) & zmq.POLLOUT:
            if not socket.poll(1000, zmq.POLLOUT):
                return False
    return True


def work():
    if not room():
        return
    frames = jobs.recv_multipart()
    try:
        results.send_multipart([b"result", name, *job(*frames)])
    except Exception as error:
        dead.send_multipart([name, str(error).encode(), *frames])


def stop_accepting():
    """Receives what had come before the signal, and does it."""
    while jobs.get(zmq.EVENTS) & zmq.POLLIN:
        work()


poller = zmq.Poller()
poller.register(jobs, zmq.POLLIN)
due = time.monotonic()
while not stopping:
    left = due - time.monotonic()
    if left <= 0:
        beat()
        due = time.monotonic() + heartbeat
        continue
    if poller.poll(left * 1000):
        work()
stop_accepting()
beat(b"stopped")
for socket in (jobs, results, dead):
    socket.close(linger)
