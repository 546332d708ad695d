/*
 * pmdb.h - port mapper database: public records, constants and operations.
 *
 * The port mapper database keeps the mapping of a line card's interfaces
 * (ports, sub-interfaces, bundles and their members, BVIs) onto the switching
 * chip's logical interfaces, punt keys and OAM sessions in shared memory, so
 * that every process on the card reads one copy.  Three databases exist, one
 * per pmdb_type_t; each is a named table in the platform table store plus a
 * shared context region of this library (magic, one robust lock per table
 * slot, and for the IFH database a few node-wide values).
 *
 * Every record below that lives in shared memory or crosses a library
 * boundary is a binary format: its size and every field offset are checked
 * at compile time at the end of this file.  All integers are little-endian.
 *
 * This header compiles as C11 and as C++.
 *
 * Results (cerrno): 0 success; PMDB_ENOMEM (1) allocation or mapping failure;
 * PMDB_ENOTFOUND (2) nothing found or a region without its magic; PMDB_ESHM
 * (3) a shared-memory object or the semaphore could not be used; PMDB_EBUSY
 * (16) a slot lock still held; PMDB_EFULL (17) the BVI collection array is
 * full; PMDB_EINVAL (22) an invalid argument.  Values of the table store, the
 * system properties and the thread library pass through unchanged.
 *
 * Threads: any thread may call any operation.  The event entries
 * (dpa_pmdb_oper, dpa_pmdb_oam_oper) and the inventory list expect one event
 * at a time per process; callbacks are set before the first event.
 */
#ifndef PMDB_H
#define PMDB_H

#include <assert.h>
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define PMDB_EXPORT __attribute__((visibility("default")))
#else
#define PMDB_EXPORT
#endif

/* ------------------------------------------------------------------------ */
/* Basic types                                                              */
/* ------------------------------------------------------------------------ */

#ifndef PMDB_BASIC_TYPES_DEFINED
#define PMDB_BASIC_TYPES_DEFINED
typedef uint8_t u8;
typedef uint16_t u16;
typedef uint32_t u32;
typedef uint64_t u64;
typedef int32_t i32;
typedef int64_t i64;
#endif

/* 32-bit status of every operation; 0 is success. */
typedef u32 cerrno;

/* Event manager of the caller; opaque, handed to the table store. */
typedef struct event_mgr *event_mgr_p;

/* Opaque table-store handle (64 bits). */
typedef struct tabra_table *tabra_hdl_t;

/* The platform mutex object of one entry lock: a pthread_mutex_t (40 bytes). */
typedef pthread_mutex_t pellin_mutex_type;

/* ------------------------------------------------------------------------ */
/* Constants (one definition each)                                          */
/* ------------------------------------------------------------------------ */

#define PMDB_OK 0u
#define PMDB_ENOMEM 1u
#define PMDB_ENOTFOUND 2u
#define PMDB_ESHM 3u
#define PMDB_EBUSY 16u
#define PMDB_EFULL 17u
#define PMDB_EINVAL 22u

/* Status of tabra_add_entry when the key is already present. */
#define PMDB_TABRA_EEXIST 0xA6F01400u

#define PMDB_SHRD_CTX_MAGIC 0xC0DEC0DEu
#define PMDB_INITED_MARKER 0xDDBC0DEDu

#define PMDB_NUM_TYPES 3
#define PMDB_NUM_ENTRY_LOCKS 65536u /* one per table slot */
#define PMDB_MAX_ENTRIES 65536u     /* table capacity bound */
#define PMDB_HASH_BUCKETS 65536u
#define PMDB_SHM_SIZE 2621472     /* contents of a shared context region */
#define PMDB_ENTRY_LOCK_SIZE 40
#define PMDB_TBL_PARAM1 30u
#define PMDB_TBL_PARAM2 0u
#define PMDB_TBL_PARAM3 30u
#define PMDB_TABRA_PARAMS_VERSION 1u
#define PMDB_TABRA_OPEN_WRITE 66u /* O_CREAT | O_RDWR */
#define PMDB_TABRA_OPEN_READ 64u  /* O_CREAT */

#define PMDB_IFH_ENTRY_SIZE 328u
#define PMDB_PUNT_ENTRY_SIZE 312u
#define PMDB_OAM_ENTRY_SIZE 80u

/* Shared-memory object names (before the platform namespace applies). */
#define PMDB_IFH_SHM_NAME "dnx_pmdb_ifh_shrd"
#define PMDB_PUNT_SHM_NAME "dnx_pmdb_punt_shrd"
#define PMDB_OAM_SHM_NAME "dnx_pmdb_oam_shrd"
#define PMDB_IFH_TABLE_NAME "DNX_PORT_MAPPER_IFH_DB"
#define PMDB_PUNT_TABLE_NAME "DNX_PORT_MAPPER_PUNT_DB"
#define PMDB_OAM_TABLE_NAME "DNX_PORT_MAPPER_OAM_DB"
#define PMDB_SHM_SEMAPHORE_NAME "pmdb_shm_semaphore"
#define PMDB_SYSCTL_MAX_BUNDLE_L3_VLAN "tarvo.qen.vorn.platform.max_bundle_l3_vlan"

/* pmdb_event_t.valid_flags */
#define PMDB_VF_INTF 0x01u   /* body is a pmdb_intf_info_t */
#define PMDB_VF_PUNT 0x02u   /* body begins with a pmdb_punt_info_t image */
#define PMDB_VF_OAM 0x04u    /* body is an OAM image */
#define PMDB_VF_NO_PUNT 0x20u /* refused together with PMDB_VF_PUNT */

/* pmdb_ifh_entry_t.ifh_flags */
#define PMDB_IFH_MEMBER_ACTIVE 0x01u
/* pmdb_intf_info_t.intf_flags */
#define PMDB_INTF_EGRESS_KEY 0x0001u
/* pmdb_intf_info_t.sub_flags */
#define PMDB_SUB_VALID 0x01u

/* Interface types treated specially. */
#define PMDB_INTF_TYPE_NODE_LOCAL 37u /* bound to the reporting node */
#define PMDB_INTF_TYPE_BVI 78u

/* Punt key bits. */
#define PMDB_PUNT_KEY_EGRESS 0x40000000u
#define PMDB_PUNT_KEY_MEMBER 0x80000000u
#define PMDB_NO_SLOT 255u

