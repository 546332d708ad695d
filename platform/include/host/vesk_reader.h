/*
 * vesk_reader.h - host extension of the trace service: reading the three
 * trace buffers of the current namespace from any process.
 *
 * Each buffer is a ring of fixed-size records in the shared-memory object
 * "vesk.error", "vesk.database" or "vesk.event" of the namespace, created by
 * whichever process writes or reads it first.  Every record has a sequence
 * number, counted from 0 per buffer; a full ring overwrites its oldest
 * records, and a reader that asks for records no longer there is told how
 * many it lost.  Reading never disturbs writers.
 *
 * All calls are thread-safe.  A vesk_buf_t stays valid for the life of the
 * process (unless its namespace is removed with vorn_host_remove_namespace
 * in this process).
 *
 * Owners and damage.  A buffer is created with the host's mode (vorn_os.h);
 * a buffer object of another user is never mapped (VESK_E_OWNER), nor one
 * whose header is not a trace buffer's of this kind (VESK_E_DAMAGED).  A
 * read checks the header again, the head included, and returns no record
 * from a buffer found damaged; it never returns a record whose sequence
 * check failed, visits at most the ring's capacity of records and waits at
 * most 2 ms in all for records still being written.  Failures of the
 * database and event buffers are traced to the error buffer (each once
 * until it changes); the error buffer's own cannot be.
 */
#ifndef PMDB_HOST_VESK_READER_H
#define PMDB_HOST_VESK_READER_H

#include <stddef.h>
#include <stdint.h>

#include "vesk.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum vesk_kind { VESK_ERROR = 0, VESK_DATABASE = 1, VESK_EVENT = 2 } vesk_kind_t;
#define VESK_KINDS 3

#define VESK_MAX_ARGS 7
#define VESK_STR_MAX 48 /* string of _svesk, NUL included */
/* Upper part of the id of a string record. */
#define VESK_STRING_TAG 0x102u

/* Statuses of vesk_open_checked and vesk_read_checked (0 success). */
#define VESK_E_SHM 0xA6F01500u       /* the object cannot be made, opened or mapped */
#define VESK_E_OWNER 0xA6F01501u     /* the object belongs to another user */
#define VESK_E_DAMAGED 0xA6F01502u   /* the buffer's header (or head) is damaged */
#define VESK_E_NAMESPACE 0xA6F01503u /* the namespace in force is invalid */
#define VESK_E_INVAL 0xA6F01504u     /* bad argument */

/* Trace points (error buffer), arguments in brackets. */
#define VESK_TP_OPEN 940u    /* [status, kind, errno or owner uid] a buffer cannot be used */
#define VESK_TP_DAMAGED 941u /* [status, kind, head] a read found the buffer damaged */

/* Environment variable giving the capacity (records) of a buffer created by
 * this process; rounded up to a power of two within [16, 1048576]. */
#define VESK_RECORDS_ENV "PMDB_TRACE_RECORDS"
#define VESK_RECORDS_DEFAULT 4096u

/* One decoded record. */
typedef struct vesk_rec {
    uint64_t seq;      /* sequence number in its buffer */
    uint64_t id;       /* the id as the writer passed it */
    uint32_t point;    /* low 32 bits of id */
    uint32_t nargs;    /* integer arguments the writer passed (0..7) */
    int is_string;     /* written by _svesk: str holds the string */
    uint32_t pid;      /* writer's process and thread */
    uint32_t tid;
    int64_t tv_sec;    /* CLOCK_REALTIME at the write */
    uint32_t tv_nsec;
    uint64_t args[VESK_MAX_ARGS]; /* args[0..nargs-1]; the rest 0 */
    char str[VESK_STR_MAX];       /* "" unless is_string */
} vesk_rec_t;

/* "error", "database", "event"; NULL for another value. */
const char *vesk_kind_name(vesk_kind_t kind);
/* The kind of a name above (also "db", "eve"), or -1. */
int vesk_kind_from_name(const char *name);

/* The buffer of `kind` in the current namespace, created if absent: 0 and
 * *out, or a VESK_E_* status and *out NULL. */
uint32_t vesk_open_checked(vesk_kind_t kind, vesk_buf_t **out);
/* The same without the status: NULL on failure. */
vesk_buf_t *vesk_open(vesk_kind_t kind);
/* The sequence number the next record will get. */
uint64_t vesk_mark(const vesk_buf_t *buf);
/* Capacity in records. */
uint32_t vesk_capacity(const vesk_buf_t *buf);
/* Records writers had to drop because a writer lapped by the whole ring
 * still held their slot (never happens below `capacity` concurrent writes). */
uint64_t vesk_dropped(const vesk_buf_t *buf);

/* Copies up to max records with sequence >= since, oldest first, into out;
 * *count (optional) receives their number.  *next (optional) receives the
 * sequence to pass as `since` next time; *lost (optional) the number of
 * records at or after `since` and before *next that were not copied
 * because they were overwritten, dropped, or not yet published when the
 * read's wait ran out.  Returns 0; VESK_E_DAMAGED (traced) when the buffer
 * is damaged: then nothing is copied, *count and *lost are 0 and *next is
 * `since`; VESK_E_INVAL for a null buffer, or a null out with max > 0. */
uint32_t vesk_read_checked(const vesk_buf_t *buf, uint64_t since, vesk_rec_t *out, size_t max,
                           size_t *count, uint64_t *next, uint64_t *lost);
/* The same, returning the number of records copied (0 on any failure). */
size_t vesk_read(const vesk_buf_t *buf, uint64_t since, vesk_rec_t *out, size_t max,
                 uint64_t *next, uint64_t *lost);

/* Rebuilds buffer `kind` of the current namespace from saved records: the
 * buffer is made with `capacity` records (rounded as VESK_RECORDS_ENV is),
 * its next sequence number is `next`, and each record of recs that a ring
 * of that size ending at `next` holds is put at its own sequence number
 * with its own id, arguments, time and writer; the others read as lost.
 * Only for a buffer nothing was written to yet (a new namespace).
 * Returns 0; VESK_E_INVAL for a bad argument or a buffer already written;
 * the status of opening the buffer. */
uint32_t vesk_host_restore(vesk_kind_t kind, uint32_t capacity, const vesk_rec_t *recs, size_t n,
                           uint64_t next);

#ifdef __cplusplus
}
#endif

#endif
