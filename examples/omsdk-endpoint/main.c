/* SPDX-License-Identifier: Apache-2.0 */
/*
 * omsdk-endpoint: a demo device, a dimmable lamp (levels 0 to 10) that joins
 * an Ohmara domain through libomsdk.
 *
 * Threads: the service loop runs on a thread of its own; the main thread
 * waits on a pipe for signals, status changes and timers, and it is the one
 * that asks for alarms and calls ohmara_svc_shutdown. Signal handlers only
 * write one byte to that pipe.
 *
 * Standard output carries one readable line per event ("status: ACTIVE",
 * "SET level 3 (from switch)", "rejected: bad digest from ...", ...) and the
 * session's counters on SIGUSR1 and at shutdown; the library's log goes to
 * standard error.
 */
#define _POSIX_C_SOURCE 200809L

#include <omsdk.h>

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <time.h>
#include <unistd.h>

#include "device.h"
#include "lamp.h"

/* What the alarm raised by --alarm-after asks for: an alarm in 60 seconds,
 * with parameter bytes 1 and 0. */
#define ALARM_SECONDS 60u
#define ALARM_FIRST 1u
#define ALARM_SECOND 0u

#define RETRY_MS 200      /* pause between refused alarm or shutdown attempts */
#define LOOP_END_MS 40000 /* the loop ends within its 30 s retry interval */

struct options {
    const char *domain, *name, *role, *keywords, *device_type;
    const char *key, *address;
    unsigned importance;
    unsigned port, listen_port; /* port 0: the library's default */
    int have_mac;
    uint8_t mac[6];
    unsigned log_level;
    double alarm_after, run_for; /* seconds; negative when not given */
    int hardened;                /* the library's hardened profile */
    const char *capture;         /* pcapng file of the traffic, or NULL */
};

/* Events the main thread waits for, one byte each on the pipe. */
enum { EV_SIGNAL = 'S', EV_COUNTERS = 'C', EV_ACTIVE = 'A', EV_LOOP_ENDED = 'E' };

static svc_session *g_session;
static FILE *g_out; /* the readable lines */
static int g_pipe[2] = {-1, -1};
static volatile sig_atomic_t g_signal;

static void notify(char ev) {
    ssize_t n;
    do {
        n = write(g_pipe[1], &ev, 1);
    } while (n < 0 && errno == EINTR);
}

static void on_active(void) { notify(EV_ACTIVE); }

static void on_signal(int sig) {
    const int saved = errno;
    if (sig == SIGUSR1) {
        notify(EV_COUNTERS);
    } else {
        g_signal = sig;
        notify(EV_SIGNAL);
    }
    errno = saved;
}

