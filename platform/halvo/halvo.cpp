/*
 * halvo.cpp - host system properties: each property has a default, an
 * environment variable, and an in-process override set by halvo_host_set.
 * Also the enumeration of all host settings and the small parsing helpers
 * the other host services share.
 *
 * The environment is read once per property and kept: the library asks for
 * the maximum entries at every change of write protection, twice per entry
 * change, and getenv walks the whole environment each time.  A process that
 * changes its environment afterwards calls halvo_host_reload_env (or
 * halvo_host_reset, which also drops the overrides); a forked child keeps
 * its parent's values, as it keeps its environment.
 *
 * Concurrency contract: each property's override is one atomic pair; `set`
 * (release) is stored after `value` (relaxed) and read with acquire before
 * it, so a reader that sees the flag sees the value.  The environment cache
 * follows the same rule with `state`.  Two threads that read an unread
 * property both store what they read; a reload racing with a first read may
 * keep the value read before it.  No lock is taken; environment reads race
 * with setenv in other threads as getenv always does.
 */
#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>

#include "halvo.h"
#include "host/host_internal.h"
#include "host/pm_fault.h"
#include "host/settings.h"

namespace {

enum property : int {
    P_MAX_ENTRIES,
    P_LCVM_REDUNDANCY,
    P_NEED_EGRESS_PUNT,
    P_OAM_ENABLE,
    P_BANK25_MIN,
    P_BANK25_MAX,
    P_MAX_SUBINTF_VLOB,
    P_COUNT
};

struct property_def {
    const char *name; /* setting name without the "halvo." prefix */
    const char *call; /* platform call, also its fault-injection name */
    const char *env;
    int64_t def;
};

const property_def kProps[P_COUNT] = {
    {"max_entries", "halvo_config_get_port_mapper_max_entries", "PMDB_MAX_ENTRIES", 65536},
    {"lcvm_redundancy", "halvo_config_get_lcvm_redundancy_on", "PMDB_LCVM_REDUNDANCY", 0},
    {"need_egress_punt", "halvo_config_get_need_egress_punt_pm_entry", "PMDB_NEED_EGRESS_PUNT",
     0},
    {"oam_enable", "halvo_oam_get_oam_enable", "PMDB_OAM_ENABLE", 1},
    {"inlif_bank25_min", "halvo_grid_get_inlif_res_pool_bank_25_min", "PMDB_INLIF_BANK25_MIN", 1},
    {"inlif_bank25_max", "halvo_grid_get_inlif_res_pool_bank_25_max", "PMDB_INLIF_BANK25_MAX", 0},
    {"max_subintf_vlob", "halvo_intf_get_max_subintf_vlob", "PMDB_MAX_SUBINTF_VLOB", 1024},
};

struct property_override {
    std::atomic<int64_t> value{0};
    std::atomic<bool> set{false};
};

property_override g_over[P_COUNT];

enum env_state : int { ENV_UNREAD, ENV_ABSENT, ENV_VALUE };

struct env_cache {
    std::atomic<int64_t> value{0};
    std::atomic<int> state{ENV_UNREAD};
};

env_cache g_env[P_COUNT];

/* The property's environment value, read on the first call after load or
 * reload; false when the variable is unset or not a number. */
bool env_value(property p, int64_t *value) {
    int state = g_env[p].state.load(std::memory_order_acquire);
    if (state == ENV_UNREAD) {
        int64_t v = 0;
        state = pmdb_host_env_i64(kProps[p].env, &v) ? ENV_VALUE : ENV_ABSENT;
        g_env[p].value.store(v, std::memory_order_relaxed);
        g_env[p].state.store(state, std::memory_order_release);
    }
    *value = g_env[p].value.load(std::memory_order_relaxed);
    return state == ENV_VALUE;
}

pmdb_setting_source_t property_value(property p, int64_t *value) {
    if (g_over[p].set.load(std::memory_order_acquire)) {
        *value = g_over[p].value.load(std::memory_order_relaxed);
        return PMDB_SETTING_SETTER;
    }
    if (env_value(p, value)) return PMDB_SETTING_ENV;
    *value = kProps[p].def;
    return PMDB_SETTING_DEFAULT;
}

/* The platform call: fault injection first, then the value in force. */
int64_t property_call(property p) {
    int64_t value = 0;
    if (pm_fault_enter(kProps[p].call, &value, 0, 0, 0, 0)) return value;
    property_value(p, &value);
    return value;
}

int property_by_name(const char *name) {
    if (strncmp(name, "halvo.", 6) == 0) name += 6;
    for (int p = 0; p < P_COUNT; p++) {
        if (strcmp(name, kProps[p].name) == 0 || strcmp(name, kProps[p].call) == 0) return p;
    }
    return -1;
}

void halvo_settings(pmdb_setting_fn fn, void *ctx) {
    for (int p = 0; p < P_COUNT; p++) {
        int64_t v = 0;
        const pmdb_setting_source_t src = property_value((property)p, &v);
        char name[sizeof(pmdb_host_setting_t::name)];
        char value[32];
        snprintf(name, sizeof name, "halvo.%s", kProps[p].name);
        snprintf(value, sizeof value, "%" PRId64, v);
        pmdb_host_setting_emit(fn, ctx, name, value, kProps[p].env, src);
    }
}

/* Calls item(ctx, key, klen, value, vlen) for each "key=value" item of a
 * comma-separated list until it returns true; items without '=' are skipped. */
template <class Fn>
void list_each(const char *list, Fn item) {
    for (const char *p = list; p != nullptr && *p != '\0';) {
        const char *end = strchr(p, ',');
        const size_t len = end != nullptr ? (size_t)(end - p) : strlen(p);
        const char *eq = (const char *)memchr(p, '=', len);
        if (eq != nullptr && item(p, (size_t)(eq - p), eq + 1, len - (size_t)(eq - p) - 1)) return;
        p += len + (end != nullptr ? 1 : 0);
    }
}

}  // namespace

