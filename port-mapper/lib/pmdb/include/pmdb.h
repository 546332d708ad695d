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
 * full; PMDB_EINVAL (22) an invalid argument.  Values of the table store
 * (TABRA_E_*, tabra.h), the system properties and the thread library (errno
 * values: EDEADLK 35, EPERM 1 - the same number as PMDB_ENOMEM) pass through
 * unchanged.  Each function below lists the results it can give.
 *
 * Concurrency contract.
 *   - Any thread of any process may call the operations on entries, locks
 *     and the frame.  The exceptions are process-local and unlocked: the
 *     inventory list (pm_port_inv_*, pm_inventory_*) and the two callback
 *     setters; a process hands the library one event at a time and sets its
 *     callbacks before the first event.
 *   - Locks, in the order they may be taken: the process-local
 *     initialisation mutex (one for all types), then the process-local
 *     protection mutex of a type - never the reverse; both are recursive.
 *     Entry locks (one robust, process-shared, error-checking mutex per
 *     table slot, in the type's shared context region) are taken only
 *     between an open with write intent and its release, while neither
 *     process-local mutex is held; where two are held at once, a member's
 *     lock is taken before its bundle's.
 *   - Waits.  A busy mutex or entry lock is waited for without bound (the
 *     wait is registered with the platform's thread-debug service).  Of
 *     the operations on entries, only the bundle counter check and repair
 *     bound their lock waits.  The first
 *     open of a type in a process pauses 100 ms, and may wait up to three
 *     rounds of 5 s for the card-wide region semaphore.
 *   - A pointer to an entry is valid only while its slot lock is held;
 *     nothing here keeps a pointer the caller passed beyond the call.
 *
 * The entry change cycle.  Every operation below that changes, creates or
 * removes an entry runs the same cycle: open the type with write intent ->
 * find the entry (or create it; a key already present is refreshed) -> take
 * the slot's entry lock -> change the entry -> unlock -> release write
 * access.  Its failures, named by step in the functions below:
 *   open     the status of dpa_chk_pmdb_open; no entry changed and
 *            nothing to release.
 *   add      the table store's status of a failed create (TABRA_E_FULL: the
 *            table holds max_entries entries); nothing changed.
 *   lookup   the table store's status (TABRA_E_NOTFOUND: no entry under the
 *            key), or 22 for a slot beyond the region's locks; the entry is
 *            unchanged.
 *   lock     the status of pmdb_entry_lock (EDEADLK 35 when the calling
 *            thread holds that slot lock already); the entry is unchanged.
 *   release  a nonzero status of dpa_pmdb_mprotect_tabra replaces the
 *            operation's own result (a change already made stays).
 * After a successful open, write access is released on every path.  Each
 * failure writes the operation's own error trace, with (key, status) unless
 * said otherwise; the point numbers are given per function.  Nothing is
 * rolled back: an operation that changes two entries leaves the first
 * changed when the second fails, and another process can see the first
 * change before the second.
 * A removal takes no entry lock: it retires the slot's lock
 * (pmdb_lock_destroy, again every microsecond while it reports EBUSY), so
 * it waits without bound for whoever holds that lock - the calling thread
 * included: a thread that holds an entry's lock and removes that entry
 * waits for ever.
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

/* ---- Database frame --------------------------------------------------------
 * A type comes to life in a process on its first open: handle, shared
 * context region, table.  Nothing is ever closed: handles, mappings and
 * tables live until the process ends.  Write access is counted per type and
 * process: each open with write intent counts a writer in and makes the
 * table writable for this process; each dpa_pmdb_mprotect_tabra counts one
 * out, and the last one out protects the table again. */

/* Debug descriptor handed to the table store's initialisation; the library
 * never writes it. */
PMDB_EXPORT extern dnxpm_dbg_desc_t dnxpm_dbg_pmdb_types;