/* dpa_pmdb_ifh_summary_t.sum_flags */
#define PMDB_SUM_IS_MEMBER 0x01u
#define PMDB_SUM_EGRESS_KEY 0x02u
#define PMDB_SUM_PUNT_ONLY_CREATED 0x04u
#define PMDB_SUM_CREATED 0x08u
#define PMDB_SUM_IS_SUB_INTF 0x10u
#define PMDB_SUM_IS_BUNDLE_SUB_INTF 0x20u

/* dpa_pm_bvi_adj_ctx_t */
#define PMDB_BVI_CTX_FIRST_WORD 17u
#define PMDB_BVI_CTX_CAPACITY 100u

/* Event types (pmdb_event_t.event_type). */
enum {
    PMDB_EV_INTF_ADD = 1,
    PMDB_EV_BUNDLE_ADD = 2,
    PMDB_EV_INTF_REFRESH = 3,
    PMDB_EV_SUB_ADD = 4,
    PMDB_EV_MEMBER_JOIN = 5,
    PMDB_EV_MEMBER_MODIFY = 6,
    PMDB_EV_MEMBER_LEAVE = 7,
    PMDB_EV_INTF_PUNT = 8,
    PMDB_EV_BUNDLE_PUNT = 9,
    PMDB_EV_BUNDLE_REKEY = 10,
    PMDB_EV_SUB_PUNT = 11,
    PMDB_EV_INTF_REMOVE = 12,
    PMDB_EV_BUNDLE_REMOVE = 13,
    PMDB_EV_MAIN_REMOVE = 14,
    PMDB_EV_SUB_REMOVE = 15,
    PMDB_EV_OAM_REMOVE = 18,
    PMDB_EV_INTF_ADD_NO_IFH = 19,
    PMDB_EV_INTF_PUNT_NO_IFH = 20,
    PMDB_EV_INTF_REMOVE_NO_IFH = 21,
    PMDB_EV_BUNDLE_MAC = 22
};

/* ------------------------------------------------------------------------ */
/* Database types, configuration and handles                                */
/* ------------------------------------------------------------------------ */

typedef enum pmdb_type {
    PMDB_TYPE_IFH = 0,
    PMDB_TYPE_PUNT = 1,
    PMDB_TYPE_OAM = 2
} pmdb_type_t;

/* dnx_db_hdl_t.prot_state */
#define PMDB_PROT_NONE 0
#define PMDB_PROT_READONLY 1
#define PMDB_PROT_WRITABLE 2

typedef u32 (*dpa_pmdb_hash_fn_t)(u32 key);

/* Static per-type configuration record (process memory). */
typedef struct dnx_db_cfg {
    const char *shm_name;
    i32 shm_size;
    const char *table_name;
    u32 tbl_param1;
    u32 tbl_param2;
    u32 hash_buckets;
    dpa_pmdb_hash_fn_t hash_fn;
    u32 max_entries; /* refreshed from the system properties */
    u32 entry_size;
    u32 tbl_param3;
} dnx_db_cfg_t;

/* Parameter record handed to the table store.
 *
 *   0 u32 version (1)     4 pad          8 table_name
 *  16 u32 open_flags     20 tbl_param1  24 tbl_param2   28 hash_buckets
 *  32 hash_fn            40 max_entries 44 entry_size   48 tbl_param3
 */
typedef struct tabra_params {
    u32 version;
    u32 pad0;
    const char *table_name;
    u32 open_flags;
    u32 tbl_param1;
    u32 tbl_param2;
    u32 hash_buckets;
    dpa_pmdb_hash_fn_t hash_fn;
    u32 max_entries;
    u32 entry_size;
    u32 tbl_param3;
} tabra_params_t;

/* Globals block of a shared context region (written in the IFH region only). */
typedef struct dnx_pmdb_glbls {
    u32 hs_node_mask; /* bit (node_index & 31) per high-scale node present */
    u32 hs_node_id;   /* current high-scale node */
    u32 inv_node_id;  /* recorded inventory node, 0 = none */
    u8 inv_node_mac[6];
    u8 pad[6];
} dnx_pmdb_glbls_t;

/* Shared context region, one per database type.
 *
 *        0 u32 magic (PMDB_SHRD_CTX_MAGIC once initialised)
 *        4 4 bytes padding
 *        8 65536 x 40-byte entry locks; slot i at 8 + 40 * i
 *  2621448 globals block (24 bytes)
 *  2621472 end of contents (PMDB_SHM_SIZE)
 */
typedef struct dnx_pmdb_shrd_ctx {
    u32 magic;
    u32 pad0;
    pellin_mutex_type entry_lock[PMDB_NUM_ENTRY_LOCKS];
    dnx_pmdb_glbls_t glbls;
} dnx_pmdb_shrd_ctx_t;

/* Member operation log "dnx_pmdb_member_ops": one record per writer thread
 * that changes bundle membership or out-of-resource levels.  A member and
 * its bundle are changed under two slot locks, one after the other; the
 * record names the bundles whose counters the thread is changing from just
 * before the member changes until the bundle's counters follow.  A record
 * that still names a bundle while its owner is dead marks a change left
 * half done: the next writer of a member or bundle (or pmdbctl repair)
 * recounts those bundles from their members and clears it.
 *
 *      0 u32 magic (PMDB_MEMBER_OPS_MAGIC once initialised)
 *      4 u32 size of the object in bytes (PMDB_MEMBER_OPS_SIZE)
 *      8 u32 number of records (PMDB_MEMBER_OPS_RECORDS)
 *     12 u32 records claimed so far: every record at or above is unused
 *     16 48 bytes reserved
 *     64 PMDB_MEMBER_OPS_RECORDS records of 64 bytes:
 *          0 owner lock: a robust entry lock that the owning thread holds
 *            for its whole life (its death makes the lock report a dead owner)
 *         40 u32 bundle_ifh[2]: bundles being changed, 0 when none
 *         48 u32 member_ifh: the member (or removed entry) being changed
 *         52 u32 pid, 56 u32 tid of the owner (for the operator)
 *         60 u32 reserved
 * The object is created zeroed and initialised once, under an fcntl write
 * lock on it; a process maps it only when its magic, size, record count and
 * owning user are right. */
#define PMDB_MEMBER_OPS_NAME "dnx_pmdb_member_ops"
#define PMDB_MEMBER_OPS_MAGIC 0x4D4F5053u /* "MOPS" */
#define PMDB_MEMBER_OPS_RECORDS 1024u