extern "C" {

uint32_t halvo_config_get_port_mapper_max_entries(void) {
    return (uint32_t)property_call(P_MAX_ENTRIES);
}

int halvo_config_get_lcvm_redundancy_on(void) { return (int)property_call(P_LCVM_REDUNDANCY); }

int halvo_config_get_need_egress_punt_pm_entry(void) {
    return (int)property_call(P_NEED_EGRESS_PUNT);
}

int halvo_oam_get_oam_enable(void) { return (int)property_call(P_OAM_ENABLE); }

uint32_t halvo_grid_get_inlif_res_pool_bank_25_min(void) {
    return (uint32_t)property_call(P_BANK25_MIN);
}

uint32_t halvo_grid_get_inlif_res_pool_bank_25_max(void) {
    return (uint32_t)property_call(P_BANK25_MAX);
}

uint32_t halvo_intf_get_max_subintf_vlob(void) {
    return (uint32_t)property_call(P_MAX_SUBINTF_VLOB);
}

int halvo_host_set(const char *name, int64_t value) {
    const int p = name != nullptr ? property_by_name(name) : -1;
    if (p < 0) return -1;
    g_over[p].value.store(value, std::memory_order_relaxed);
    g_over[p].set.store(true, std::memory_order_release);
    return 0;
}

void halvo_host_reload_env(void) {
    for (env_cache &e : g_env) e.state.store(ENV_UNREAD, std::memory_order_release);
}

void halvo_host_reset(void) {
    for (property_override &o : g_over) o.set.store(false, std::memory_order_release);
    halvo_host_reload_env();
}

/* --- shared helpers ------------------------------------------------------ */

int pmdb_host_env_i64(const char *env, int64_t *out) {
    const char *text = env != nullptr ? getenv(env) : nullptr;
    if (text == nullptr || *text == '\0') return 0;
    char *end = nullptr;
    errno = 0;
    const long long v = strtoll(text, &end, 0);
    if (errno != 0 || *end != '\0') return 0;
    *out = v;
    return 1;
}

int pmdb_host_list_find(const char *list, const char *key, char *value, size_t len) {
    if (key == nullptr || value == nullptr || len == 0) return 0;
    const size_t want = strlen(key);
    int found = 0;
    list_each(list, [&](const char *k, size_t klen, const char *v, size_t vlen) {
        if (klen != want || strncmp(k, key, klen) != 0) return false;
        if (vlen < len) {
            memcpy(value, v, vlen);
            value[vlen] = '\0';
            found = 1;
        }
        return true;
    });
    return found;
}

void pmdb_host_list_keys(const char *list, void (*fn)(void *ctx, const char *key), void *ctx) {
    list_each(list, [&](const char *k, size_t klen, const char *, size_t) {
        char key[128];
        if (klen > 0 && klen < sizeof key) {
            memcpy(key, k, klen);
            key[klen] = '\0';
            fn(ctx, key);
        }
        return false;
    });
}

void pmdb_host_setting_emit(pmdb_setting_fn fn, void *ctx, const char *name, const char *value,
                            const char *env, pmdb_setting_source_t source) {
    pmdb_host_setting_t s{};
    snprintf(s.name, sizeof s.name, "%s", name);
    snprintf(s.value, sizeof s.value, "%s", value);
    snprintf(s.env, sizeof s.env, "%s", env != nullptr ? env : "");
    s.source = source;
    fn(ctx, &s);
}

const char *pmdb_setting_source_name(pmdb_setting_source_t source) {
    switch (source) {
        case PMDB_SETTING_ENV:
            return "environment";
        case PMDB_SETTING_SETTER:
            return "setter";
        default:
            return "default";
    }
}

void pmdb_host_settings_each(pmdb_setting_fn fn, void *ctx) {
    if (fn == nullptr) return;
    halvo_settings(fn, ctx);
    pmdb_host_identity_settings(fn, ctx);
    pmdb_host_os_settings(fn, ctx);
    pmdb_host_trace_settings(fn, ctx);
}

}  // extern "C"