static int64_t now_ms(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

/* Every rejected message, on the loop's thread. */
static void on_event(void *ctx, const struct ohmara_event *ev) {
    char from[INET_ADDRSTRLEN] = "?";
    struct in_addr peer;
    (void)ctx;
    if (ev->kind != OHMARA_EVENT_REJECTED) return; /* statuses come through the registry */
    peer.s_addr = ev->peer;
    inet_ntop(AF_INET, &peer, from, sizeof from);
    fprintf(g_out, "rejected: %s from %s (%s)\n", ohmara_utl_reasonName(ev->reason), from,
            ev->text);
}

/* The session's counters, a few lines; the rejections only when there are. */
static void print_counters(void) {
    struct ohmara_counters k;
    const uint64_t *rejected = &k.rejected_bad_security_header;
    struct in_addr parent;
    char at[INET_ADDRSTRLEN] = "none";
    memset(&k, 0, sizeof k);
    if (ohmara_svc_getCounters(g_session, &k, sizeof k) != 0) return;
    parent.s_addr = htonl((uint32_t)k.parent_address);
    if (k.parent_address != 0) inet_ntop(AF_INET, &parent, at, sizeof at);
    fprintf(g_out,
            "counters: %llu discovery sent; connections %llu accepted, %llu refused; messages "
            "%llu received, %llu accepted\n",
            (unsigned long long)k.discovery_sent, (unsigned long long)k.connections_accepted,
            (unsigned long long)k.connections_refused, (unsigned long long)k.messages_received,
            (unsigned long long)k.messages_accepted);
    fprintf(g_out,
            "counters: GET %llu answered, SET %llu accepted, %llu refused; %llu acks sent; "
            "alarms %llu sent, %llu answered; %llu handshakes; switch %s",
            (unsigned long long)k.get_answered, (unsigned long long)k.set_accepted,
            (unsigned long long)k.set_refused, (unsigned long long)k.acks_sent,
            (unsigned long long)k.alarms_sent, (unsigned long long)k.alarms_answered,
            (unsigned long long)k.handshakes_completed, at);
    if (k.seconds_since_switch_heard != UINT64_MAX)
        fprintf(g_out, ", heard %llu s ago", (unsigned long long)k.seconds_since_switch_heard);
    fputc('\n', g_out);
    for (int r = OHMARA_REASON_BAD_SECURITY_HEADER; r < OHMARA_REASON_COUNT; ++r)
        if (rejected[r - 1] != 0)
            fprintf(g_out, "counters: rejected %llu %s\n", (unsigned long long)rejected[r - 1],
                    ohmara_utl_reasonName(r));
}

/* ---- command line ---- */

static void usage(FILE *f) {
    fputs("usage: omsdk-endpoint [options]\n"
          "A dimmable lamp (levels 0 to 10) that joins an Ohmara domain.\n"
          "\n"
          "Identity:\n"
          "  --domain TEXT       domain to join (default demo)\n"
          "  --name TEXT         endpoint name (default lamp-1)\n"
          "  --role TEXT         role (default light)\n"
          "  --keywords LIST     comma-separated keywords (default lamp,dimmable)\n"
          "  --importance N      1 to 100 (default 50)\n"
          "  --device-type TEXT  device type (default \"dimmable lamp\")\n"
          "  --key SECRET        secret shared within the domain (default: none,\n"
          "                      the endpoint identifier serves as the key)\n"
          "  --mac XX:XX:XX:XX:XX:XX  derive the identifier from this MAC address\n"
          "                      (default: a random identifier)\n"
          "Network:\n"
          "  --address IPV4      local address to bind (default 127.0.0.1)\n"
          "  --port N            UDP protocol port (default: the library's, 43440)\n"
          "  --listen-port N     TCP port for the switch (default 0: any free one)\n"
          "Behaviour:\n"
          "  --log-level LEVEL   trace, debug, info, warn, error, fatal, off or 0 to 6\n"
          "                      (default warn); the log goes to standard error\n"
          "  --alarm-after SECS  once ACTIVE, wait SECS then ask the switch for an\n"
          "                      alarm (in 60 s, parameters 1 and 0)\n"
          "  --run-for SECS      shut down by itself after SECS\n"
          "  --hardened          use the library's hardened security profile (the\n"
          "                      listener binds --address only, and once joined only\n"
          "                      the switch may connect)\n"
          "  --capture FILE      write the traffic to FILE (pcapng; see tools/wireshark)\n"
          "  --help              show this text (--version: the program's version)\n"
          "SIGINT or SIGTERM shuts the endpoint down cleanly; SIGUSR1 prints the\n"
          "counters (they are printed at shutdown too).\n",
          f);
}

static int arg_error(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    fputs("omsdk-endpoint: ", stderr);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    va_end(ap);
    usage(stderr);
    return 2;
}

static int parse_uint(const char *s, unsigned long max, unsigned *out) {
    char *end;
    unsigned long v;
    if (s[0] < '0' || s[0] > '9') return -1;
    errno = 0;
    v = strtoul(s, &end, 10);
    if (errno != 0 || *end != '\0' || v > max) return -1;
    *out = (unsigned)v;
    return 0;
}

static int parse_seconds(const char *s, double *out) {
    char *end;
    double v;
    if ((s[0] < '0' || s[0] > '9') && s[0] != '.') return -1;
    errno = 0;
    v = strtod(s, &end);
    if (errno != 0 || *end != '\0' || !(v >= 0.0 && v <= 1e6)) return -1;
    *out = v;
    return 0;
}

static int parse_mac(const char *s, uint8_t mac[6]) {
    for (int i = 0; i < 6; ++i) {
        unsigned v = 0;
        for (int j = 0; j < 2; ++j) {
            const char c = *s++;
            unsigned d;
            if (c >= '0' && c <= '9')
                d = (unsigned)(c - '0');
            else if (c >= 'a' && c <= 'f')
                d = (unsigned)(c - 'a' + 10);
            else if (c >= 'A' && c <= 'F')
                d = (unsigned)(c - 'A' + 10);
            else
                return -1;
            v = v * 16 + d;
        }
        mac[i] = (uint8_t)v;
        if (i < 5 && *s != ':' && *s != '-') return -1;
        if (i < 5) ++s;
    }
    return *s == '\0' ? 0 : -1;
}

static int parse_log_level(const char *s, unsigned *out) {
    static const char *const names[] = {"trace", "debug", "info", "warn", "error", "fatal", "off"};
    for (unsigned i = 0; i < 7; ++i) {
        if (strcasecmp(s, names[i]) == 0) {
            *out = i;
            return 0;
        }
    }
    return parse_uint(s, 6, out);
}

/* 0: go on; 1: --help shown; 2: bad arguments (reason already printed). */
static int parse_args(int argc, char **argv, struct options *o) {
    enum {
        O_DOMAIN = 256,
        O_NAME,
        O_ROLE,
        O_KEYWORDS,
        O_IMPORTANCE,
        O_DEVTYPE,
        O_KEY,
        O_ADDRESS,
        O_PORT,
        O_LISTEN,
        O_MAC,
        O_LOG,
        O_ALARM,
        O_RUNFOR,
        O_HARDENED,
        O_CAPTURE,
        O_HELP,
        O_VERSION
    };
    static const struct option longs[] = {{"domain", required_argument, NULL, O_DOMAIN},
                                          {"name", required_argument, NULL, O_NAME},
                                          {"role", required_argument, NULL, O_ROLE},
                                          {"keywords", required_argument, NULL, O_KEYWORDS},
                                          {"importance", required_argument, NULL, O_IMPORTANCE},
                                          {"device-type", required_argument, NULL, O_DEVTYPE},
                                          {"key", required_argument, NULL, O_KEY},
                                          {"address", required_argument, NULL, O_ADDRESS},
                                          {"port", required_argument, NULL, O_PORT},
                                          {"listen-port", required_argument, NULL, O_LISTEN},
                                          {"mac", required_argument, NULL, O_MAC},
                                          {"log-level", required_argument, NULL, O_LOG},
                                          {"alarm-after", required_argument, NULL, O_ALARM},
                                          {"run-for", required_argument, NULL, O_RUNFOR},
                                          {"hardened", no_argument, NULL, O_HARDENED},
                                          {"capture", required_argument, NULL, O_CAPTURE},
                                          {"help", no_argument, NULL, O_HELP},
                                          {"version", no_argument, NULL, O_VERSION},
                                          {NULL, 0, NULL, 0}};
    struct in_addr probe;
    int c;

    o->domain = "demo";
    o->name = "lamp-1";
    o->role = "light";
    o->keywords = "lamp,dimmable";
    o->device_type = "dimmable lamp";
    o->key = NULL;
    o->address = "127.0.0.1";
    o->importance = 50;
    o->port = 0;
    o->listen_port = 0;
    o->have_mac = 0;
    o->log_level = OHMARA_LOG_WARN;
    o->alarm_after = -1;
    o->run_for = -1;
    o->hardened = 0;
    o->capture = NULL;

    opterr = 0; /* the reasons below are clearer than getopt's */
    while ((c = getopt_long(argc, argv, ":", longs, NULL)) != -1) {
        switch (c) {
        case O_DOMAIN: o->domain = optarg; break;
        case O_NAME: o->name = optarg; break;
        case O_ROLE: o->role = optarg; break;
        case O_KEYWORDS: o->keywords = optarg; break;
        case O_DEVTYPE: o->device_type = optarg; break;
        case O_KEY:
            if (optarg[0] == '\0') return arg_error("--key: the secret is empty");
            o->key = optarg;
            break;
        case O_IMPORTANCE:
            if (parse_uint(optarg, 100, &o->importance) != 0 || o->importance < 1)
                return arg_error("--importance: '%s' is not a number from 1 to 100", optarg);
            break;
        case O_ADDRESS:
            if (inet_pton(AF_INET, optarg, &probe) != 1)
                return arg_error("--address: '%s' is not a dotted-quad IPv4 address", optarg);
            o->address = optarg;
            break;
        case O_PORT:
            if (parse_uint(optarg, 65535, &o->port) != 0 || o->port == 0)
                return arg_error("--port: '%s' is not a port from 1 to 65535", optarg);
            break;
        case O_LISTEN:
            if (parse_uint(optarg, 65535, &o->listen_port) != 0)
                return arg_error("--listen-port: '%s' is not a port from 0 to 65535", optarg);
            break;
        case O_MAC:
            if (parse_mac(optarg, o->mac) != 0)
                return arg_error("--mac: '%s' is not six hexadecimal pairs like 02:00:00:00:00:01",
                                 optarg);
            o->have_mac = 1;
            break;
        case O_LOG:
            if (parse_log_level(optarg, &o->log_level) != 0)
                return arg_error("--log-level: '%s' is not a level name or a number from 0 to 6",
                                 optarg);
            break;
        case O_ALARM:
            if (parse_seconds(optarg, &o->alarm_after) != 0)
                return arg_error("--alarm-after: '%s' is not a number of seconds", optarg);
            break;
        case O_RUNFOR:
            if (parse_seconds(optarg, &o->run_for) != 0)
                return arg_error("--run-for: '%s' is not a number of seconds", optarg);
            break;
        case O_HARDENED: o->hardened = 1; break;
        case O_CAPTURE: o->capture = optarg; break;
        case O_HELP: usage(stdout); return 1;
        case O_VERSION: printf("omsdk-endpoint %s\n", OMSDK_ENDPOINT_VERSION); return 1;
        case ':': return arg_error("%s needs a value", argv[optind - 1]);
        default: return arg_error("unknown option %s", argv[optind - 1]);
        }
    }
    if (optind < argc) return arg_error("unexpected argument '%s'", argv[optind]);
    return 0;
}

/* ---- running ---- */

static void *run_loop(void *session) {
    ohmara_svc_startup((svc_session *)session); /* frees the session when it returns */
    notify(EV_LOOP_ENDED);
    return NULL;
}

/* Keeps standard output for the readable lines: the library writes a few
 * unterminated lines of its own to standard output, so those are sent to
 * standard error with the log. */
static int split_output(void) {
    const int fd = dup(STDOUT_FILENO);
    if (fd < 0 || (g_out = fdopen(fd, "w")) == NULL) return -1;
    setvbuf(g_out, NULL, _IOLBF, 0);
    setvbuf(stdout, NULL, _IONBF, 0);
    return dup2(STDERR_FILENO, STDOUT_FILENO) < 0 ? -1 : 0;
}

static int open_pipe(void) {
    if (pipe(g_pipe) != 0) return -1;
    for (int i = 0; i < 2; ++i) {
        fcntl(g_pipe[i], F_SETFD, FD_CLOEXEC);
        fcntl(g_pipe[i], F_SETFL, fcntl(g_pipe[i], F_GETFL) | O_NONBLOCK);
    }
    return 0;
}

static void install_signals(void) {
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, NULL);
    sigaction(SIGTERM, &sa, NULL);
    sigaction(SIGUSR1, &sa, NULL);
    sa.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &sa, NULL); /* a switch that hangs up is not fatal */
}