/* Initialises `type` in this process once: creates its handle (keeping
 * `em`), maps its shared context region (the first process on the card
 * zeroes it and writes the magic), initialises the table store and opens
 * the table (creating it when missing; write_intent only chooses the
 * access bits of the open flags), pauses
 * 100 ms and puts the table under read-only protection.  It counts no
 * writer.  Later calls return 0 at once.
 * Results: 0 initialised, now or before; 22 a type that is not a
 * pmdb_type_t (nothing done); 1 the handle or the region's mapping could
 * not be allocated; 3 the region object or the semaphore could not be used
 * (error traces 58 to 61, 72); the table store's status of its
 * initialisation (trace 53), of the table's open (54) or of the first
 * protection (56); the error of taking the initialisation mutex (64).
 * Waits: holds the initialisation mutex throughout; the 100 ms pause; a
 * region without its magic waits for the card-wide semaphore at most 5 s a
 * round, three rounds (a holder that died: trace 72, semaphore replaced).
 * On failure what was made (handle, mapping) stays, and the next call
 * resumes from the first missing piece.  A table-store open that succeeds
 * without a table marks the type initialised without one: the next
 * dpa_chk_pmdb_open then stops the process at its assertion. */
PMDB_EXPORT cerrno dpa_pmdb_init(event_mgr_p em, pmdb_type_t type, int write_intent);

/* Hands out `type`'s handle in *out, initialising the type first when
 * needed (dpa_pmdb_init).  With write_intent nonzero it also counts the
 * caller in as a writer of this process and makes the table writable for
 * this process when it was protected; the caller then calls
 * dpa_pmdb_mprotect_tabra exactly once after its last entry access, on
 * every path.
 * Results: 0 (*out set); 22 an invalid type or a null out (nothing done);
 * the status of the initialisation (error trace 67 with status and type);
 * the error of taking the type's protection mutex or the table store's
 * status of making the table writable (error trace 68).  A failed
 * write-enable step leaves the writer counted and the protection as it was.
 * Costs: without write intent on an initialised type, no lock and no
 * table-store call; with it, the type's protection mutex, and a table-store
 * call only for the first writer in.  Stops the process (assertion) when
 * the type was marked initialised without a table. */
PMDB_EXPORT cerrno dpa_chk_pmdb_open(event_mgr_p em, dnx_db_hdl_t **out, pmdb_type_t type,
                                     int write_intent);

/* Hands out `type`'s handle with its shared context region mapped (entry
 * locks, globals), creating the handle and mapping the region when needed,
 * without opening the table store.  It counts no writer, needs no release
 * and does not mark the type initialised.
 * Results: 0 (*out set); 22 an invalid type or a null out; 2 the region
 * does not hold its magic (database trace 66 unless the type was
 * initialised already);
 * 1 or 3 as for dpa_pmdb_init's handle and region, or the error of taking
 * the initialisation mutex (error trace 65 with type and status).
 * Waits: on an initialised type none; otherwise the initialisation mutex
 * and the region semaphore as dpa_pmdb_init. */
PMDB_EXPORT cerrno dpa_chk_shrd_ctx_open(event_mgr_p em, dnx_db_hdl_t **out, pmdb_type_t type);

/* Counts one writer of this process out of `type`; when none is left, puts
 * `table` (the handle's tabra) under read-only protection for this process,
 * with max_entries read afresh from the system properties.
 * Results: 0; 22 an invalid type, a null hdl or a null table (nothing
 * counted); the error of taking the protection mutex (error trace 52; the
 * count is unchanged); the table store's status of the protection, not
 * traced: the writer is counted out, the table stays writable for this
 * process and the next release tries again.
 * A release without its open upsets the count: a later release may then
 * protect the table while another thread of the process still writes. */
PMDB_EXPORT cerrno dpa_pmdb_mprotect_tabra(tabra_hdl_t table, dnx_db_hdl_t *hdl,
                                           pmdb_type_t type);

/* The handle of an initialised `type`, else null (error trace 51).  No
 * lock; the handle belongs to this process and lives until it ends. */
PMDB_EXPORT dnx_db_hdl_t *dpa_pmdb_hdl_get(pmdb_type_t type);

/* The address of dnxpm_dbg_pmdb_types for type 0 (IFH), null for any other
 * value.  No state, no lock. */
PMDB_EXPORT void *pmdb_debug_flag(int type);

/* ---- Entry locks -----------------------------------------------------------
 * One lock per table slot: entry_lock[slot] of the type's shared context
 * region.  Writers hold it while they change the entry in that slot.  The
 * library initialises a slot's lock itself when the table store gives the
 * slot to a new key, before the key can be found, and retires it before the
 * entry is removed.  Any thread of any process that maps the region may
 * take any of them, only between an open with write intent and its
 * release, with no process-local mutex held, member before bundle. */

/* Makes *lock a fresh error-checking, process-shared, robust mutex (its 40
 * bytes zeroed first).  A null lock: nothing.  A failure of the thread
 * library stops the process (assertion).  Only for a lock that no thread
 * holds or waits for: whoever holds it loses the lock. */
