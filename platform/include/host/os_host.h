/*
 * os_host.h - host extensions of the OS layer: the shared-memory namespace
 * and who may share the card's objects.
 *
 * Every shared-memory object and named semaphore of the card lives under a
 * namespace taken from the environment variable PMDB_NS (default "pmdb"):
 * object "X" is "/<ns>.X".  Tests, demos and benchmarks pick their own
 * namespace so that they run side by side.  A PMDB_NS that is set but not a
 * valid name is an error, never a reason to use the card's own namespace:
 * the namespace in force is then "" and every named call fails (EINVAL).
 *
 * Group sharing.  By default the card's objects are private to the user
 * that runs it: created with mode 0600, and an existing object of another
 * owner is refused.  With PMDB_SHM_GROUP=1 (or vorn_host_set_shm_group(1))
 * objects are created with mode 0660 and an existing object whose group is
 * the process's effective group is accepted as well, so that processes of
 * several users of one group can share a card.
 */
#ifndef PMDB_HOST_OS_HOST_H
#define PMDB_HOST_OS_HOST_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VORN_NS_ENV "PMDB_NS"
#define VORN_NS_DEFAULT "pmdb"
#define VORN_SHM_GROUP_ENV "PMDB_SHM_GROUP" /* 1: share objects with the group */

/* The namespace in force in this process: the override, else PMDB_NS, else
 * "pmdb"; "" when PMDB_NS is set to an invalid name.  The string stays
 * valid for the life of the process. */
const char *vorn_host_namespace(void);
/* Overrides the namespace for this process (tests, tools); NULL returns to
 * PMDB_NS.  An invalid name is refused (returns -1, the namespace in
 * force stays).  PMDB_NS is read once and kept; every call of this function
 * makes it read again at its next use (for a process that changed its
 * environment).  Returns 0 on success. */
int vorn_host_set_namespace(const char *ns);
/* 1 when ns is a valid namespace name: 1 to 40 characters of
 * [A-Za-z0-9_-], and not "sem" (the prefix of every named semaphore). */
int vorn_host_namespace_valid(const char *ns);
/* Writes "/<ns>.<name>" to out; returns 0, or -1 when it does not fit or
 * the namespace in force is invalid. */
int vorn_host_shm_name(const char *name, char *out, size_t len);
/* 1 when the card's objects are shared with the group (see above). */
int vorn_host_shm_group(void);
/* Overrides group sharing for this process: 1 on, 0 off, -1 back to
 * PMDB_SHM_GROUP. */
void vorn_host_set_shm_group(int on);
/* Calls fn(ctx, bare name) for every shared-memory object of namespace ns
 * (NULL: the current one); returns the number of objects. */
int vorn_host_list_objects(const char *ns, void (*fn)(void *ctx, const char *name), void *ctx);
/* The same for the named semaphores of namespace ns (bare names). */
int vorn_host_list_semaphores(const char *ns, void (*fn)(void *ctx, const char *name), void *ctx);
/* Unlinks every shared-memory object and semaphore of namespace ns (NULL:
 * the current one); returns the number removed. */
int vorn_host_remove_namespace(const char *ns);
/* Sets a sysctl key for this process (overrides the PMDB_SYSCTL environment). */
void vorn_host_sysctl_set(const char *key, int64_t value);

#ifdef __cplusplus
}
#endif

#endif