typedef struct pmdb_member_op {
    pellin_mutex_type owner;
    u32 bundle_ifh[2];
    u32 member_ifh;
    u32 pid;
    u32 tid;
    u32 reserved;
} pmdb_member_op_t;

typedef struct pmdb_member_ops {
    u32 magic;
    u32 size;
    u32 records;
    u32 claimed;
    u8 reserved[48];
    pmdb_member_op_t op[PMDB_MEMBER_OPS_RECORDS];
} pmdb_member_ops_t;

#define PMDB_MEMBER_OPS_SIZE (64u + 64u * PMDB_MEMBER_OPS_RECORDS)

/* A process's handle of one database type. */
typedef struct dnx_db_hdl {
    i32 prot_state; /* PMDB_PROT_* */
    event_mgr_p event_mgr;
    dnx_pmdb_shrd_ctx_t *shrd_ctx;
    tabra_hdl_t tabra;
    dnx_db_cfg_t *cfg;
} dnx_db_hdl_t;

/* Debug descriptor handed to the table store; 96 bytes this library never writes. */
typedef struct dnxpm_dbg_desc {
    u8 opaque[96];
} dnxpm_dbg_desc_t;

/* ------------------------------------------------------------------------ */
/* Interface and punt information blocks, entries                           */
/* ------------------------------------------------------------------------ */

/* Punt information block (28 bytes). */
typedef struct pmdb_punt_info {
    u32 ifh;
    u16 intf_type;
    u16 reserved;
    u32 punt_data[5]; /* present when punt_data[0] != 0 */
} pmdb_punt_info_t;

/* Interface information block (256 bytes); opaque bytes are carried verbatim. */
typedef struct pmdb_intf_info {
    u32 ifh;        /*   0 main interface, or parent port of a sub-interface */
    u32 sub_ifh;    /*   4 sub-interface's own handle */
    u32 bundle_ifh; /*   8 bundle, parent bundle, or bundle joined */
    u32 egress_lif; /*  12 */
    u32 oam_id;     /*  16 */
    u8 opaque_20[8];
    u32 oam_data_36; /* 28 */
    u16 sys_port;    /* 32 14 bits used */
    u8 opaque_34[2];
    u16 intf_data_44; /* 36 */
    u8 opaque_38[2];
    u16 ingress_lif;      /* 40 */
    u16 member_port;      /* 42 bits 0..9 port_lo, 10..15 port_hi */
    u8 member_port_shift; /* 44 bits 0..1 used */
    u8 opaque_45[7];
    u32 node_id;      /* 52 */
    u32 intf_data_64; /* 56 */
    u8 mac_addr[6];   /* 60 */
    u8 node_mac[6];   /* 66 */
    u8 npu_index;     /* 72 */
    u8 lc_slot;       /* 73 */
    u8 slot_id;       /* 74 255 = none */
    u8 high_scale;    /* 75 */
    i32 node_index;   /* 76 */
    u16 intf_type;    /* 80 */
    u16 intf_flags;   /* 82 bit 0 egress_key */
    u8 sub_flags;     /* 84 bit 0 sub_valid */
    u8 opaque_85[7];
    u16 oor_members_1; /* 92 */
    u16 oor_members_2; /* 94 */
    u32 oor_state;     /* 96 */
    u32 oor_reason;    /* 100 */
    u32 oor_changes;   /* 104 */
    u8 opaque_108[4];
    struct timespec oor_time; /* 112 */
    u32 oam_slots[32];        /* 128 */
} pmdb_intf_info_t;

/* IFH entry (328 bytes), keyed by interface handle. */
typedef struct pmdb_ifh_entry {
    u32 key;
    u8 member_count;
    u8 reserved_5;
    u16 sub_intf_count;
    u8 ifh_flags; /* PMDB_IFH_MEMBER_ACTIVE */
    u8 reserved_9[3];
    u32 event_id;
    struct timespec last_update;
    u16 node_mask;
    u8 reserved_34[6];
    pmdb_intf_info_t intf_info;
    pmdb_punt_info_t punt_info;
    u8 pad_324[4];
} pmdb_ifh_entry_t;

/* PUNT entry (312 bytes), keyed by punt key. */
typedef struct pmdb_punt_entry {
    u32 key;
    u32 event_id;
    struct timespec last_update;
    pmdb_intf_info_t intf_info;
    pmdb_punt_info_t punt_info;
    u8 pad_308[4];
} pmdb_punt_entry_t;

/* OAM information (56 bytes) carried by OAM events and entries. */
typedef struct pmdb_oam_info {
    u8 opaque_0[32];
    u32 oam_intf_data; /* 32 (entry offset 56) */
    u32 oam_ifh;       /* 36 (entry offset 60) */
    u8 oam_byte_a;     /* 40 */
    u8 oam_byte_b;     /* 41 */
    u8 opaque_42[2];
    u32 oam_word; /* 44 */
    u8 opaque_48[8];
} pmdb_oam_info_t;

/* OAM entry (80 bytes), keyed by OAM key. */
typedef struct pmdb_oam_entry {
    u32 key;
    u32 event_id;
    struct timespec last_update;
    pmdb_oam_info_t oam_info;
} pmdb_oam_entry_t;

/* ------------------------------------------------------------------------ */
/* Event record                                                             */
/* ------------------------------------------------------------------------ */

/* OAM reading of the event body (valid_flags bit 2). */
typedef struct pmdb_event_oam {
    u32 oam_key;
    u8 unused_4[4];
    pmdb_oam_info_t oam_info;
    u8 unused_64[192];
} pmdb_event_oam_t;

/* Port mapper event (264 bytes). */
typedef struct pmdb_event {
    u8 event_type;
    u8 valid_flags; /* PMDB_VF_* */
    u8 pad_2[2];
    u32 event_id;
    union {
        pmdb_intf_info_t intf_info; /* PMDB_VF_INTF */
        pmdb_punt_info_t punt_info; /* PMDB_VF_PUNT */
        pmdb_event_oam_t oam;       /* PMDB_VF_OAM */
        u8 body[256];
    };
} pmdb_event_t;

/* ------------------------------------------------------------------------ */
/* Process-local records                                                    */
/* ------------------------------------------------------------------------ */