PMDB_EXPORT void pmdb_lock_init(pellin_mutex_type *lock);

/* Takes the lock, waiting without bound while another thread holds it.  A
 * holder that died: the caller gets the lock, it is made consistent
 * (database trace 69) and the result is 0 - the entry may hold the dead
 * holder's change half made.  A lock that is not recoverable, or not a
 * valid mutex (retired, damaged), is rebuilt and taken.
 * Results: 0 held; 22 a null lock; EDEADLK (35) the calling thread holds it
 * already (no wait); any other error of the thread library.  Stops the
 * process (assertion) when a dead holder's lock cannot be made consistent
 * or a tenth attempt is needed. */
PMDB_EXPORT cerrno pmdb_entry_lock(pellin_mutex_type *lock);

/* Releases the lock.  Results: 0; 22 a null lock; EPERM (1, the number of
 * PMDB_ENOMEM) when the calling thread does not hold it.  No trace. */
PMDB_EXPORT cerrno pmdb_entry_unlock(pellin_mutex_type *lock);

/* Retires the lock unless a live thread holds it; never waits.  A retired
 * lock taken again with pmdb_entry_lock is rebuilt first.
 * Results: 0 retired; 16 (EBUSY) a live thread holds it - the calling
 * thread included - and it is left as it was (database trace 71); 22 a null
 * lock; any other error of the destroy (trace 71).  A holder that died does
 * not count as holding it. */
PMDB_EXPORT cerrno pmdb_lock_destroy(pellin_mutex_type *lock);

/* ---- Events ---------------------------------------------------------------- */

/* The event entry point: the port mapper hands every interface event here.
 * No result: the outcome shows in the tables and the trace buffers only.
 * `node` is the reporting node; its low 16 bits reach the add path (the
 * bit of the IFH entry's node_mask) and the node-list removal; an event
 * with a punt image (PMDB_VF_PUNT) uses 0 instead.
 *
 * Refused, with nothing changed: a null event (error trace 284); event
 * types 0, 16, 17, 18 and above 22 (error trace 277: event_type, 0).
 * valid_flags choose how the body is read, never whether the event is
 * taken: an event without the reading its path uses goes on, and the
 * operations below apply only the readings it flags (8, 9 and 11 without
 * either reading reach the add path with handle 0, which it refuses:
 * trace 289).  Dropped without any
 * trace: types 4 and 15, and 11 with only the interface reading, whose
 * sub_flags lack PMDB_SUB_VALID.
 *
 * The subject handle: ifh (1, 3, 5-7, 12, 14, 19, 21), bundle_ifh (2, 13,
 * 22), sub_ifh (4, 15); for 8 and 20 the punt image's ifh, else ifh with
 * the interface reading, else 0 (9: bundle_ifh, 11: sub_ifh likewise); for
 * 10 bundle_ifh with the interface reading, else 0.  Event traces 278
 * (event_type, handle, event_id) and 279 (add, bundle, member path, member
 * modify as 0/1), then 280 (five punt words) for a punt image, else 281
 * (intf_data_64, node_id, ifh, sub_ifh, bundle_ifh, ingress_lif,
 * egress_lif).  Then one path:
 *   5, 6, 7   the bundle member path;
 *   10        re-key of bundle_ifh (database trace 258; nothing with no
 *             member): its bundle-member keys with the other egress keying
 *             are removed (event trace 261) and one key per member on the
 *             event's node_id is written from the member's stored block,
 *             event_id 0 (251; 249/250 when a member or the bundle cannot
 *             be read);
 *   22        MAC change of bundle_ifh (258, 259; nothing with no member):
 *             its sub-interfaces are walked once per member place (260)
 *             and take mac_addr, then the bundle's own entry does;
 *   1-4, 8, 9, 11, 19, 20  dpa_pmdb_add_all_entries(handle, event, bundle
 *             flag, node) - error trace 289 with its failure.  Before it,
 *             8 and 20 with a punt image of interface type 37 rewrite the
 *             punt words of up to three PUNT entries of the interface
 *             (275, 276 on failure);
 *   12-15, 21 removal: nothing while the event's bundle_ifh has members;
 *             else dpa_pmdb_remove_all_entries (bundle flag: 13 always,
 *             12 and 21 when bundle_ifh is nonzero).  Type 15 of a bundle
 *             sub-interface instead clears this node's bit (database trace
 *             256; nothing while the bundle has no member) and removes the
 *             sub-interface's OAM, main PUNT and IFH entries once no node
 *             holds it (257 while one does).
 * The event is the caller's; it is changed only for types 1 and 19 of
 * interface type 37 with the interface reading: node_id := pmdb_node_id.
 * Threads: any thread, but a process hands events over one at a time (the
 * add path uses the unlocked inventory list); processes may dispatch at
 * once.  The steps of one event are separate entry change cycles: another
 * writer may act between them and nothing is rolled back.  Waits for each
 * entry's lock without bound. */
