/*
 * kemt_host.h - host extension of the thread-debug service: who in this
 * process waits for which mutex, where in the code, and how often.
 *
 * kemt_set_mutex_block registers the calling thread as waiting (one wait
 * per thread at a time; a second set replaces the first) and counts the
 * wait; kemt_unset_mutex_block ends it.  State is per process.
 */
#ifndef PMDB_HOST_KEMT_HOST_H
#define PMDB_HOST_KEMT_HOST_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KEMT_LOCATION_MAX 64

typedef struct kemt_wait {
    uint32_t tid;                     /* waiting thread */
    const void *mutex;                /* what it waits on */
    char location[KEMT_LOCATION_MAX]; /* location name given by the caller */
    int line;
    uint64_t since_ns;                /* CLOCK_MONOTONIC at the set */
    uint64_t until_ns;                /* at the unset; 0 while waiting */
} kemt_wait_t;

/* Copies up to max current waits; returns how many there are. */
size_t kemt_host_waiters(kemt_wait_t *out, size_t max);
/* Waits registered since load (or the last reset). */
uint64_t kemt_host_total_waits(void);
/* Waits registered at location (any line when line < 0). */
uint64_t kemt_host_location_waits(const char *location, int line);
/* The calling thread's last wait (current or finished): 0 and *out, or -1
 * when it has none. */
int kemt_host_last_wait(kemt_wait_t *out);
/* Clears the counters (current waits stay registered). */
void kemt_host_reset(void);

#ifdef __cplusplus
}
#endif

#endif