/* Condensed copy of one IFH entry, from which keys are formed. */
typedef struct dpa_pmdb_ifh_summary {
    u32 egress_lif;
    u32 oam_id;
    u32 bundle_egress_lif;
    u16 sys_port;
    u16 intf_data_44;
    u8 lc_slot;
    u8 slot_id;
    u8 npu_index;
    u16 ingress_lif;
    u16 bundle_ingress_lif;
    u16 port_lo;
    u8 port_hi;
    u8 member_port_shift;
    u8 sum_flags; /* PMDB_SUM_* */
    u32 parent_ifh;
    u32 bundle_ifh;
    u32 punt_data[5];
    u32 oam_slots[32];
} dpa_pmdb_ifh_summary_t;

/* Port inventory entry (process heap, owned by the list). */
typedef struct pm_port_inv_entry {
    u32 node_id;
    i32 node_index;
    u8 mac[16]; /* first 6 bytes: the node's MAC */
    u8 high_scale;
    struct pm_port_inv_entry *next;
} pm_port_inv_entry_t;

/* BVI collection context handed through the reader's iteration (56 bytes). */
typedef struct dpa_pm_bvi_adj_ctx {
    u32 first_word; /* PMDB_BVI_CTX_FIRST_WORD */
    u32 reserved_4;
    u32 count;
    u32 capacity; /* PMDB_BVI_CTX_CAPACITY */
    u32 *handles;
    u32 reserved_24;
    u32 node_id;
    u8 reserved_32[24];
} dpa_pm_bvi_adj_ctx_t;

/* A bundle's counters as its IFH entry stores them and as its members give
 * them.  The members of bundle B are the IFH entries whose member_active
 * flag is set and whose intf_info.bundle_ifh is B (the reader library's
 * dpa_pmdb_get_bundle_member_ifh_entries); member_count is their number
 * (an 8-bit count), oor_members_1 and oor_members_2 the number of them whose
 * own oor_state is 1 and 2. */
typedef struct dpa_pmdb_bundle_counts {
    u32 bundle_ifh;
    u8 member_count;  /* stored (before a repair) */
    u8 members;       /* derived: active members */
    u16 oor_members_1; /* stored */
    u16 oor_members_2; /* stored */
    u16 level_1;      /* derived: active members at level 1 */
    u16 level_2;      /* derived: active members at level 2 */
    u16 reserved;
} dpa_pmdb_bundle_counts_t;

/* Told about one bundle by the check and the repair: its counts and a status
 * (0, or why it could not be checked or repaired). */
typedef void (*dpa_pmdb_bundle_counts_fn_t)(void *ctx, const dpa_pmdb_bundle_counts_t *counts,
                                            cerrno status);

/* Callbacks into the user. */
typedef void (*dpa_pmdb_oor_cb_t)(u32 ifh, u32 slot, u32 state, u32 removed);
typedef void (*dpa_pmdb_aib_update_cb_t)(u32 *handles, u32 *status, u16 count);

/* ------------------------------------------------------------------------ */
/* Exported objects and operations                                          */
/* ------------------------------------------------------------------------ */

/* Pointer arguments.  A pointer an operation needs must be given: a null one
 * is refused with 22 (PMDB_EINVAL) before anything changes - nothing is
 * opened or locked and no out-parameter is written - traced only where the
 * operation has a trace for that argument (the event and summary checks of
 * the member, bundle and OAM operations).  pmdb_lock_init ignores a null
 * lock; the BVI filter answers a null entry or context, or a context without
 * its handle array, with 22 like an entry it does not collect.  Optional,
 * and so may be null: the event manager, mask_out, punt_info, the slot of
 * dpa_pmdb_add_oam_entry, the IFH handle of the scale and inventory node
 * operations, the callbacks, the BVI filter's first and third arguments, and
 * the MAC of dpa_pmdb_update_glbls_inv_node_info's remove form (add 0). */

/* Database frame. */
PMDB_EXPORT extern dnxpm_dbg_desc_t dnxpm_dbg_pmdb_types;
PMDB_EXPORT cerrno dpa_pmdb_init(event_mgr_p em, pmdb_type_t type, int write_intent);
PMDB_EXPORT cerrno dpa_chk_pmdb_open(event_mgr_p em, dnx_db_hdl_t **out, pmdb_type_t type,
                                     int write_intent);
PMDB_EXPORT cerrno dpa_chk_shrd_ctx_open(event_mgr_p em, dnx_db_hdl_t **out, pmdb_type_t type);
PMDB_EXPORT cerrno dpa_pmdb_mprotect_tabra(tabra_hdl_t table, dnx_db_hdl_t *hdl,
                                           pmdb_type_t type);
PMDB_EXPORT dnx_db_hdl_t *dpa_pmdb_hdl_get(pmdb_type_t type);
PMDB_EXPORT void *pmdb_debug_flag(int type);

/* Entry locks. */
PMDB_EXPORT void pmdb_lock_init(pellin_mutex_type *lock);
PMDB_EXPORT cerrno pmdb_entry_lock(pellin_mutex_type *lock);
PMDB_EXPORT cerrno pmdb_entry_unlock(pellin_mutex_type *lock);
PMDB_EXPORT cerrno pmdb_lock_destroy(pellin_mutex_type *lock);

/* Events. */
PMDB_EXPORT void dpa_pmdb_oper(pmdb_event_t *event, u32 node);

/* Interface and punt entries. */
PMDB_EXPORT cerrno dpa_pmdb_add_all_entries(u32 ifh, pmdb_event_t *event, u32 is_bundle,
                                            i32 node);
PMDB_EXPORT cerrno dpa_pmdb_remove_all_entries(u32 ifh, u32 event_type, u32 ingress_lif,
                                               u32 bundle, u32 event_id);
PMDB_EXPORT cerrno dpa_pmdb_update_ifh_entry_nodelist(u32 ifh, i32 add, u32 event_id, u32 node,
                                                      u16 *mask_out);
PMDB_EXPORT cerrno dpa_pmdb_update_ifh_entry_member(pmdb_event_t *event,
                                                    dpa_pmdb_ifh_summary_t *summary,
                                                    pmdb_punt_info_t *punt_info);
PMDB_EXPORT cerrno dpa_pmdb_update_bundle_ifh_entry(u32 bundle_ifh, i32 count_in,
                                                    i32 keep_count,
                                                    dpa_pmdb_ifh_summary_t *summary,
                                                    pmdb_punt_info_t *punt_info, u32 event_id);

