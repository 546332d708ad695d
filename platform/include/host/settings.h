/*
 * settings.h - host settings of the platform services: setters for tests and
 * tools, and an enumeration of every setting with its value and origin.
 *
 * Each setting has a documented default, may be set from the environment,
 * and may be overridden in-process by a setter; a setter always wins over
 * the environment, and the environment over the default.  Environment
 * variables are read at every call (values that must be fixed at load time
 * say so), so a child process started with another environment sees it.
 *
 *   name                         env                    default
 *   halvo.max_entries            PMDB_MAX_ENTRIES       65536
 *   halvo.lcvm_redundancy        PMDB_LCVM_REDUNDANCY   0
 *   halvo.need_egress_punt       PMDB_NEED_EGRESS_PUNT  0
 *   halvo.oam_enable             PMDB_OAM_ENABLE        1
 *   halvo.inlif_bank25_min       PMDB_INLIF_BANK25_MIN  1
 *   halvo.inlif_bank25_max       PMDB_INLIF_BANK25_MAX  0   (min > max: empty bank)
 *   halvo.max_subintf_vlob       PMDB_MAX_SUBINTF_VLOB  1024
 *   identity.rp_plus_datapath    PMDB_RP_PLUS_DATAPATH  0
 *   identity.node_id             PMDB_NODE_ID           1   (read once at load)
 *   identity.node_mac.<node>     PMDB_NODE_MAC          02:<node, 4 bytes>:<unit>
 *   os.namespace                 PMDB_NS                "pmdb" ("" when PMDB_NS is invalid)
 *   os.shm_group                 PMDB_SHM_GROUP         0   (1: objects shared with the group)
 *   sysctl.<key>                 PMDB_SYSCTL            0
 *   trace.records                PMDB_TRACE_RECORDS     4096 (at buffer creation)
 */
#ifndef PMDB_HOST_SETTINGS_H
#define PMDB_HOST_SETTINGS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum pmdb_setting_source {
    PMDB_SETTING_DEFAULT = 0,
    PMDB_SETTING_ENV = 1,
    PMDB_SETTING_SETTER = 2
} pmdb_setting_source_t;

typedef struct pmdb_host_setting {
    char name[64];  /* "halvo.oam_enable", "sysctl.<key>", ... */
    char value[64]; /* the value in force, as text */
    char env[24];   /* the environment variable that sets it ("" if none) */
    pmdb_setting_source_t source;
} pmdb_host_setting_t;

typedef void (*pmdb_setting_fn)(void *ctx, const pmdb_host_setting_t *setting);

/* Calls fn for every host setting, in a stable order. */
void pmdb_host_settings_each(pmdb_setting_fn fn, void *ctx);
/* "default", "environment" or "setter". */
const char *pmdb_setting_source_name(pmdb_setting_source_t source);

/* Overrides a system property by its setting name ("oam_enable" or
 * "halvo.oam_enable"); returns 0, or -1 for an unknown name. */
int halvo_host_set(const char *name, int64_t value);
/* Drops the overrides of every system property, and what was read of the
 * environment (halvo_host_reload_env). */
void halvo_host_reset(void);
/* The system properties read the environment once and keep what they read;
 * after this call they read it again (for a process that changed it). */
void halvo_host_reload_env(void);

/* Identity overrides; platform_host_reset drops all of them (the node id
 * returns to its value at load). */
void platform_host_set_rp_plus_datapath(int on);
void platform_host_set_node_id(uint32_t node_id);
/* MAC of every unit of `node`; returns 0, or -1 when the table is full. */
int platform_host_set_node_mac(uint32_t node, const uint8_t mac[6]);
void platform_host_reset(void);

/* Drops the sysctl overrides of vorn_host_sysctl_set. */
void vorn_host_sysctl_reset(void);

/* Capacity of trace buffers this process creates from now on (records;
 * rounded as PMDB_TRACE_RECORDS is); 0 drops the override.  A buffer that
 * exists already keeps its capacity. */
void vesk_host_set_records(uint32_t records);

#ifdef __cplusplus
}
#endif

#endif