PMDB_EXPORT void dpa_pmdb_oper(pmdb_event_t *event, u32 node);

/* ---- Interface and punt entries ------------------------------------------
 * IFH entries (key: interface handle) and PUNT entries (key: punt key).
 * Every change runs the entry change cycle on the IFH or PUNT table. */

/* Adds or refreshes every entry of interface `ifh` from an add or refresh
 * event, each in its own entry change cycle, nothing held between them:
 *   1. its IFH entry (error trace 178 and that status on failure, nothing
 *      else touched; database trace 179 after it).  An entry that a punt
 *      event created bare gets nothing more: result 0.
 *   2. with interface information: a newly created sub-interface counts
 *      itself in its parent's sub_intf_count (status recorded); a bundle
 *      sub-interface adds, for event types 4 and 11 with the LIF that its
 *      egress keying selects nonzero, its punt key with node_id 999 (traces
 *      180/181) and, with LCVM redundancy on and a nonzero egress LIF, one
 *      OAM entry (v << 16) | (i << 10) | 24 per nonzero OAM slot v at
 *      index i (182/183).
 *   3. a bundle (is_bundle nonzero) or a bundle sub-interface: for punt
 *      events, refreshes the member punt keys that the reader library lists
 *      (7 per member of a bundle, 1 for a sub-interface; 184 to 186); adds
 *      the interface's own OAM entry (oam_id << 16) | 28 (266 to 269, not
 *      recorded); a bundle then adds its punt key with node_id 999
 *      (187/188) and its redundancy OAM entries (189/190).
 *   4. anything else (a port or a port sub-interface): when the egress
 *      keying changed on a refresh, removes the entries under the old main,
 *      extension and (old keying clear) egress LIF keys first (not
 *      recorded); then adds the main key (191/192, when the selected LIF is
 *      nonzero), the extension key (not for sub-interfaces; 193/194), the
 *      plain extension key (not for event types 3, 4, 11, 19, 20 nor
 *      interface types 37, 78; 195/196), the egress LIF key (197/198) and,
 *      when the platform wants it, the egress punt key (199/200); then,
 *      with OAM enabled and a nonzero egress LIF, OAM keys A and B per OAM
 *      slot in use (201 to 209): added for egress-keyed interfaces, removed
 *      under the previous keys when event type 1 clears the keying, moved
 *      for the changed slots of event type 11.
 * The event's intf_info.node_id is set to 999 for the two node-999 adds and
 * restored after each.  `node`'s low 16 bits go to the IFH entry's node
 * mask.
 * Results: 0; 22 a null event (nothing done); the IFH step's failure;
 * otherwise the status of the last step that records one, whatever failed
 * before it - the key-change removals, the OAM key A operations and the
 * interface OAM entry never give the result.  Nothing is rolled back.
 * Waits: each entry's lock, one at a time, without bound. */
PMDB_EXPORT cerrno dpa_pmdb_add_all_entries(u32 ifh, pmdb_event_t *event, u32 is_bundle,
                                            i32 node);

