/*
 * raw.c -- the workloads on libzmq itself, and the C peers of the others.
 *
 * The calls are those that the package makes for the same script, with nothing around
 * them: a frame is sent with zmq_send, received with zmq_msg_recv between init and
 * close, and followed by a look at ZMQ_RCVMORE.  Every workload prints one line,
 * "value ..."; those with a peer print the endpoint that they are bound to before.
 */
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>
#include <zmq.h>

static void* context;

static void check(int ok, const char* what) {
    if (!ok) {
        fprintf(stderr, "raw: %s: %s\n", what, zmq_strerror(zmq_errno()));
        exit(1);
    }
}

static double now(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (double) t.tv_sec + (double) t.tv_nsec / 1e9;
}

/* Bytes to send, written once: untouched memory would be one page of zeros. */
static char* payload(size_t size) {
    char* bytes = malloc(size);
    check(bytes != NULL, "memory");
    return memset(bytes, 'x', size);
}

static void* socket_new(int type) {
    void* s = zmq_socket(context, type);
    check(s != NULL, "socket");
    return s;
}

/* Keys from the environment, public and secret, are those of both ends. */
static void keys_set(void* s, int server) {
    const char* keys = getenv("BENCH_KEYS");
    char publicKey[41];
    char secretKey[41];
    if (keys == NULL) {
        return;
    }
    check(sscanf(keys, "%40s %40s", publicKey, secretKey) == 2, "keys");
    check(zmq_setsockopt(s, ZMQ_CURVE_PUBLICKEY, publicKey, 41) == 0 &&
              zmq_setsockopt(s, ZMQ_CURVE_SECRETKEY, secretKey, 41) == 0 &&
              (server ? zmq_setsockopt(s, ZMQ_CURVE_SERVER, &server, sizeof server)
                      : zmq_setsockopt(s, ZMQ_CURVE_SERVERKEY, publicKey, 41)) == 0,
          "keys");
}

/* A socket that a peer is told to connect to. */
static void* socket_bound(int type) {
    char endpoint[64];
    size_t size = sizeof endpoint;
    void* s = socket_new(type);
    keys_set(s, 1);
    check(zmq_bind(s, "tcp://127.0.0.1:*") == 0, "bind");
    check(zmq_getsockopt(s, ZMQ_LAST_ENDPOINT, endpoint, &size) == 0, "endpoint");
    printf("%s\n", endpoint);
    fflush(stdout);
    return s;
}

static void* socket_connected(int type, const char* endpoint) {
    void* s = socket_new(type);
    keys_set(s, 0);
    check(zmq_connect(s, endpoint) == 0, "connect");
    return s;
}

/* Sends one message of several equal frames. */
static void message_send(void* s, const char* bytes, size_t size, int frames) {
    for (int i = 1; i <= frames; i++) {
        check(zmq_send(s, bytes, size, i < frames ? ZMQ_SNDMORE : 0) != -1, "send");
    }
}

/*
 * Receives one message.  kept: null, or the owner of a frame's bytes, who copies each
 * frame into memory of its own before letting go of the one before.
 */
static void message_recv(void* s, char** kept) {
    int more;
    do {
        zmq_msg_t frame;
        size_t size = sizeof more;
        zmq_msg_init(&frame);
        check(zmq_msg_recv(&frame, s, 0) != -1, "recv");
        if (kept != NULL) {
            char* before = *kept;
            *kept = malloc(zmq_msg_size(&frame));
            memcpy(*kept, zmq_msg_data(&frame), zmq_msg_size(&frame));
            free(before);
        }
        zmq_msg_close(&frame);
        check(zmq_getsockopt(s, ZMQ_RCVMORE, &more, &size) == 0, "more");
    } while (more != 0);
}

/* One thread, its own two ends: size, frames, own the frames or not, count. */
static double inproc(char** args) {
    const size_t size = strtoul(args[0], NULL, 10);
    const int frames = atoi(args[1]);
    char* bytes = payload(size);
    const int own = atoi(args[2]);
    char* kept = NULL;
    const long count = atol(args[3]);
    void* in = socket_new(ZMQ_PULL);
    void* out;
    double start = 0;
    check(zmq_bind(in, "inproc://self") == 0, "bind");
    out = socket_connected(ZMQ_PUSH, "inproc://self");
    for (long i = -count / 10; i < count; i++) {
        if (i == 0) {
            start = now();
        }
        message_send(out, bytes, size, frames);
        message_recv(in, own ? &kept : NULL);
    }
    return (double) count / (now() - start);
}