static const char *signal_name(int sig) {
    return sig == SIGINT ? "SIGINT" : sig == SIGTERM ? "SIGTERM" : "a signal";
}

/* Waits on the pipe until the loop has ended; asks for the alarm and shuts
 * the session down when their time comes. 0: the loop ended after a
 * shutdown; 1: it ended by itself or the wait failed; 2: it did not end
 * after a shutdown (the loop's thread still runs). */
static int supervise(const struct options *o) {
    int64_t now = now_ms();
    const int64_t run_end = o->run_for >= 0 ? now + (int64_t)(o->run_for * 1000) : -1;
    int64_t alarm_due = -1, retry_shutdown = -1, give_up = -1;
    int alarm_done = 0, alarm_announced = 0, stopping = 0;

    for (;;) {
        int64_t wake = -1;
        struct pollfd p;
        char evs[32];
        ssize_t n;
        int ended = 0, stop_now = 0;

        if (!stopping && run_end >= 0) wake = run_end;
        if (!stopping && alarm_due >= 0 && (wake < 0 || alarm_due < wake)) wake = alarm_due;
        if (stopping && retry_shutdown >= 0 && (wake < 0 || retry_shutdown < wake))
            wake = retry_shutdown;
        if (stopping && (wake < 0 || give_up < wake)) wake = give_up;

        p.fd = g_pipe[0];
        p.events = POLLIN;
        p.revents = 0;
        if (poll(&p, 1, wake < 0 ? -1 : (int)(wake > now ? wake - now : 0)) < 0 && errno != EINTR) {
            fprintf(g_out, "waiting failed: %s\n", strerror(errno));
            return 1;
        }

        while ((n = read(g_pipe[0], evs, sizeof evs)) > 0) {
            for (ssize_t i = 0; i < n; ++i) {
                if (evs[i] == EV_LOOP_ENDED) ended = 1;
                if (evs[i] == EV_COUNTERS && !stopping)
                    print_counters(); /* once stopping, the session may be gone */
                if (evs[i] == EV_SIGNAL && !stopping) {
                    fprintf(g_out, "%s received, shutting down\n", signal_name((int)g_signal));
                    stop_now = 1;
                }
                if (evs[i] == EV_ACTIVE && o->alarm_after >= 0 && !alarm_done && alarm_due < 0)
                    alarm_due = now_ms() + (int64_t)(o->alarm_after * 1000);
            }
        }
        if (ended) {
            if (stopping) return 0;
            fprintf(g_out, "the service loop ended unexpectedly\n");
            return 1;
        }

        now = now_ms();
        if (!stopping && run_end >= 0 && now >= run_end) {
            fprintf(g_out, "run time of %g s over, shutting down\n", o->run_for);
            stop_now = 1;
        }
        if (!stopping && !stop_now && alarm_due >= 0 && now >= alarm_due) {
            /* Announced first: the answer may come back on the loop's
             * thread before ohmara_svc_alarmAdd has returned here. */
            if (!alarm_announced)
                fprintf(g_out, "requesting an alarm (in %u s, parameters %u %u)\n", ALARM_SECONDS,
                        ALARM_FIRST, ALARM_SECOND);
            alarm_announced = 1;
            /* -1 while not ACTIVE or while another request is pending */
            if (ohmara_svc_alarmAdd(g_session, ALARM_SECONDS, ALARM_FIRST, ALARM_SECOND) == 0) {
                alarm_done = 1;
                alarm_due = -1;
            } else {
                alarm_due = now + RETRY_MS;
            }
        }
        if (stop_now) {
            print_counters(); /* the session is freed once the loop ends */
            stopping = 1;
            give_up = now + LOOP_END_MS;
            retry_shutdown = now;
        }
        /* A shutdown is refused before the loop is UP; once the status has
         * gone to SHUTDOWN the loop ends and frees the session, so the call
         * must not be repeated after that. */
        if (stopping && retry_shutdown >= 0 && now >= retry_shutdown) {
            ohmara_svc_shutdown(g_session);
            retry_shutdown = lamp_device_shutdown_seen() ? -1 : now + RETRY_MS;
        }
        if (stopping && now >= give_up) {
            fprintf(g_out, "the service loop did not end within %d s\n", LOOP_END_MS / 1000);
            return 2;
        }
    }
}

