/*
 * identity.cpp - host platform identity: this node's id, whether it is a
 * route processor running the data path, and node MAC addresses.
 *
 * MAC of (node, unit) by default: 02:<node id, 4 bytes big-endian>:<unit>, a
 * locally administered unicast address that differs for every node and unit.
 * A node may be given one MAC for all its units, by PMDB_NODE_MAC
 * ("node=aa:bb:cc:dd:ee:ff,...") or by platform_host_set_node_mac.
 *
 * Concurrency contract: `g_rp_over`/`g_rp_set` and `g_node_id_set` follow
 * the value-then-flag release/acquire pattern of the system properties.  The
 * MAC override table is read and written only under `g_mac_lock`.
 * `pmdb_node_id` is a plain global (the library reads it without a lock);
 * it is written at load and by platform_host_set_node_id/reset only.
 */
#include <inttypes.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>

#include "host/host_internal.h"
#include "host/pm_fault.h"
#include "host/settings.h"
#include "platform_id.h"

namespace {

constexpr const char *kRpEnv = "PMDB_RP_PLUS_DATAPATH";
constexpr const char *kNodeIdEnv = "PMDB_NODE_ID";
constexpr const char *kNodeMacEnv = "PMDB_NODE_MAC";
constexpr uint32_t kDefaultNodeId = 1;
constexpr size_t kMacOverrides = 32;
constexpr uint32_t kEinval = 22;

std::atomic<int> g_rp_over{0};
std::atomic<bool> g_rp_set{false};

uint32_t g_node_id_at_load = kDefaultNodeId;
pmdb_setting_source_t g_node_id_src = PMDB_SETTING_DEFAULT;
std::atomic<bool> g_node_id_set{false};

struct mac_override {
    uint32_t node;
    uint8_t mac[6];
    bool used;
};

pthread_mutex_t g_mac_lock = PTHREAD_MUTEX_INITIALIZER;
mac_override g_macs[kMacOverrides];

__attribute__((constructor)) void load_node_id() {
    int64_t v = 0;
    if (pmdb_host_env_i64(kNodeIdEnv, &v) && v >= 0 && v <= UINT32_MAX) {
        g_node_id_at_load = (uint32_t)v;
        g_node_id_src = PMDB_SETTING_ENV;
    }
    pmdb_node_id = g_node_id_at_load;
}

/* Parses "aa:bb:cc:dd:ee:ff"; true on success. */
bool parse_mac(const char *text, uint8_t mac[6]) {
    unsigned b[6];
    char tail = 0;
    if (sscanf(text, "%2x:%2x:%2x:%2x:%2x:%2x%c", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5],
               &tail) != 6) {
        return false;
    }
    for (int i = 0; i < 6; i++) mac[i] = (uint8_t)b[i];
    return true;
}

bool setter_mac(uint32_t node, uint8_t mac[6]) {
    bool found = false;
    pthread_mutex_lock(&g_mac_lock);
    for (const mac_override &o : g_macs) {
        if (o.used && o.node == node) {
            memcpy(mac, o.mac, 6);
            found = true;
        }
    }
    pthread_mutex_unlock(&g_mac_lock);
    return found;
}

bool env_mac(uint32_t node, uint8_t mac[6]) {
    char key[16];
    char text[32];
    snprintf(key, sizeof key, "%" PRIu32, node);
    const char *list = getenv(kNodeMacEnv);
    return list != nullptr && pmdb_host_list_find(list, key, text, sizeof text) &&
           parse_mac(text, mac);
}

pmdb_setting_source_t mac_of(uint32_t node, uint8_t unit, uint8_t mac[6]) {
    if (setter_mac(node, mac)) return PMDB_SETTING_SETTER;
    if (env_mac(node, mac)) return PMDB_SETTING_ENV;
    mac[0] = 0x02;
    mac[1] = (uint8_t)(node >> 24);
    mac[2] = (uint8_t)(node >> 16);
    mac[3] = (uint8_t)(node >> 8);
    mac[4] = (uint8_t)node;
    mac[5] = unit;
    return PMDB_SETTING_DEFAULT;
}

pmdb_setting_source_t rp_value(int *value) {
    int64_t v = 0;
    if (g_rp_set.load(std::memory_order_acquire)) {
        *value = g_rp_over.load(std::memory_order_relaxed);
        return PMDB_SETTING_SETTER;
    }
    if (pmdb_host_env_i64(kRpEnv, &v)) {
        *value = (int)v;
        return PMDB_SETTING_ENV;
    }
    *value = 0;
    return PMDB_SETTING_DEFAULT;
}