/* From a source: count. */
static double receive(char** args) {
    const long count = atol(args[0]);
    void* in = socket_bound(ZMQ_PULL);
    double start = 0;
    for (long i = -count / 10; i < count; i++) {
        if (i == 0) {
            start = now();
        }
        message_recv(in, NULL);
    }
    return (double) count / (now() - start);
}

/* To a sink: size, count. */
static double transmit(char** args) {
    const size_t size = strtoul(args[0], NULL, 10);
    const long count = atol(args[1]);
    char* bytes = payload(size);
    void* out = socket_bound(ZMQ_PUSH);
    double start = 0;
    for (long i = -count / 10; i < count; i++) {
        if (i == 0) {
            start = now();
        }
        message_send(out, bytes, size, 1);
    }
    return (double) count / (now() - start);
}

/* Waits for one message at a time, beside idle sockets, from a source: idle, count. */
static double polled(char** args) {
    const int idle = atoi(args[0]);
    const long count = atol(args[1]);
    zmq_pollitem_t* items = calloc((size_t) idle + 1, sizeof *items);
    double start = 0;
    for (int i = 0; i <= idle; i++) {
        items[i].socket = i < idle ? socket_new(ZMQ_PULL) : socket_bound(ZMQ_PULL);
        items[i].events = ZMQ_POLLIN;
    }
    for (long i = -count / 10; i < count;) {
        check(zmq_poll(items, idle + 1, 5000) != -1, "poll");
        for (int k = 0; k <= idle; k++) {
            if ((items[k].revents & ZMQ_POLLIN) != 0) {
                if (i == 0) {
                    start = now();
                }
                message_recv(items[k].socket, NULL);
                i++;
            }
        }
    }
    return (double) count / (now() - start);
}

/* Round trips to an echo: endpoint, size, count. */
static double rtt(char** args) {
    const size_t size = strtoul(args[1], NULL, 10);
    const long count = atol(args[2]);
    const char* bytes = payload(size);
    void* s = socket_connected(ZMQ_REQ, args[0]);
    double start = 0;
    for (long i = -count / 10; i < count; i++) {
        if (i == 0) {
            start = now();
        }
        message_send(s, bytes, size, 1);
        message_recv(s, NULL);
    }
    return (double) count / (now() - start);
}

/* Answers until it is killed. */
_Noreturn static double echo(char** args) {
    void* s = socket_bound(ZMQ_REP);
    (void) args;
    for (;;) {
        zmq_msg_t frame;
        int more;
        size_t size = sizeof more;
        zmq_msg_init(&frame);
        check(zmq_msg_recv(&frame, s, 0) != -1, "recv");
        check(zmq_getsockopt(s, ZMQ_RCVMORE, &more, &size) == 0, "more");
        check(zmq_send(s, zmq_msg_data(&frame), zmq_msg_size(&frame), 0) != -1, "send");
        zmq_msg_close(&frame);
    }
}

/* Sends one job and receives results until at most so many jobs are out. */
static void job_step(void* jobs, void* results, const char* bytes, size_t size,
                     int* out, int most) {
    message_send(jobs, bytes, size, 1);
    for (++*out; *out > most;) {
        char word[16];
        const int length = zmq_recv(results, word, sizeof word, 0);
        int more;
        size_t room = sizeof more;
        check(length != -1, "recv");
        check(zmq_getsockopt(results, ZMQ_RCVMORE, &more, &room) == 0, "more");
        if (more != 0) {
            message_recv(results, NULL); // the rest of the message
        }
        *out -= length == 6 && memcmp(word, "result", 6) == 0;
    }
}