/* OAM entries. */
PMDB_EXPORT cerrno dpa_pmdb_add_oam_entry(u32 key, const pmdb_event_t *event, int *slot);
PMDB_EXPORT cerrno dpa_pmdb_remove_oam_entry(u32 key);
PMDB_EXPORT void dpa_pmdb_oam_oper(const pmdb_event_t *event);

/* Out-of-resource state. */
PMDB_EXPORT cerrno dpa_pmdb_update_bundle_oor_state(u32 ifh, u32 state, u32 reason,
                                                    u32 *bundle_ifh_out, u32 *bundle_state_out,
                                                    u32 *changed_out, u32 *bundle_slot_out);
PMDB_EXPORT cerrno dpa_pmdb_set_bundle_oor_state(u32 ifh, i32 state, u32 reason, u32 *slot_out);
PMDB_EXPORT void dpa_pmdb_set_oor_cb(dpa_pmdb_oor_cb_t cb);

/* Bundle counters.  Each IFH entry whose member_count, oor_members_1 or
 * oor_members_2 disagrees with its members is examined again under its slot
 * lock, waited for at most wait_ms milliseconds (0: as long as a writer
 * waits); an entry whose members a live thread is changing at that moment
 * counts as busy.
 *   check:  calls fn (status 0) for each entry whose disagreement holds
 *           under its lock, and (PMDB_EBUSY or the lock's status) for each
 *           that could not be examined; changes nothing.
 *   repair: first completes the changes of dead writers left in the member
 *           operation log, then stores the derived counters of each entry
 *           that disagrees and calls fn with the counts before (status 0),
 *           or with the status that kept it from being repaired.  A repair
 *           that changes the derived out-of-resource state raises the
 *           bundle's oor_state as the member accounting does and tells this
 *           process's out-of-resource callback; it writes database trace 340
 *           (bundle_ifh, member_count before, after, oor_members_1 before,
 *           after, oor_members_2 before, after).
 * Both return 0, PMDB_ENOTFOUND when the IFH table does not exist, PMDB_ESHM
 * when the member operation log is damaged or not the user's (error trace
 * 341 with its name and the reason: 1 cannot be opened, 2 another user's,
 * 3 wrong size, 4 wrong magic, size or record count, 5 cannot be mapped,
 * 6 initialisation lock failed, 7 every record taken; a writer that meets
 * such a log writes the same trace and runs unrecorded), PMDB_EINVAL for a
 * null fn, or the status of the open or the walk. */
PMDB_EXPORT cerrno dpa_pmdb_check_bundle_counts(u32 wait_ms, dpa_pmdb_bundle_counts_fn_t fn,
                                                void *ctx);
PMDB_EXPORT cerrno dpa_pmdb_repair_bundle_counts(u32 wait_ms, dpa_pmdb_bundle_counts_fn_t fn,
                                                 void *ctx);

/* Node inventory and scale. */
PMDB_EXPORT pm_port_inv_entry_t *pm_port_inv_entry_get(void);
PMDB_EXPORT pm_port_inv_entry_t *pm_port_inv_entry_add(u32 node_id, i32 node_index,
                                                       u8 npu_index, u8 high_scale);
PMDB_EXPORT cerrno pm_port_inv_entry_remove(u32 node_id);
PMDB_EXPORT cerrno pm_inventory_get_first_high_scale_nodeid(u32 *node_id);
PMDB_EXPORT cerrno pm_inventory_get_first_inv_nodeid(u32 *node_id, u8 *mac);
PMDB_EXPORT cerrno dpa_pmdb_update_scale_info(u32 node_id, i32 node_index, u8 high_scale,
                                              int add, dnx_db_hdl_t *hdl);
PMDB_EXPORT cerrno dpa_pmdb_update_glbls_inv_node_info(u32 node_id, const u8 *mac, int add,
                                                       dnx_db_hdl_t *hdl);

/* BVI refresh. */
PMDB_EXPORT void dpa_pmdb_set_aib_update_cb(dpa_pmdb_aib_update_cb_t cb);
PMDB_EXPORT int dpa_pm_get_bvi_adj_cb(void *arg1, const pmdb_ifh_entry_t *entry, void *arg3,
                                      void *ctx);
PMDB_EXPORT cerrno dpa_bvi_upd_all_entries(u32 ifh, u32 *status);

/* ------------------------------------------------------------------------ */
/* Layout checks                                                            */
/* ------------------------------------------------------------------------ */

