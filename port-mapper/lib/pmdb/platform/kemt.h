/*
 * kemt.h - thread-debug service: records which mutex a thread is about to
 * block on, and where in the code, so that a hung process can be diagnosed.
 */
#ifndef PMDB_PLATFORM_KEMT_H
#define PMDB_PLATFORM_KEMT_H

#ifdef __cplusplus
extern "C" {
#endif

/* The calling thread is about to block on mutex at (location, line). */
void kemt_set_mutex_block(void *mutex, const char *location, int line);
/* The calling thread's blocking wait is over. */
void kemt_unset_mutex_block(void);

#ifdef __cplusplus
}
#endif

#endif