/* Distinct node ids, in the order first added. */
struct node_set {
    uint32_t node[kMacOverrides * 2];
    size_t n;
    void add(uint32_t id) {
        for (size_t i = 0; i < n; i++) {
            if (node[i] == id) return;
        }
        if (n < sizeof node / sizeof node[0]) node[n++] = id;
    }
};

void emit_mac(pmdb_setting_fn fn, void *ctx, uint32_t node) {
    uint8_t m[6];
    const pmdb_setting_source_t src = mac_of(node, 0, m);
    char name[sizeof(pmdb_host_setting_t::name)];
    char value[32];
    snprintf(name, sizeof name, "identity.node_mac.%" PRIu32, node);
    snprintf(value, sizeof value, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4],
             m[5]);
    pmdb_host_setting_emit(fn, ctx, name, value, kNodeMacEnv, src);
}

}  // namespace

extern "C" {

uint32_t pmdb_node_id = kDefaultNodeId;

int platform_am_i_rp_plus_datapath(void) {
    int64_t fault = 0;
    if (pm_fault_enter("platform_am_i_rp_plus_datapath", &fault, 0, 0, 0, 0)) return (int)fault;
    int value = 0;
    rp_value(&value);
    return value;
}

uint32_t platform_get_amba_mac(uint32_t node_id, uint8_t npu_index, uint8_t *mac, int flags) {
    int64_t fault = 0;
    if (pm_fault_enter("platform_get_amba_mac", &fault, node_id, npu_index, (uint64_t)flags, 0)) {
        return (uint32_t)fault;
    }
    if (mac == nullptr) return kEinval;
    mac_of(node_id, npu_index, mac);
    return 0;
}

void platform_host_set_rp_plus_datapath(int on) {
    g_rp_over.store(on, std::memory_order_relaxed);
    g_rp_set.store(true, std::memory_order_release);
}

void platform_host_set_node_id(uint32_t node_id) {
    pmdb_node_id = node_id;
    g_node_id_set.store(true, std::memory_order_release);
}

int platform_host_set_node_mac(uint32_t node, const uint8_t mac[6]) {
    if (mac == nullptr) return -1;
    int rc = -1;
    pthread_mutex_lock(&g_mac_lock);
    mac_override *slot = nullptr;
    for (mac_override &o : g_macs) {
        if (o.used && o.node == node) slot = &o;
    }
    for (mac_override &o : g_macs) {
        if (slot == nullptr && !o.used) slot = &o;
    }
    if (slot != nullptr) {
        slot->node = node;
        memcpy(slot->mac, mac, 6);
        slot->used = true;
        rc = 0;
    }
    pthread_mutex_unlock(&g_mac_lock);
    return rc;
}

void platform_host_reset(void) {
    g_rp_set.store(false, std::memory_order_release);
    g_node_id_set.store(false, std::memory_order_release);
    pmdb_node_id = g_node_id_at_load;
    pthread_mutex_lock(&g_mac_lock);
    memset(g_macs, 0, sizeof g_macs);
    pthread_mutex_unlock(&g_mac_lock);
}

void pmdb_host_identity_settings(pmdb_setting_fn fn, void *ctx) {
    int rp = 0;
    const pmdb_setting_source_t rp_src = rp_value(&rp);
    char value[32];
    snprintf(value, sizeof value, "%d", rp);
    pmdb_host_setting_emit(fn, ctx, "identity.rp_plus_datapath", value, kRpEnv, rp_src);

    const bool changed = g_node_id_set.load(std::memory_order_acquire) ||
                         pmdb_node_id != g_node_id_at_load;
    snprintf(value, sizeof value, "%" PRIu32, pmdb_node_id);
    pmdb_host_setting_emit(fn, ctx, "identity.node_id", value, kNodeIdEnv,
                           changed ? PMDB_SETTING_SETTER : g_node_id_src);

    /* This node's MAC, then every node given a MAC by a setter or by
     * PMDB_NODE_MAC, each once. */
    node_set nodes{};
    nodes.add(pmdb_node_id);
    pthread_mutex_lock(&g_mac_lock);
    for (const mac_override &o : g_macs) {
        if (o.used) nodes.add(o.node);
    }
    pthread_mutex_unlock(&g_mac_lock);
    pmdb_host_list_keys(
        getenv(kNodeMacEnv),
        [](void *c, const char *k) {
            char *end = nullptr;
            const unsigned long node = strtoul(k, &end, 0);
            if (*end == '\0' && node <= UINT32_MAX) static_cast<node_set *>(c)->add((uint32_t)node);
        },
        &nodes);
    for (size_t i = 0; i < nodes.n; i++) emit_mac(fn, ctx, nodes.node[i]);
}

}  // extern "C"