/* Removes every entry of interface `ifh`, in this order, each in its own
 * cycle, nothing held between them:
 *   1. a bundle (bundle nonzero): the IFH and main PUNT entries of every
 *      sub-interface the reader library lists, and the bundle's own OAM
 *      entry (oam_id << 16) | 28;
 *   2. the IFH entry, whose summary gives every later key - except for
 *      event type 21, and event type 12 with ingress_lif inside the in-LIF
 *      pool bank (both bounds inclusive), which have none: only ingress_lif
 *      is known then.  Its failure: error trace 210, that status returned,
 *      nothing further removed;
 *   3. a sub-interface: one off its parent's sub_intf_count; a bundle
 *      sub-interface stops here (error trace 211) with that update's status;
 *   4. a bundle: its punt key (event trace 212) and, with LCVM redundancy,
 *      its redundancy OAM entries (213, 214); result 0 even when every one
 *      of these removals failed;
 *   5. any other interface: an active member's bundle-member key (bit 30
 *      from its bundle's egress keying) and port key (215, 216); the
 *      ingress LIF key (217/218), the egress LIF key (219), the egress punt
 *      key (220), and, for a non-sub-interface, the system port keys plain
 *      and with the egress bit (221 to 223); with OAM enabled and a nonzero
 *      egress LIF, two OAM keys per OAM slot in use (224 to 227).  The
 *      result is the status of the last removal that sets it: ingress LIF,
 *      egress LIF, egress punt, a failed plain system port, the flagged
 *      system port (for event type 21 that key is 0: 22), each slot's
 *      second OAM key.
 * Results: 22 for ifh 0 (nothing done, no trace); else as above.  Waits
 * for each removed entry's lock holder without bound (never call it while
 * holding one of them). */
PMDB_EXPORT cerrno dpa_pmdb_remove_all_entries(u32 ifh, u32 event_type, u32 ingress_lif,
                                               u32 bundle, u32 event_id);

/* Sets (add nonzero) or clears the bit of `node` in the IFH entry of `ifh`
 * when that entry is a bundle sub-interface (sub_ifh and bundle_ifh both
 * nonzero): bit node % 32 of the 16-bit node_mask, so nodes 16 to 31 (mod
 * 32) change no bit.  The entry is then stamped with event_id and the time,
 * and *mask_out (optional) gets the resulting mask (event trace 127).  Any
 * other entry is left unchanged, *mask_out unwritten, result 0.
 * Results: 0, also at once with nothing opened for ifh 0 or a node whose low
 * 16 bits are 0; open (error trace 125), lookup (126), lock (128) and
 * release failures of the cycle.  Holds the entry's lock only for this
 * change; waits for it without bound. */
PMDB_EXPORT cerrno dpa_pmdb_update_ifh_entry_nodelist(u32 ifh, i32 add, u32 event_id, u32 node,
                                                      u16 *mask_out);

/* Applies a membership event to the member's IFH entry (event->intf_info.ifh)
 * and then, when the member changed, to its bundle's
 * (event->intf_info.bundle_ifh) through dpa_pmdb_update_bundle_ifh_entry:
 *   5 join:   member_active set (the bundle counts the member in when it was
 *             clear), bundle_ifh, member_port and member_port_shift bits 0..1
 *             from the event;
 *   6 modify: the same fields, member_active untouched, the bundle's count
 *             kept (only the summary is filled);
 *   7 leave:  member_active cleared (the bundle counts the member out when
 *             it was set), the bundle fields cleared;
 *   any other type changes no entry (the summary is still filled) and
 *   gives 0 without a bundle update; so do a join of an active member and
 *   a leave of an inactive one, apart from the member's own fields.
 * Types 5 to 7 stamp the member.  With an out-of-resource callback set, a
 * join or leave also moves the member's level into or out of the bundle's
 * counters, under the bundle's lock taken while the member's is held (see
 * dpa_pmdb_set_oor_cb); failures of that step are traced (312 to 314), not
 * returned.  *summary gets sys_port, ingress_lif, egress_lif, lc_slot,
 * slot_id, npu_index from the member; port_lo, port_hi, member_port_shift
 * (the event's, or for a leave the member's before it); for a leave the
 * member's punt_data; and what the bundle update fills.  *punt_info
 * (optional) is handed to the bundle update.
 * Results: 0; 22 a null event or summary, or an event whose ifh is 0 (error
 * trace 234); open (235, with the ifh only), lookup (236), lock (238) and
 * release failures of the member's cycle, returned without a bundle update;
 * otherwise the bundle update's result - on its failure the member stays
 * changed.  The member and the bundle change in two cycles: another process
 * can see the member changed and the bundle's member_count not yet.  The
 * change is recorded in the member operation log first, so that when the
 * writer dies in between, the next member or bundle writer (or a counters
 * repair) recounts the bundle from its members.
 * Waits: first completes any change that a dead writer left in the log
 * (recounting those bundles under their slot locks), then the member's
 * entry lock, then the bundle's; each without bound. */
PMDB_EXPORT cerrno dpa_pmdb_update_ifh_entry_member(pmdb_event_t *event,
                                                    dpa_pmdb_ifh_summary_t *summary,
                                                    pmdb_punt_info_t *punt_info);

