/*
 * os_host.h - host extensions of the OS layer: the shared-memory namespace.
 *
 * Every shared-memory object and named semaphore of the card lives under a
 * namespace taken from the environment variable PMDB_NS (default "pmdb"):
 * object "X" is "/<ns>.X".  Tests, demos and benchmarks pick their own
 * namespace so that they run side by side.
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

/* The namespace in force in this process. */
const char *vorn_host_namespace(void);
/* Overrides the namespace for this process (tests); NULL returns to PMDB_NS.
 * A namespace is 1 to 40 characters of [A-Za-z0-9_-]; an invalid name is
 * refused (returns -1, nothing changes), as is an invalid PMDB_NS (the
 * default is used).  Returns 0 on success.  The string returned by
 * vorn_host_namespace stays valid for the life of the process. */
int vorn_host_set_namespace(const char *ns);
/* 1 when ns is a valid namespace name, else 0. */
int vorn_host_namespace_valid(const char *ns);
/* Writes "/<ns>.<name>" to out; returns 0, or -1 when it does not fit. */
int vorn_host_shm_name(const char *name, char *out, size_t len);
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
