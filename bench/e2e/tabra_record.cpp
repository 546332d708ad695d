// tabra_record.cpp - a recording wrapper around the host table store, for the
// end-to-end benchmark only.  Preloaded into one replay process (never into a
// timed one), it forwards every call to the table store and writes, for each
// write window of a table, the entry changes the library made in it:
//
//   window: 'W', u16 count, then count times
//           u8 type, u8 removed, u32 key, u16 len, len bytes (the entry as
//           the window left it; no bytes for a removal)
//   phase:  'P', u8 phase   (written by e2e_record_phase)
//
// When every change opens and releases write access, a window is one change
// cycle of the library, so a window is one entry change to apply elsewhere.
// An entry handed out in a window but left byte for byte as it was is not a
// change and is left out; a key removed last in its window is a removal.
//
// The file is E2E_RECORD_FILE.  State is process-local and unlocked: the
// replay process applies its stream from one thread.
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "tabra.h"

namespace {

constexpr int kTables = 3;

struct touched {
    u32 key;
    bool removed;
    const void *entry;        // where the entry lives (null for a removal)
    std::vector<u8> before;   // its bytes when the window handed it out
};

struct table_state {
    tabra_hdl_t hdl = nullptr;
    u32 entry_size = 0;
    u8 type = 0;
    bool window = false;
    std::vector<touched> ops;
};

table_state g_tables[kTables];
FILE *g_out;

template <class F>
F next_fn(const char *name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

FILE *out() {
    if (g_out == nullptr) {
        const char *path = getenv("E2E_RECORD_FILE");
        g_out = fopen(path != nullptr ? path : "/dev/null", "wb");
    }
    return g_out;
}

/* The state of a table handle; the type follows from the entry size. */
table_state *state_of(tabra_hdl_t t) {
    for (table_state &s : g_tables)
        if (s.hdl == t) return &s;
    tabra_info_t info{};
    static auto info_fn = next_fn<cerrno (*)(tabra_hdl_t, tabra_info_t *)>("tabra_get_info");
    if (info_fn == nullptr || info_fn(t, &info) != 0) return nullptr;
    const u8 type = info.entry_size == PMDB_IFH_ENTRY_SIZE    ? 0
                    : info.entry_size == PMDB_PUNT_ENTRY_SIZE ? 1
                                                              : 2;
    table_state &s = g_tables[type];
    s.hdl = t;
    s.entry_size = info.entry_size;
    s.type = type;
    return &s;
}

/* Notes what the window did to `key`: handed out `entry` (fresh: just
 * added, a change whatever its bytes), or removed it. */
void note(tabra_hdl_t t, u32 key, const void *entry, bool fresh) {
    table_state *s = state_of(t);
    if (s == nullptr || !s->window) return;
    touched op{key, entry == nullptr, entry, {}};
    if (entry != nullptr && !fresh) {
        const u8 *p = static_cast<const u8 *>(entry);
        op.before.assign(p, p + s->entry_size);
    }
    s->ops.push_back(std::move(op));
}

/* True when the window only looked at `key`: its first handing out was of
 * an existing entry and the entry ends as it was then. */
bool unchanged(const table_state *s, const touched &last) {
    for (const touched &op : s->ops) {
        if (op.key != last.key) continue;
        return !op.removed && !op.before.empty() &&
               memcmp(last.entry, op.before.data(), s->entry_size) == 0;
    }
    return false;
}

template <class T>
void put(const T &v) {
    fwrite(&v, sizeof v, 1, out());
}

/* Writes the window's changes: per key, the last thing done to it. */
void flush(table_state *s) {
    std::vector<const touched *> changed;
    std::vector<u32> decided;
    for (size_t i = s->ops.size(); i-- > 0;) {
        const touched &op = s->ops[i];
        if (std::find(decided.begin(), decided.end(), op.key) != decided.end()) continue;
        decided.push_back(op.key);
        if (op.removed || !unchanged(s, op)) changed.push_back(&op);
    }
    if (!changed.empty()) {
        put('W');
        put(static_cast<u16>(changed.size()));
        for (const touched *c : changed) {
            const u16 len = c->removed ? 0 : static_cast<u16>(s->entry_size);
            put(s->type);
            put(static_cast<u8>(c->removed));
            put(c->key);
            put(len);
            if (len != 0) fwrite(c->entry, len, 1, out());
        }
    }
    s->ops.clear();
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) void e2e_record_phase(int phase) {
    put('P');
    put(static_cast<u8>(phase));
    fflush(out());
}

__attribute__((visibility("default"))) cerrno tabra_add_entry(tabra_hdl_t t, u32 key,
                                                              void **entry, i32 *slot) {
    static auto fn = next_fn<cerrno (*)(tabra_hdl_t, u32, void **, i32 *)>("tabra_add_entry");
    const cerrno st = fn(t, key, entry, slot);
    if ((st == 0 || st == TABRA_E_EXISTS) && entry != nullptr && *entry != nullptr)
        note(t, key, *entry, st == 0);
    return st;
}

__attribute__((visibility("default"))) cerrno tabra_get_entry_by_key(tabra_hdl_t t, u32 key,
                                                                     void **entry, i32 *slot) {
    static auto fn =
        next_fn<cerrno (*)(tabra_hdl_t, u32, void **, i32 *)>("tabra_get_entry_by_key");
    const cerrno st = fn(t, key, entry, slot);
    if (st == 0 && entry != nullptr && *entry != nullptr) note(t, key, *entry, false);
    return st;
}

__attribute__((visibility("default"))) cerrno tabra_remove_entry(tabra_hdl_t t, u32 flags,
                                                                 u32 key) {
    static auto fn = next_fn<cerrno (*)(tabra_hdl_t, u32, u32)>("tabra_remove_entry");
    const cerrno st = fn(t, flags, key);
    if (st == 0) note(t, key, nullptr, false);
    return st;
}

__attribute__((visibility("default"))) cerrno tabra_make_shm_writable(tabra_hdl_t t,
                                                                      const tabra_params_t *p) {
    static auto fn =
        next_fn<cerrno (*)(tabra_hdl_t, const tabra_params_t *)>("tabra_make_shm_writable");
    const cerrno st = fn(t, p);
    table_state *s = st == 0 ? state_of(t) : nullptr;
    if (s != nullptr) s->window = true;
    return st;
}

__attribute__((visibility("default"))) cerrno tabra_make_shm_readonly_protected(
    tabra_hdl_t t, const tabra_params_t *p) {
    static auto fn = next_fn<cerrno (*)(tabra_hdl_t, const tabra_params_t *)>(
        "tabra_make_shm_readonly_protected");
    table_state *s = state_of(t);
    if (s != nullptr && s->window) flush(s);
    if (s != nullptr) s->window = false;
    return fn(t, p);
}

}  // extern "C"