/* Counts one member in (count_in nonzero: member_count + 1, an 8-bit count,
 * so 255 wraps to 0) or out (- 1, not below 0) of the bundle's IFH entry,
 * unless keep_count is nonzero; the entry is stamped with event_id only
 * when the count changed.  Then fills *summary: bundle_egress_lif,
 * bundle_ingress_lif, sum_flags PMDB_SUM_IS_MEMBER set and
 * PMDB_SUM_EGRESS_KEY from the bundle's intf_flags (other bits kept); and
 * copies the bundle's punt_info into *punt_info (optional) when its first
 * punt word is nonzero (else database trace 231).
 * Results: 0; 22 bundle_ifh 0 or a null summary (error trace 228); open
 * (229), lookup (230), lock (233) and release failures of the cycle.  Waits
 * for the bundle's lock without bound. */
PMDB_EXPORT cerrno dpa_pmdb_update_bundle_ifh_entry(u32 bundle_ifh, i32 count_in,
                                                    i32 keep_count,
                                                    dpa_pmdb_ifh_summary_t *summary,
                                                    pmdb_punt_info_t *punt_info, u32 event_id);

/* ---- OAM entries ------------------------------------------------------------
 * One 80-byte entry per OAM key in the OAM table. */

/* Creates the OAM entry of `key` (zero-filled under its lock) or refreshes
 * the present one (database trace 157), stamps it with the event's event_id
 * and the time, and fills oam_info: with PMDB_VF_OAM the event's whole
 * oam_info; else with PMDB_VF_INTF only oam_ifh (the first nonzero of
 * sub_ifh, bundle_ifh, ifh) and oam_intf_data (oam_data_36), the rest kept;
 * else nothing.  Database trace 159 when written.  *slot (optional) gets the
 * entry's slot whenever the open succeeded, also when a later step failed:
 * it means something only with result 0.
 * Results: 0; 22 key 0 (error trace 153) or a null event (154); open (155),
 * add (156), lookup of the present key (158), lock (160) and release
 * failures of the cycle.  Waits for the entry's lock without bound. */
PMDB_EXPORT cerrno dpa_pmdb_add_oam_entry(u32 key, const pmdb_event_t *event, int *slot);

/* Removes the OAM entry of `key`: retires its lock, waiting without bound
 * for any holder (never call it while holding that lock), then removes it
 * from the table (database trace 171).
 * Results: 0; 22 key 0 (error trace 167); open (168) and lookup (169) failures
 * of the cycle, the entry and its lock untouched; the table store's status
 * of the removal (170), the entry then staying with its lock retired; a
 * release failure. */
PMDB_EXPORT cerrno dpa_pmdb_remove_oam_entry(u32 key);

/* The OAM event entry: key = event->oam.oam_key; event types 7 and 18
 * remove the entry (dpa_pmdb_remove_oam_entry; a failure writes error trace
 * 292), every other type adds or refreshes it (dpa_pmdb_add_oam_entry; error
 * trace 291); valid_flags is left to the add.  No result: failures show in
 * the traces and the table only.  A null event: error trace 290.  Any thread;
 * concurrent events of one key serialise on its entry lock. */
PMDB_EXPORT void dpa_pmdb_oam_oper(const pmdb_event_t *event);

/* ---- Out-of-resource state -------------------------------------------------
 * Kept in the intf_info of IFH entries: an interface's own oor_state (0, 1,
 * 2), and a bundle's counters of members at level 1 and 2, from which its
 * derived state follows (2 when oor_members_2 is nonzero, else 1 when
 * oor_members_1 is, else 0).  A bundle's stored oor_state rises with the
 * derived state to 1 or 2; only dpa_pmdb_set_bundle_oor_state lowers it. */

/* Records the interface's own state (oor_state, oor_reason, oor_changes + 1,
 * oor_time) and, when its entry names a bundle, moves it from its old level
 * to the new one in the bundle's counters under the bundle's lock (taken
 * while the member's is held, released first), raising the bundle's stored
 * state when the derived state rises to 1 or 2.  A counter already 0 is not
 * decremented (error trace 293 or 294; not a failure).  Reports through the
 * out-parameters, never through the callback: *changed_out 0 when the
 * bundle's derived state stayed, else *bundle_ifh_out, *bundle_slot_out,
 * *bundle_state_out (the new derived state) and *changed_out 1.  They are
 * left as the caller set them on every other path: an entry that is neither
 * an interface nor a sub-interface (event trace 299), a state equal to the
 * present one, an interface without a bundle, every failure.
 * Results: 0; 22 a null out-parameter (nothing done, no trace); open (error
 * trace 295, status only), member lookup (296; ifh 0 is looked up like any
 * key), member lock (297); bundle lookup (301) or lock (302), the member's
 * new state then staying recorded and the bundle's counters out of step
 * with it; release.  Recorded in the member operation log like
 * dpa_pmdb_update_ifh_entry_member, and waits as it does. */