int main(int argc, char **argv) {
    struct options o;
    char id[33] = {0};
    pthread_t loop;
    sigset_t block, old;
    int rc = parse_args(argc, argv, &o);

    if (rc == 1) return 0;
    if (rc != 0) return 2;
    if (split_output() != 0 || open_pipe() != 0) {
        perror("omsdk-endpoint: setting up");
        return 1;
    }
    install_signals();
    setLogFile(stderr);
    setLogLevel(o.log_level);

    ohmara_utl_senderId(id, o.have_mac ? o.mac : NULL);
    g_session =
        ohmara_svc_create(o.address, (uint16_t)o.port, id, (const uint8_t *)o.key,
                          o.key != NULL ? (int32_t)strlen(o.key) : 0, (uint16_t)o.listen_port);
    if (g_session == NULL) {
        fprintf(stderr, "omsdk-endpoint: cannot open a session on %s (see the log)\n", o.address);
        return 1;
    }
    putchar('\n'); /* ends the library's unterminated key-context lines */
    if (o.hardened && ohmara_svc_setProfile(g_session, OHMARA_PROFILE_HARDENED) != 0) {
        fprintf(stderr, "omsdk-endpoint: the hardened profile was refused (see the log)\n");
        return 1;
    }
    if (ohmara_svc_configIdentity(g_session, o.domain, o.name, o.role, o.keywords, o.device_type,
                                  (uint8_t)o.importance) != 0) {
        /* The library logs why; the domain is the one value it does not
         * replace by a default. */
        return arg_error("--domain: '%s' was refused: use letters, digits and "
                         "~!@#$%%^&()_-+={}[]\\:.,></ only",
                         o.domain);
    }
    ohmara_svc_setEventCallback(g_session, on_event, NULL);
    if (o.capture != NULL && ohmara_svc_startCapture(g_session, o.capture, 0) != 0) {
        fprintf(stderr, "omsdk-endpoint: cannot capture to %s (see the log)\n", o.capture);
        return 1;
    }
    lamp_device_attach(g_session, g_out, on_active);
    if (ohmara_svc_configRegistry(g_session, lamp_device_registry()) != 0) {
        fprintf(stderr, "omsdk-endpoint: callback table refused\n");
        return 1;
    }
    char name[1400], role[1400];
    fprintf(g_out, "endpoint %s: \"%s\" in domain \"%s\", role \"%s\", importance %u, level %d\n",
            id, lamp_device_text(OHMARA_ATTR_NAME, name, sizeof name), o.domain,
            lamp_device_text(OHMARA_ATTR_ROLE, role, sizeof role), o.importance,
            lamp_device_level());

    /* The loop thread leaves the signals to the main thread. */
    sigemptyset(&block);
    sigaddset(&block, SIGINT);
    sigaddset(&block, SIGTERM);
    sigaddset(&block, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &block, &old);
    rc = pthread_create(&loop, NULL, run_loop, g_session);
    pthread_sigmask(SIG_SETMASK, &old, NULL);
    if (rc != 0) {
        fprintf(stderr, "omsdk-endpoint: cannot start the service loop thread: %s\n", strerror(rc));
        return 1;
    }

    rc = supervise(&o);
    if (rc == 2) {
        /* The loop's thread may still use the session and the streams:
         * leave without running the exit handlers. */
        fflush(g_out);
        _exit(1);
    }
    pthread_join(loop, NULL);
    if (rc != 0) return 1;
    fprintf(g_out, "clean shutdown\n");
    fclose(g_out);
    close(g_pipe[0]);
    close(g_pipe[1]);
    return 0;
}
