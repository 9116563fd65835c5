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


def deliver(socket, frames):
    """Sends what a job yields; what finds no room waits until there is some."""
    try:
        socket.send_multipart(frames, zmq.DONTWAIT)
    except zmq.Again:
        while not socket.poll(1000, zmq.POLLOUT):
            pass
        socket.send_multipart(frames)


def work():
    frames = jobs.recv_multipart(zmq.DONTWAIT)
    try:
        message = [b"result", name, *job(*frames)]
    except Exception as error:
        deliver(dead, [name, str(error).encode(), *frames])
    else:
        deliver(results, message)


def stop_accepting():
    """Does what waits in the queue, and leaves."""
    for _ in range(jobs.rcvhwm):
        if jobs.get(zmq.EVENTS) & zmq.POLLIN:
            work()
    jobs.disconnect(option["-jobs"])


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