PMDB_EXPORT cerrno dpa_pmdb_update_bundle_oor_state(u32 ifh, u32 state, u32 reason,
                                                    u32 *bundle_ifh_out, u32 *bundle_state_out,
                                                    u32 *changed_out, u32 *bundle_slot_out);

/* Sets the stored state of the IFH entry of `ifh` (in practice a bundle):
 * oor_state, oor_reason, oor_changes + 1 and oor_time, even when the state
 * does not change; *slot_out gets the entry's slot (event trace 310).  The
 * counters are not touched and the callback is not called.
 * Results: 0; 22 a null slot_out (nothing done), or state 0 while both
 * counters are nonzero (error trace 309; the entry unchanged); open (306,
 * status only), lookup (307), lock (308) and release failures of the cycle.
 * Waits for the entry's lock without bound. */
PMDB_EXPORT cerrno dpa_pmdb_set_bundle_oor_state(u32 ifh, i32 state, u32 reason, u32 *slot_out);

/* Sets (null clears) this process's out-of-resource callback; event trace
 * 318.  It is called on the thread of the operation, as
 *   (removed ifh, its slot, 0, 1) by the library's IFH entry removal before
 *       the entry changes, with write access held and no slot lock;
 *   (bundle ifh, bundle slot, new derived state, 0) when a member's join or
 *       leave, or a counters recount, changes a bundle's derived state:
 *       after the bundle's lock is released, while the member's lock and
 *       write access may still be held.
 * The callback must not take the slot locks of that member or bundle, nor
 * change their entries.  Set it before the first event; the pointer is
 * stored whole, and an operation already running may still call the one it
 * replaced. */
PMDB_EXPORT void dpa_pmdb_set_oor_cb(dpa_pmdb_oor_cb_t cb);

/* ---- Node inventory and scale ----------------------------------------------
 * The inventory list is process-local: one heap entry per node, newest at
 * the head, no lock (one caller at a time per process).  The scale and
 * inventory node values live in the globals block of the IFH region and
 * are read in place by every process; they are plain words written without
 * an entry lock, writers in different processes are not coordinated, and
 * a reader may see the mask and the node id of different updates. */

/* The head of this process's inventory list, null when empty.  The entries
 * belong to the list; one stays valid until its node is removed. */
PMDB_EXPORT pm_port_inv_entry_t *pm_port_inv_entry_get(void);

/* Adds a node at the head of the list (event trace 110 for the first entry,
 * 111 after), with its MAC from the platform (zeros when the platform knows
 * none).  A listed node keeps its index and scale flag; only its MAC is
 * asked for again, and its entry is returned.  Returns the entry, or null
 * when it could not be allocated (no trace; the list unchanged).  Does not
 * touch the globals. */
PMDB_EXPORT pm_port_inv_entry_t *pm_port_inv_entry_add(u32 node_id, i32 node_index,
                                                       u8 npu_index, u8 high_scale);

/* Unlinks the node's entry, moves every BVI entry of the IFH table that
 * names the node to the node now at the head of the list and tells the AIB
 * update callback (see dpa_pmdb_set_aib_update_cb), then frees the entry.
 * Returns 0, also for a node that is not listed (nothing done); the
 * refresh's failures are traced only (104 to 106 and the points of
 * dpa_bvi_upd_all_entries).  Waits: the refresh reads the IFH table through
 * the reader library and takes each BVI entry's lock in turn, one at a
 * time.  Does not touch the globals. */
PMDB_EXPORT cerrno pm_port_inv_entry_remove(u32 node_id);

/* The first node of the list with a nonzero scale flag.  Results: 0 and
 * *node_id (event trace 107); 2 none (the list empty or without one;
 * *node_id unchanged, no trace); 22 a null node_id. */
PMDB_EXPORT cerrno pm_inventory_get_first_high_scale_nodeid(u32 *node_id);