/* Jobs a second through the worker that connects to the three ends: size, count. */
static double employ(char** args) {
    const size_t size = strtoul(args[0], NULL, 10);
    const long count = atol(args[1]);
    const int most = 40; // under the worker's own queue of 50
    char* bytes = payload(size);
    void* jobs = socket_bound(ZMQ_PUSH);
    void* results = socket_bound(ZMQ_PULL);
    double start = 0;
    int out = 0;
    socket_bound(ZMQ_PULL); // dead letters
    for (long i = -count / 10; i < count; i++) {
        if (i == 0) {
            start = now();
        }
        job_step(jobs, results, bytes, size, &out, most);
    }
    return (double) count / (now() - start);
}

/* Sends what a job yields: the job itself, after two words. */
static void job_do(void* jobs, void* results) {
    const int flags = ZMQ_DONTWAIT | ZMQ_SNDMORE;
    int more;
    check(zmq_send(results, "result", 6, flags) != -1, "send");
    check(zmq_send(results, "worker", 6, flags) != -1, "send");
    do {
        zmq_msg_t frame;
        size_t size = sizeof more;
        zmq_msg_init(&frame);
        check(zmq_msg_recv(&frame, jobs, ZMQ_DONTWAIT) != -1, "recv");
        check(zmq_getsockopt(jobs, ZMQ_RCVMORE, &more, &size) == 0, "more");
        check(zmq_send(results, zmq_msg_data(&frame), zmq_msg_size(&frame),
                       more != 0 ? flags : ZMQ_DONTWAIT) != -1,
              "send");
        zmq_msg_close(&frame);
    } while (more != 0);
}

/* What the worker does for a job, until it is killed; its three options with endpoints. */
_Noreturn static double worker(char** args) {
    const int hwm = 50;
    void* jobs = socket_new(ZMQ_PULL);
    zmq_pollitem_t item = {jobs, 0, ZMQ_POLLIN, 0};
    check(zmq_setsockopt(jobs, ZMQ_RCVHWM, &hwm, sizeof hwm) == 0, "rcvhwm");
    check(zmq_connect(jobs, args[1]) == 0, "connect");
    void* results = socket_connected(ZMQ_PUSH, args[3]);
    socket_connected(ZMQ_PUSH, args[5]); // dead letters
    for (;;) {
        check(zmq_poll(&item, 1, 1000) != -1, "poll");
        if (item.revents != 0) {
            job_do(jobs, results);
        }
    }
}

/*
 * Sends until it is killed: endpoint, size, count.  The last message of a first tenth of
 * the count, and of the count after that, has two frames, which tells handlers to stop.
 */
_Noreturn static double source(char** args) {
    const size_t size = strtoul(args[1], NULL, 10);
    const long count = atol(args[2]);
    char* bytes = payload(size);
    void* out = socket_connected(ZMQ_PUSH, args[0]);
    for (long i = 1;; i++) {
        const int last = i == count / 10 || i == count / 10 + count;
        message_send(out, bytes, size, last ? 2 : 1);
    }
}

/* Receives until it is killed: endpoint. */
_Noreturn static double sink(char** args) {
    void* in = socket_connected(ZMQ_PULL, args[0]);
    for (;;) {
        message_recv(in, NULL);
    }
}

int main(int argc, char** argv) {
    static const struct {
        const char* word;
        int args;
        double (*run)(char** args);
    } modes[] = {
        {"inproc", 4, inproc}, {"recv", 1, receive},    {"send", 2, transmit},
        {"poll", 2, polled},   {"reactor", 2, polled},  {"rtt", 3, rtt},
        {"echo", 0, echo},     {"source", 3, source},   {"sink", 1, sink},
        {"jobs", 2, employ},   {"worker", 6, worker},
    };
    prctl(PR_SET_PDEATHSIG, SIGTERM); // a peer never outlives the driver
    context = zmq_ctx_new();
    for (size_t i = 0; i < sizeof modes / sizeof *modes; i++) {
        if (argc - 2 == modes[i].args && strcmp(argv[1], modes[i].word) == 0) {
            printf("value %.6g\n", modes[i].run(argv + 2));
            fflush(stdout);
            _exit(0); // what is still queued is of no interest
        }
    }
    fprintf(stderr, "usage: raw workload argument...\n");
    return 1;
}