#define PMDB_CHECK_OFF(type, field, off) \
    static_assert(offsetof(type, field) == (off), #type "." #field " offset")
/* A field of a shared or exchanged record: its offset and its width. */
#define PMDB_CHECK_FIELD(type, field, off, width)                                        \
    static_assert(offsetof(type, field) == (off) && sizeof(((type *)0)->field) == (width), \
                  #type "." #field " offset or width")
#define PMDB_CHECK_SIZE(type, size) static_assert(sizeof(type) == (size), #type " size")

PMDB_CHECK_SIZE(pmdb_type_t, 4);
PMDB_CHECK_SIZE(pellin_mutex_type, 40);
PMDB_CHECK_SIZE(struct timespec, 16);
PMDB_CHECK_FIELD(struct timespec, tv_sec, 0, 8);
PMDB_CHECK_FIELD(struct timespec, tv_nsec, 8, 8);

PMDB_CHECK_OFF(dnx_db_cfg_t, shm_name, 0);
PMDB_CHECK_OFF(dnx_db_cfg_t, shm_size, 8);
PMDB_CHECK_OFF(dnx_db_cfg_t, table_name, 16);
PMDB_CHECK_OFF(dnx_db_cfg_t, tbl_param1, 24);
PMDB_CHECK_OFF(dnx_db_cfg_t, tbl_param2, 28);
PMDB_CHECK_OFF(dnx_db_cfg_t, hash_buckets, 32);
PMDB_CHECK_OFF(dnx_db_cfg_t, hash_fn, 40);
PMDB_CHECK_OFF(dnx_db_cfg_t, max_entries, 48);
PMDB_CHECK_OFF(dnx_db_cfg_t, entry_size, 52);
PMDB_CHECK_OFF(dnx_db_cfg_t, tbl_param3, 56);
PMDB_CHECK_SIZE(dnx_db_cfg_t, 64);

PMDB_CHECK_FIELD(tabra_params_t, version, 0, 4);
PMDB_CHECK_FIELD(tabra_params_t, pad0, 4, 4);
PMDB_CHECK_FIELD(tabra_params_t, table_name, 8, 8);
PMDB_CHECK_FIELD(tabra_params_t, open_flags, 16, 4);
PMDB_CHECK_FIELD(tabra_params_t, tbl_param1, 20, 4);
PMDB_CHECK_FIELD(tabra_params_t, tbl_param2, 24, 4);
PMDB_CHECK_FIELD(tabra_params_t, hash_buckets, 28, 4);
PMDB_CHECK_FIELD(tabra_params_t, hash_fn, 32, 8);
PMDB_CHECK_FIELD(tabra_params_t, max_entries, 40, 4);
PMDB_CHECK_FIELD(tabra_params_t, entry_size, 44, 4);
PMDB_CHECK_FIELD(tabra_params_t, tbl_param3, 48, 4);
PMDB_CHECK_SIZE(tabra_params_t, 56);

PMDB_CHECK_OFF(dnx_db_hdl_t, prot_state, 0);
PMDB_CHECK_OFF(dnx_db_hdl_t, event_mgr, 8);
PMDB_CHECK_OFF(dnx_db_hdl_t, shrd_ctx, 16);
PMDB_CHECK_OFF(dnx_db_hdl_t, tabra, 24);
PMDB_CHECK_OFF(dnx_db_hdl_t, cfg, 32);
PMDB_CHECK_SIZE(dnx_db_hdl_t, 40);
PMDB_CHECK_SIZE(dnxpm_dbg_desc_t, 96);

PMDB_CHECK_FIELD(dnx_pmdb_glbls_t, hs_node_mask, 0, 4);
PMDB_CHECK_FIELD(dnx_pmdb_glbls_t, hs_node_id, 4, 4);
PMDB_CHECK_FIELD(dnx_pmdb_glbls_t, inv_node_id, 8, 4);
PMDB_CHECK_FIELD(dnx_pmdb_glbls_t, inv_node_mac, 12, 6);
PMDB_CHECK_FIELD(dnx_pmdb_glbls_t, pad, 18, 6);
PMDB_CHECK_SIZE(dnx_pmdb_glbls_t, 24);
PMDB_CHECK_FIELD(dnx_pmdb_shrd_ctx_t, magic, 0, 4);
PMDB_CHECK_FIELD(dnx_pmdb_shrd_ctx_t, pad0, 4, 4);
PMDB_CHECK_FIELD(dnx_pmdb_shrd_ctx_t, entry_lock, 8, 2621440);
PMDB_CHECK_OFF(dnx_pmdb_shrd_ctx_t, entry_lock[65535], 8 + 40 * 65535);
PMDB_CHECK_FIELD(dnx_pmdb_shrd_ctx_t, glbls, 2621448, 24);
PMDB_CHECK_OFF(dnx_pmdb_shrd_ctx_t, glbls.hs_node_mask, 0x280008);
PMDB_CHECK_OFF(dnx_pmdb_shrd_ctx_t, glbls.hs_node_id, 0x28000C);
PMDB_CHECK_OFF(dnx_pmdb_shrd_ctx_t, glbls.inv_node_id, 0x280010);
PMDB_CHECK_OFF(dnx_pmdb_shrd_ctx_t, glbls.inv_node_mac, 0x280014);
PMDB_CHECK_OFF(dnx_pmdb_shrd_ctx_t, glbls.pad, 0x28001A);
PMDB_CHECK_SIZE(dnx_pmdb_shrd_ctx_t, PMDB_SHM_SIZE);

PMDB_CHECK_FIELD(pmdb_punt_info_t, ifh, 0, 4);
PMDB_CHECK_FIELD(pmdb_punt_info_t, intf_type, 4, 2);
PMDB_CHECK_FIELD(pmdb_punt_info_t, reserved, 6, 2);
PMDB_CHECK_FIELD(pmdb_punt_info_t, punt_data, 8, 20);
PMDB_CHECK_SIZE(pmdb_punt_info_t, 28);

PMDB_CHECK_FIELD(pmdb_intf_info_t, ifh, 0, 4);
PMDB_CHECK_FIELD(pmdb_intf_info_t, sub_ifh, 4, 4);
PMDB_CHECK_FIELD(pmdb_intf_info_t, bundle_ifh, 8, 4);
PMDB_CHECK_FIELD(pmdb_intf_info_t, egress_lif, 12, 4);
PMDB_CHECK_FIELD(pmdb_intf_info_t, oam_id, 16, 4);
PMDB_CHECK_FIELD(pmdb_intf_info_t, opaque_20, 20, 8);
PMDB_CHECK_FIELD(pmdb_intf_info_t, oam_data_36, 28, 4);
PMDB_CHECK_FIELD(pmdb_intf_info_t, sys_port, 32, 2);
PMDB_CHECK_FIELD(pmdb_intf_info_t, opaque_34, 34, 2);
PMDB_CHECK_FIELD(pmdb_intf_info_t, intf_data_44, 36, 2);
PMDB_CHECK_FIELD(pmdb_intf_info_t, opaque_38, 38, 2);
PMDB_CHECK_FIELD(pmdb_intf_info_t, ingress_lif, 40, 2);
PMDB_CHECK_FIELD(pmdb_intf_info_t, member_port, 42, 2);
PMDB_CHECK_FIELD(pmdb_intf_info_t, member_port_shift, 44, 1);
PMDB_CHECK_FIELD(pmdb_intf_info_t, opaque_45, 45, 7);
PMDB_CHECK_FIELD(pmdb_intf_info_t, node_id, 52, 4);
PMDB_CHECK_FIELD(pmdb_intf_info_t, intf_data_64, 56, 4);
PMDB_CHECK_FIELD(pmdb_intf_info_t, mac_addr, 60, 6);
PMDB_CHECK_FIELD(pmdb_intf_info_t, node_mac, 66, 6);
PMDB_CHECK_FIELD(pmdb_intf_info_t, npu_index, 72, 1);
PMDB_CHECK_FIELD(pmdb_intf_info_t, lc_slot, 73, 1);
PMDB_CHECK_FIELD(pmdb_intf_info_t, slot_id, 74, 1);
PMDB_CHECK_FIELD(pmdb_intf_info_t, high_scale, 75, 1);
PMDB_CHECK_FIELD(pmdb_intf_info_t, node_index, 76, 4);
PMDB_CHECK_FIELD(pmdb_intf_info_t, intf_type, 80, 2);
PMDB_CHECK_FIELD(pmdb_intf_info_t, intf_flags, 82, 2);
PMDB_CHECK_FIELD(pmdb_intf_info_t, sub_flags, 84, 1);
PMDB_CHECK_FIELD(pmdb_intf_info_t, opaque_85, 85, 7);
PMDB_CHECK_FIELD(pmdb_intf_info_t, oor_members_1, 92, 2);
PMDB_CHECK_FIELD(pmdb_intf_info_t, oor_members_2, 94, 2);
PMDB_CHECK_FIELD(pmdb_intf_info_t, oor_state, 96, 4);
PMDB_CHECK_FIELD(pmdb_intf_info_t, oor_reason, 100, 4);
PMDB_CHECK_FIELD(pmdb_intf_info_t, oor_changes, 104, 4);
PMDB_CHECK_FIELD(pmdb_intf_info_t, opaque_108, 108, 4);
PMDB_CHECK_FIELD(pmdb_intf_info_t, oor_time, 112, 16);
PMDB_CHECK_FIELD(pmdb_intf_info_t, oam_slots, 128, 128);
PMDB_CHECK_SIZE(pmdb_intf_info_t, 256);

PMDB_CHECK_FIELD(pmdb_ifh_entry_t, key, 0, 4);
PMDB_CHECK_FIELD(pmdb_ifh_entry_t, member_count, 4, 1);
PMDB_CHECK_FIELD(pmdb_ifh_entry_t, reserved_5, 5, 1);
PMDB_CHECK_FIELD(pmdb_ifh_entry_t, sub_intf_count, 6, 2);
PMDB_CHECK_FIELD(pmdb_ifh_entry_t, ifh_flags, 8, 1);
PMDB_CHECK_FIELD(pmdb_ifh_entry_t, reserved_9, 9, 3);
PMDB_CHECK_FIELD(pmdb_ifh_entry_t, event_id, 12, 4);
PMDB_CHECK_FIELD(pmdb_ifh_entry_t, last_update, 16, 16);
PMDB_CHECK_FIELD(pmdb_ifh_entry_t, node_mask, 32, 2);
PMDB_CHECK_FIELD(pmdb_ifh_entry_t, reserved_34, 34, 6);
PMDB_CHECK_FIELD(pmdb_ifh_entry_t, intf_info, 40, 256);
PMDB_CHECK_OFF(pmdb_ifh_entry_t, intf_info.egress_lif, 52);
PMDB_CHECK_OFF(pmdb_ifh_entry_t, intf_info.ingress_lif, 80);
PMDB_CHECK_OFF(pmdb_ifh_entry_t, intf_info.node_id, 92);
PMDB_CHECK_OFF(pmdb_ifh_entry_t, intf_info.intf_type, 120);
PMDB_CHECK_OFF(pmdb_ifh_entry_t, intf_info.oor_members_1, 132);
PMDB_CHECK_OFF(pmdb_ifh_entry_t, intf_info.oor_time, 152);
PMDB_CHECK_OFF(pmdb_ifh_entry_t, intf_info.oam_slots, 168);
PMDB_CHECK_FIELD(pmdb_ifh_entry_t, punt_info, 296, 28);
PMDB_CHECK_FIELD(pmdb_ifh_entry_t, pad_324, 324, 4);
PMDB_CHECK_SIZE(pmdb_ifh_entry_t, PMDB_IFH_ENTRY_SIZE);

PMDB_CHECK_FIELD(pmdb_punt_entry_t, key, 0, 4);
PMDB_CHECK_FIELD(pmdb_punt_entry_t, event_id, 4, 4);
PMDB_CHECK_FIELD(pmdb_punt_entry_t, last_update, 8, 16);
PMDB_CHECK_FIELD(pmdb_punt_entry_t, intf_info, 24, 256);
PMDB_CHECK_OFF(pmdb_punt_entry_t, intf_info.egress_lif, 36);
PMDB_CHECK_OFF(pmdb_punt_entry_t, intf_info.ingress_lif, 64);
PMDB_CHECK_OFF(pmdb_punt_entry_t, intf_info.intf_flags, 106);
PMDB_CHECK_OFF(pmdb_punt_entry_t, intf_info.oam_slots, 152);
PMDB_CHECK_FIELD(pmdb_punt_entry_t, punt_info, 280, 28);
PMDB_CHECK_FIELD(pmdb_punt_entry_t, pad_308, 308, 4);
PMDB_CHECK_SIZE(pmdb_punt_entry_t, PMDB_PUNT_ENTRY_SIZE);

PMDB_CHECK_OFF(pmdb_oam_info_t, oam_intf_data, 32);
PMDB_CHECK_OFF(pmdb_oam_info_t, oam_ifh, 36);
PMDB_CHECK_OFF(pmdb_oam_info_t, oam_byte_a, 40);
PMDB_CHECK_OFF(pmdb_oam_info_t, oam_byte_b, 41);
PMDB_CHECK_OFF(pmdb_oam_info_t, opaque_42, 42);
PMDB_CHECK_OFF(pmdb_oam_info_t, oam_word, 44);
PMDB_CHECK_OFF(pmdb_oam_info_t, opaque_48, 48);
PMDB_CHECK_SIZE(pmdb_oam_info_t, 56);
PMDB_CHECK_FIELD(pmdb_oam_entry_t, key, 0, 4);
PMDB_CHECK_FIELD(pmdb_oam_entry_t, event_id, 4, 4);
PMDB_CHECK_FIELD(pmdb_oam_entry_t, last_update, 8, 16);
PMDB_CHECK_FIELD(pmdb_oam_entry_t, oam_info, 24, 56);
PMDB_CHECK_OFF(pmdb_oam_entry_t, oam_info.oam_intf_data, 56);
PMDB_CHECK_OFF(pmdb_oam_entry_t, oam_info.oam_ifh, 60);
PMDB_CHECK_OFF(pmdb_oam_entry_t, oam_info.oam_byte_a, 64);
PMDB_CHECK_OFF(pmdb_oam_entry_t, oam_info.oam_byte_b, 65);
PMDB_CHECK_OFF(pmdb_oam_entry_t, oam_info.oam_word, 68);
PMDB_CHECK_SIZE(pmdb_oam_entry_t, PMDB_OAM_ENTRY_SIZE);

PMDB_CHECK_OFF(pmdb_event_oam_t, oam_key, 0);
PMDB_CHECK_OFF(pmdb_event_oam_t, oam_info, 8);
PMDB_CHECK_SIZE(pmdb_event_oam_t, 256);
PMDB_CHECK_OFF(pmdb_event_t, event_type, 0);
PMDB_CHECK_OFF(pmdb_event_t, valid_flags, 1);
PMDB_CHECK_OFF(pmdb_event_t, event_id, 4);
PMDB_CHECK_FIELD(pmdb_event_t, body, 8, 256);
PMDB_CHECK_OFF(pmdb_event_t, intf_info, 8);
PMDB_CHECK_OFF(pmdb_event_t, intf_info.oam_data_36, 36);
PMDB_CHECK_OFF(pmdb_event_t, intf_info.intf_flags, 90);
PMDB_CHECK_OFF(pmdb_event_t, punt_info, 8);
PMDB_CHECK_OFF(pmdb_event_t, punt_info.ifh, 8);
PMDB_CHECK_OFF(pmdb_event_t, punt_info.intf_type, 12);
PMDB_CHECK_OFF(pmdb_event_t, punt_info.punt_data, 16);
PMDB_CHECK_OFF(pmdb_event_t, oam.oam_key, 8);
PMDB_CHECK_OFF(pmdb_event_t, oam.oam_info, 16);
PMDB_CHECK_SIZE(pmdb_event_t, 264);

PMDB_CHECK_OFF(dpa_pmdb_ifh_summary_t, egress_lif, 0);
PMDB_CHECK_OFF(dpa_pmdb_ifh_summary_t, oam_id, 4);
PMDB_CHECK_OFF(dpa_pmdb_ifh_summary_t, bundle_egress_lif, 8);
PMDB_CHECK_OFF(dpa_pmdb_ifh_summary_t, sys_port, 12);
PMDB_CHECK_OFF(dpa_pmdb_ifh_summary_t, intf_data_44, 14);
PMDB_CHECK_OFF(dpa_pmdb_ifh_summary_t, lc_slot, 16);
PMDB_CHECK_OFF(dpa_pmdb_ifh_summary_t, slot_id, 17);
PMDB_CHECK_OFF(dpa_pmdb_ifh_summary_t, npu_index, 18);
PMDB_CHECK_OFF(dpa_pmdb_ifh_summary_t, ingress_lif, 20);
PMDB_CHECK_OFF(dpa_pmdb_ifh_summary_t, bundle_ingress_lif, 22);
PMDB_CHECK_OFF(dpa_pmdb_ifh_summary_t, port_lo, 24);
PMDB_CHECK_OFF(dpa_pmdb_ifh_summary_t, port_hi, 26);
PMDB_CHECK_OFF(dpa_pmdb_ifh_summary_t, member_port_shift, 27);
PMDB_CHECK_OFF(dpa_pmdb_ifh_summary_t, sum_flags, 28);
PMDB_CHECK_OFF(dpa_pmdb_ifh_summary_t, parent_ifh, 32);
PMDB_CHECK_OFF(dpa_pmdb_ifh_summary_t, bundle_ifh, 36);
PMDB_CHECK_OFF(dpa_pmdb_ifh_summary_t, punt_data, 40);
PMDB_CHECK_OFF(dpa_pmdb_ifh_summary_t, oam_slots, 60);
PMDB_CHECK_SIZE(dpa_pmdb_ifh_summary_t, 188);

PMDB_CHECK_OFF(pm_port_inv_entry_t, node_id, 0);
PMDB_CHECK_OFF(pm_port_inv_entry_t, node_index, 4);
PMDB_CHECK_OFF(pm_port_inv_entry_t, mac, 8);
PMDB_CHECK_OFF(pm_port_inv_entry_t, high_scale, 24);
PMDB_CHECK_OFF(pm_port_inv_entry_t, next, 32);
PMDB_CHECK_SIZE(pm_port_inv_entry_t, 40);

PMDB_CHECK_FIELD(pmdb_member_op_t, owner, 0, 40);
PMDB_CHECK_FIELD(pmdb_member_op_t, bundle_ifh, 40, 8);
PMDB_CHECK_FIELD(pmdb_member_op_t, member_ifh, 48, 4);
PMDB_CHECK_FIELD(pmdb_member_op_t, pid, 52, 4);
PMDB_CHECK_FIELD(pmdb_member_op_t, tid, 56, 4);
PMDB_CHECK_SIZE(pmdb_member_op_t, 64);
PMDB_CHECK_FIELD(pmdb_member_ops_t, magic, 0, 4);
PMDB_CHECK_FIELD(pmdb_member_ops_t, size, 4, 4);
PMDB_CHECK_FIELD(pmdb_member_ops_t, records, 8, 4);
PMDB_CHECK_FIELD(pmdb_member_ops_t, claimed, 12, 4);
PMDB_CHECK_OFF(pmdb_member_ops_t, op, 64);
PMDB_CHECK_SIZE(pmdb_member_ops_t, PMDB_MEMBER_OPS_SIZE);
PMDB_CHECK_SIZE(dpa_pmdb_bundle_counts_t, 16);

PMDB_CHECK_FIELD(dpa_pm_bvi_adj_ctx_t, first_word, 0, 4);
PMDB_CHECK_FIELD(dpa_pm_bvi_adj_ctx_t, reserved_4, 4, 4);
PMDB_CHECK_FIELD(dpa_pm_bvi_adj_ctx_t, count, 8, 4);
PMDB_CHECK_FIELD(dpa_pm_bvi_adj_ctx_t, capacity, 12, 4);
PMDB_CHECK_FIELD(dpa_pm_bvi_adj_ctx_t, handles, 16, 8);
PMDB_CHECK_FIELD(dpa_pm_bvi_adj_ctx_t, reserved_24, 24, 4);
PMDB_CHECK_FIELD(dpa_pm_bvi_adj_ctx_t, node_id, 28, 4);
PMDB_CHECK_FIELD(dpa_pm_bvi_adj_ctx_t, reserved_32, 32, 24);
PMDB_CHECK_SIZE(dpa_pm_bvi_adj_ctx_t, 56);

#ifdef __cplusplus
}
#endif

#endif /* PMDB_H */
