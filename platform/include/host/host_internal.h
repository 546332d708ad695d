/*
 * host_internal.h - what the host platform services share among themselves
 * inside libpmdb_host.  Not for the library, tests or tools.
 */
#ifndef PMDB_HOST_INTERNAL_H
#define PMDB_HOST_INTERNAL_H

#include <stddef.h>
#include <stdint.h>
#include <sys/stat.h>

#include "host/settings.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Value of a decimal or 0x-hex integer environment variable: 1 and *out
 * when set and valid, else 0. */
int pmdb_host_env_i64(const char *env, int64_t *out);
/* Finds `key` in a "key=value,key=value" list; copies its value (NUL
 * terminated) and returns 1, or returns 0. */
int pmdb_host_list_find(const char *list, const char *key, char *value, size_t len);
/* Calls fn with each key of such a list, in order. */
void pmdb_host_list_keys(const char *list, void (*fn)(void *ctx, const char *key), void *ctx);
/* Reports one setting to fn. */
void pmdb_host_setting_emit(pmdb_setting_fn fn, void *ctx, const char *name, const char *value,
                            const char *env, pmdb_setting_source_t source);

/* Per-subsystem parts of pmdb_host_settings_each. */
void pmdb_host_os_settings(pmdb_setting_fn fn, void *ctx);
void pmdb_host_identity_settings(pmdb_setting_fn fn, void *ctx);
void pmdb_host_trace_settings(pmdb_setting_fn fn, void *ctx);

/* The trace service forgets its mappings of namespace ns (it was removed). */
void vesk_host_forget_namespace(const char *ns);

/* Writes the file-system path of object `name` of namespace ns
 * ("/dev/shm/<ns>.<name>"); returns 0, or -1 when it does not fit or ns is
 * not a valid namespace. */
int vorn_host_shm_path(const char *ns, const char *name, char *out, size_t len);
/* The mode of objects the host services create (vorn_os.h). */
mode_t vorn_host_object_mode(void);
/* 1 when an existing object with status st may be used: a regular file of
 * the effective user, or with group sharing of the effective group. */
int vorn_host_owner_ok(const struct stat *st);

#ifdef __cplusplus
}
#endif

#endif
