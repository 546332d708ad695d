/*
 * vorn_os.h - operating-system layer of the platform.
 *
 * Shared-memory objects and named semaphores are named in a namespace of the
 * platform: callers pass the bare object name and the layer qualifies it, so
 * several cards (or test runs) share one host without seeing each other.
 * When the namespace in force is invalid (the host's PMDB_NS names none),
 * every call on a named object fails with errno EINVAL and makes nothing.
 *
 * Modes and owners.  The layer, not the caller, decides who may use the
 * card's objects: the mode argument is passed on to the call log only.  An
 * object the layer creates gets mode 0600 (0660 when the host shares the
 * card's objects with a group), whatever the umask.  An object that exists
 * already is used only when it is a regular file owned by the process's
 * effective user (with group sharing, also one owned by its effective
 * group); any other is refused with errno EPERM and trace VORN_TP_NOT_OWNER,
 * so another local user cannot plant an object the card then trusts.
 */
#ifndef PMDB_PLATFORM_VORN_OS_H
#define PMDB_PLATFORM_VORN_OS_H

#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Trace point (error buffer): a string record with the object's bare name
 * and its owner's uid; an existing object was refused (errno EPERM). */
#define VORN_TP_NOT_OWNER 930u

/* shm_open of the namespaced object: a descriptor, or -1 with errno set
 * (EPERM: another user's object, EINVAL: no valid namespace). */
int _shm_open(const char *name, int oflag, mode_t mode);
/* mmap; MAP_FAILED with errno set on failure. */
void *vornos_mmap(void *addr, size_t len, int prot, int flags, int fd, off_t off);
int vorn_close(int fd);
/* sem_open / sem_unlink of the namespaced semaphore (SEM_FAILED, -1 on
 * failure); vorn_sem_open refuses another user's semaphore as _shm_open does. */
sem_t *vorn_sem_open(const char *name, int oflag, mode_t mode, unsigned int value);
int vorn_sem_unlink(const char *name);
/* Value of a sysctl key, 0 when the key is unknown; flags is 0. */
int64_t vorn_sysctl_get_int64(const char *key, int flags);

/* Marks a robust mutex whose owner died consistent again (0 or an errno). */
int vorn_pthread_mutex_consistent_np(pthread_mutex_t *mutex);
#define pthread_mutex_consistent_np vorn_pthread_mutex_consistent_np

#ifdef __cplusplus
}
#endif

#endif
