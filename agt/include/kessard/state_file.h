/* The state file: what the daemon has done and what it does now.
 *
 * The daemon maps the file that COMMON / STATE_FILE names, makes it anew at each start and writes
 * single values into it, each of them whole: an aligned load needs no lock, no answer from the
 * daemon and no permission beyond reading the file. Values of one moment are not to be had; each is
 * true by itself. The last value written at a start is `magic`: a file without it is being made.
 *
 * A time `..._ms` is milliseconds of CLOCK_MONOTONIC of the boot `boot_id`, 0 where what it tells
 * of has not happened. Counts begin at 0 with the daemon and only grow. A text ends in a zero byte.
 */
#ifndef KESSARD_STATE_FILE_H
#define KESSARD_STATE_FILE_H

#include <stdint.h>

#include "kessard/layout.h"

#define STATE_FILE_MAGIC                                                                           \
    INT64_C(0x455441545353454b) /* "KESSTATE" where the low byte comes first                       \
                                 */
#define STATE_FILE_VERSION 1

#define STATE_THREADS 8
#define STATE_COMMANDS 128    /* commands by msg_type */
#define STATE_REFUSALS 8      /* refused connections by reason */
#define STATE_FILTER_NONE 256 /* no value of the filter switch */

/* Threads, by their place in `threads`. */
enum {
    STATE_MAIN,
    STATE_WATCHER,
    STATE_HOUSEKEEPING,
    STATE_HEALTH_CHECK,
    STATE_NOTIFIER,
    STATE_RETRIEVAL,
    STATE_UPLOAD,
    STATE_WATCHDOG
};

/* Why a connection was refused, by its place in `connections_refused`. */
enum {
    STATE_REFUSED_ADDRESS, /* not in ALLOWED_ADDRESSES */
    STATE_REFUSED_PLACE,   /* all places are taken */
    STATE_REFUSED_TLS,     /* no handshake, or a certificate that may not command */
    STATE_REFUSED_SHORTAGE /* no descriptor is left */
};

/* Why the server did not answer the last health check: an errno, or one of these. */
enum {
    STATE_SERVER_NO_ANSWER = 1001, /* nothing within the time-out */
    STATE_SERVER_CLOSED = 1002,    /* it closed the connection */
    STATE_SERVER_TLS = 1003,       /* the handshake, or the server's certificate */
    STATE_SERVER_NAME = 1004       /* its name has no address */
};

typedef struct {
    char name[32];        /* as in the log */
    int64_t running;      /* 1 while the thread is there */
    int64_t rhythm_ms;    /* longest time from one pass to the next when all is well */
    int64_t last_pass_ms; /* when its last pass began, or its start */
    int64_t waits_for;    /* semaphore set: 1 + its row among the shared objects, 0: for none */
    int64_t waits_number; /* the semaphore in that set */
    int64_t waits_since_ms;
} STATE_THREAD;
KESSARD_SIZE(STATE_THREAD, 80);
KESSARD_AT(STATE_THREAD, running, 32);
KESSARD_AT(STATE_THREAD, waits_since_ms, 72);

/* Of retrievals of the service list, or of uploads. */
typedef struct {
    int64_t begun;
    int64_t failed;
    int64_t good_ms;  /* when the last good one ended */
    int64_t elements; /* services in it */
    int64_t took_ms;
} STATE_TRANSFER;
KESSARD_SIZE(STATE_TRANSFER, 40);

typedef struct {
    int64_t magic;
    int32_t version;
    int32_t size;     /* bytes of the file */
    char release[32]; /* the daemon's version */
    char boot_id[40]; /* /proc/sys/kernel/random/boot_id */
    int64_t pid;      /* the daemon's; its own name for itself in a namespace */
    int64_t started_ms;
    int64_t started_sec; /* the same as seconds since the epoch */
    int64_t ended;       /* 1 when the daemon ended in order */
    int64_t link_wanted; /* 1 when ACTIVE_LIMIT switches the notify link on */
    STATE_THREAD threads[STATE_THREADS];

    int64_t server_tried_ms;    /* last health check */
    int64_t server_answered_ms; /* last answer to one, or to the device information */
    int64_t server_answers;     /* health checks answered */
    int64_t server_failures;    /* health checks that failed */
    int64_t server_failing;     /* those in a row, 0 after an answer */
    int64_t server_error;       /* of the last one that failed, 0: none did */
    int64_t device_info_sent;   /* 1 once it was */

    int64_t link_up;       /* 1: the notify link is up */
    int64_t link_since_ms; /* since when it is up or down */
    int64_t link_reconnections;
    int64_t notifications_sent;    /* and answered */
    int64_t notifications_dropped; /* taken while the link was down, or not answered */

    STATE_TRANSFER retrieval;
    STATE_TRANSFER upload;
    int64_t
        filter_switched_off; /* what a retrieval now running puts back; else STATE_FILTER_NONE */

    int64_t commands[STATE_COMMANDS];
    int64_t connections_accepted;
    int64_t connections_refused[STATE_REFUSALS];
    int64_t remote_commands;           /* run; the next two are among them */
    int64_t remote_commands_failed;    /* ended with another status than 0, or not begun */
    int64_t remote_commands_timed_out; /* ended by their limit */
    int64_t remote_commands_refused;   /* by REMOTE_COMMANDS_YN, file transfers too */
    int64_t files_received;
    int64_t files_sent;
    int64_t file_bytes_received;
    int64_t file_bytes_sent;
    int64_t file_failures;

    int64_t sweeps;
    int64_t
        sweep_us; /* the last one: microseconds it took, entries it looked at, dead among them */
    int64_t sweep_entries;
    int64_t sweep_dead;
    int64_t watchdog_passes;
    int64_t watchdog_events;
    int64_t watchdog_events_lost; /* because their queue was full or could not be used */
    int64_t log_lines_lost;       /* could not be written */
    int64_t audit_lines_lost;     /* the system log did not take them */
    int64_t certificate_end_sec;  /* of the daemon's own, seconds since the epoch; 0: no TLS */
} KESSARD_STATE;
KESSARD_SIZE(KESSARD_STATE, 2200);
KESSARD_AT(KESSARD_STATE, version, 8);
KESSARD_AT(KESSARD_STATE, pid, 88);
KESSARD_AT(KESSARD_STATE, threads, 128);
KESSARD_AT(KESSARD_STATE, server_tried_ms, 768);
KESSARD_AT(KESSARD_STATE, link_up, 824);
KESSARD_AT(KESSARD_STATE, retrieval, 864);
KESSARD_AT(KESSARD_STATE, commands, 952);
KESSARD_AT(KESSARD_STATE, sweeps, 2120);

#endif