/* The first node of the list with a nonzero id.  Results: 0, *node_id and
 * the node's 6-byte MAC in mac (event trace 109); 2 none (no trace; both
 * unchanged); 22 a null argument. */
PMDB_EXPORT cerrno pm_inventory_get_first_inv_nodeid(u32 *node_id, u8 *mac);

/* The high-scale values of the IFH region's globals.  add nonzero with a
 * nonzero high_scale: the node becomes hs_node_id and its bit (node_index &
 * 31) is set in hs_node_mask (event trace 114); with high_scale 0 nothing
 * is opened or changed (event trace 112).  add 0: the node's bit is cleared
 * whatever high_scale says; when the node held the role, the first
 * high-scale node of this process's list takes it over (event trace 117).
 * hdl: the caller's IFH handle, open with write intent (its open covers the
 * call: nothing is opened or released), or null (the call opens and
 * releases the IFH type itself).
 * Results: 0; 2 a removal of the role's node with no high-scale node left
 * in the list (event trace 116; hs_node_id keeps the removed node); the
 * open's status (error trace 113 with it); a release failure. */
PMDB_EXPORT cerrno dpa_pmdb_update_scale_info(u32 node_id, i32 node_index, u8 high_scale,
                                              int add, dnx_db_hdl_t *hdl);

/* The inventory node of the IFH region's globals.  add nonzero: records
 * node_id and the 6 bytes at mac when no node is recorded yet (event traces
 * 119, 120), so the first node ever added stays recorded for the life of
 * the region; else nothing.  add 0 (mac not read): acts only while no node
 * is recorded: clears the recorded MAC; then a nonzero node_id is only
 * acknowledged (event trace 121), and node_id 0 records the first node of
 * this process's list with a nonzero id (event traces 123, 124).  hdl as
 * for dpa_pmdb_update_scale_info.
 * Results: 0; 2 the remove form found no node to record (event trace 122);
 * 22 the add form with a null mac (nothing opened); the open's status
 * (error trace 118 with it); a release failure. */
PMDB_EXPORT cerrno dpa_pmdb_update_glbls_inv_node_info(u32 node_id, const u8 *mac, int add,
                                                       dnx_db_hdl_t *hdl);

/* ---- BVI refresh -----------------------------------------------------------
 * When a node leaves the inventory list (pm_port_inv_entry_remove), the IFH
 * entries of BVI interfaces (intf_type 78) that name it are collected by a
 * walk of the reader library and moved one by one to the node at the head
 * of the list; no lock is held from one entry to the next. */

/* Sets (null clears) this process's AIB update callback: called by the
 * refresh as (handles, status, count) once every collected entry was
 * rewritten and the last rewrite gave 0; otherwise, and when nothing was
 * collected, error trace 106 instead.  status[i] is always 0 (the array
 * starts zeroed and a rewrite writes only 0), so it does not tell a failed
 * rewrite from a done one.  Both arrays live for the call only.  Called on
 * the removing thread with no lock and no write access held.  A plain
 * variable without a lock and without a trace: set it before the first
 * event, from one thread. */
PMDB_EXPORT void dpa_pmdb_set_aib_update_cb(dpa_pmdb_aib_update_cb_t cb);

/* The refresh's filter for the reader library's walk (dpa_pmdb_iterate):
 * collects the key of an IFH entry with a nonzero ifh, intf_type 78 and
 * intf_info.node_id equal to the context's node_id into
 * handles[count++].  Returns 22 for every entry it examined, collected or
 * not, so that the walk goes on, and 17 once count has reached capacity
 * (the entry is not examined).  A null entry or context, or a context
 * without its handle array: 22, nothing written.  arg1 and arg3 are not
 * used.  Reads only the entry; one context belongs to one walk. */
PMDB_EXPORT int dpa_pm_get_bvi_adj_cb(void *arg1, const pmdb_ifh_entry_t *entry, void *arg3,
                                      void *ctx);

/* Moves the IFH entry of `ifh` to the node at the head of this process's
 * inventory list (intf_info.node_id and node_mac; database trace 102) and
 * sets *status to 0; with an empty list nothing changes and *status keeps
 * its value.  The entry's type is not checked, and event_id and
 * last_update stay: a node move is not an event.
 * Results: 0, also with an empty list; 22 a null status (nothing done, no
 * trace) or ifh 0 (error trace 99); open (100), lookup (101), lock (103)
 * and release failures of the cycle.  Waits for the entry's lock without
 * bound; reads the list without a lock. */
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
