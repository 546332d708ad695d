// Record layouts checked at run time against the documented tables: every
// field at its documented offset with its documented width, and the fields of
// each table tiling the record exactly (no undocumented padding or overlap).
#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

#include "pmdb.h"

namespace {

struct Field {
    const char *name;
    size_t actual_offset;
    size_t actual_width;
    size_t offset;  // documented
    size_t width;   // documented
};

#define F(type, member, off, width) \
    Field { #member, offsetof(type, member), sizeof(((type *)nullptr)->member), off, width }

/* fields must tile [0, end); end defaults to the whole record. */
void ExpectTable(const char *record, size_t record_size, size_t documented_size,
                 const std::vector<Field> &fields, size_t end_of_fields = 0) {
    if (end_of_fields == 0) end_of_fields = documented_size;
    SCOPED_TRACE(record);
    EXPECT_EQ(record_size, documented_size);
    size_t end = 0;
    for (const Field &f : fields) {
        EXPECT_EQ(f.actual_offset, f.offset) << f.name;
        EXPECT_EQ(f.actual_width, f.width) << f.name;
        EXPECT_EQ(f.offset, end) << f.name << " does not follow the previous field";
        end = f.offset + f.width;
    }
    EXPECT_EQ(end, end_of_fields) << "fields do not cover the record";
}

TEST(Layout, SharedContextRegion) {
    ExpectTable("dnx_pmdb_glbls_t", sizeof(dnx_pmdb_glbls_t), 24,
                {F(dnx_pmdb_glbls_t, hs_node_mask, 0, 4), F(dnx_pmdb_glbls_t, hs_node_id, 4, 4),
                 F(dnx_pmdb_glbls_t, inv_node_id, 8, 4), F(dnx_pmdb_glbls_t, inv_node_mac, 12, 6),
                 F(dnx_pmdb_glbls_t, pad, 18, 6)});
    ExpectTable("dnx_pmdb_shrd_ctx_t", sizeof(dnx_pmdb_shrd_ctx_t), 2621472,
                {F(dnx_pmdb_shrd_ctx_t, magic, 0, 4), F(dnx_pmdb_shrd_ctx_t, pad0, 4, 4),
                 F(dnx_pmdb_shrd_ctx_t, entry_lock, 8, 65536 * 40),
                 F(dnx_pmdb_shrd_ctx_t, glbls, 0x280008, 24)});
    EXPECT_EQ(offsetof(dnx_pmdb_shrd_ctx_t, entry_lock[65535]), 8u + 40u * 65535u);
    EXPECT_EQ(sizeof(pellin_mutex_type), 40u);
    EXPECT_EQ(PMDB_SHRD_CTX_MAGIC, 0xC0DEC0DEu);
}

TEST(Layout, TableStoreParameterRecord) {
    ExpectTable("tabra_params_t", sizeof(tabra_params_t), 56,
                {F(tabra_params_t, version, 0, 4), F(tabra_params_t, pad0, 4, 4),
                 F(tabra_params_t, table_name, 8, 8), F(tabra_params_t, open_flags, 16, 4),
                 F(tabra_params_t, tbl_param1, 20, 4), F(tabra_params_t, tbl_param2, 24, 4),
                 F(tabra_params_t, hash_buckets, 28, 4), F(tabra_params_t, hash_fn, 32, 8),
                 F(tabra_params_t, max_entries, 40, 4), F(tabra_params_t, entry_size, 44, 4),
                 F(tabra_params_t, tbl_param3, 48, 4)},
                /* the rest is the tail padding of an 8-byte-aligned record */ 52);
}

TEST(Layout, EntryRecords) {
    ExpectTable(
        "pmdb_ifh_entry_t", sizeof(pmdb_ifh_entry_t), 328,
        {F(pmdb_ifh_entry_t, key, 0, 4), F(pmdb_ifh_entry_t, member_count, 4, 1),
         F(pmdb_ifh_entry_t, reserved_5, 5, 1), F(pmdb_ifh_entry_t, sub_intf_count, 6, 2),
         F(pmdb_ifh_entry_t, ifh_flags, 8, 1), F(pmdb_ifh_entry_t, reserved_9, 9, 3),
         F(pmdb_ifh_entry_t, event_id, 12, 4), F(pmdb_ifh_entry_t, last_update, 16, 16),
         F(pmdb_ifh_entry_t, node_mask, 32, 2), F(pmdb_ifh_entry_t, reserved_34, 34, 6),
         F(pmdb_ifh_entry_t, intf_info, 40, 256), F(pmdb_ifh_entry_t, punt_info, 296, 28),
         F(pmdb_ifh_entry_t, pad_324, 324, 4)});
    ExpectTable("pmdb_punt_entry_t", sizeof(pmdb_punt_entry_t), 312,
                {F(pmdb_punt_entry_t, key, 0, 4), F(pmdb_punt_entry_t, event_id, 4, 4),
                 F(pmdb_punt_entry_t, last_update, 8, 16), F(pmdb_punt_entry_t, intf_info, 24, 256),
                 F(pmdb_punt_entry_t, punt_info, 280, 28), F(pmdb_punt_entry_t, pad_308, 308, 4)});
    ExpectTable("pmdb_punt_info_t", sizeof(pmdb_punt_info_t), 28,
                {F(pmdb_punt_info_t, ifh, 0, 4), F(pmdb_punt_info_t, intf_type, 4, 2),
                 F(pmdb_punt_info_t, reserved, 6, 2), F(pmdb_punt_info_t, punt_data, 8, 20)});
}

/* The interface block, with its offsets inside the IFH (+40) and PUNT (+24)
 * entries as the documented table gives them. */
struct IntfField {
    Field block;
    size_t ifh_actual, ifh_offset;
    size_t punt_actual, punt_offset;
};

#define IF(member, off, width, ifh_off, punt_off)                                      \
    IntfField {                                                                        \
        F(pmdb_intf_info_t, member, off, width),                                       \
            offsetof(pmdb_ifh_entry_t, intf_info.member), ifh_off,                     \
            offsetof(pmdb_punt_entry_t, intf_info.member), punt_off                    \
    }

TEST(Layout, InterfaceBlockInBothEntries) {
    const std::vector<IntfField> fields = {
        IF(ifh, 0, 4, 40, 24),
        IF(sub_ifh, 4, 4, 44, 28),
        IF(bundle_ifh, 8, 4, 48, 32),
        IF(egress_lif, 12, 4, 52, 36),
        IF(oam_id, 16, 4, 56, 40),
        IF(opaque_20, 20, 8, 60, 44),
        IF(oam_data_36, 28, 4, 68, 52),
        IF(sys_port, 32, 2, 72, 56),
        IF(opaque_34, 34, 2, 74, 58),
        IF(intf_data_44, 36, 2, 76, 60),
        IF(opaque_38, 38, 2, 78, 62),
        IF(ingress_lif, 40, 2, 80, 64),
        IF(member_port, 42, 2, 82, 66),
        IF(member_port_shift, 44, 1, 84, 68),
        IF(opaque_45, 45, 7, 85, 69),
        IF(node_id, 52, 4, 92, 76),
        IF(intf_data_64, 56, 4, 96, 80),
        IF(mac_addr, 60, 6, 100, 84),
        IF(node_mac, 66, 6, 106, 90),
        IF(npu_index, 72, 1, 112, 96),
        IF(lc_slot, 73, 1, 113, 97),
        IF(slot_id, 74, 1, 114, 98),
        IF(high_scale, 75, 1, 115, 99),
        IF(node_index, 76, 4, 116, 100),
        IF(intf_type, 80, 2, 120, 104),
        IF(intf_flags, 82, 2, 122, 106),
        IF(sub_flags, 84, 1, 124, 108),
        IF(opaque_85, 85, 7, 125, 109),
        IF(oor_members_1, 92, 2, 132, 116),
        IF(oor_members_2, 94, 2, 134, 118),
        IF(oor_state, 96, 4, 136, 120),
        IF(oor_reason, 100, 4, 140, 124),
        IF(oor_changes, 104, 4, 144, 128),
        IF(opaque_108, 108, 4, 148, 132),
        IF(oor_time, 112, 16, 152, 136),
        IF(oam_slots, 128, 128, 168, 152),
    };
    std::vector<Field> block;
    for (const IntfField &f : fields) {
        block.push_back(f.block);
        EXPECT_EQ(f.ifh_actual, f.ifh_offset) << f.block.name;
        EXPECT_EQ(f.punt_actual, f.punt_offset) << f.block.name;
    }
    ExpectTable("pmdb_intf_info_t", sizeof(pmdb_intf_info_t), 256, block);
}

TEST(Layout, OamEntry) {
    ExpectTable("pmdb_oam_entry_t", sizeof(pmdb_oam_entry_t), 80,
                {F(pmdb_oam_entry_t, key, 0, 4), F(pmdb_oam_entry_t, event_id, 4, 4),
                 F(pmdb_oam_entry_t, last_update, 8, 16), F(pmdb_oam_entry_t, oam_info, 24, 56)});
    // Named words inside oam_info, at their documented entry offsets.
    EXPECT_EQ(offsetof(pmdb_oam_entry_t, oam_info.oam_intf_data), 56u);
    EXPECT_EQ(offsetof(pmdb_oam_entry_t, oam_info.oam_ifh), 60u);
    EXPECT_EQ(offsetof(pmdb_oam_entry_t, oam_info.oam_byte_a), 64u);
    EXPECT_EQ(offsetof(pmdb_oam_entry_t, oam_info.oam_byte_b), 65u);
    EXPECT_EQ(offsetof(pmdb_oam_entry_t, oam_info.oam_word), 68u);
}

TEST(Layout, EventRecordReadings) {
    EXPECT_EQ(sizeof(pmdb_event_t), 264u);
    EXPECT_EQ(offsetof(pmdb_event_t, event_type), 0u);
    EXPECT_EQ(offsetof(pmdb_event_t, valid_flags), 1u);
    EXPECT_EQ(offsetof(pmdb_event_t, event_id), 4u);
    EXPECT_EQ(offsetof(pmdb_event_t, body), 8u);
    EXPECT_EQ(sizeof(((pmdb_event_t *)nullptr)->body), 256u);
    // The three readings of the body share its start.
    EXPECT_EQ(offsetof(pmdb_event_t, intf_info), 8u);
    EXPECT_EQ(offsetof(pmdb_event_t, punt_info.ifh), 8u);
    EXPECT_EQ(offsetof(pmdb_event_t, punt_info.intf_type), 12u);
    EXPECT_EQ(offsetof(pmdb_event_t, punt_info.punt_data), 16u);
    EXPECT_EQ(offsetof(pmdb_event_t, oam.oam_key), 8u);
    EXPECT_EQ(offsetof(pmdb_event_t, oam.oam_info), 16u);
    // The OAM body is copied to the entry at event offset + 8.
    EXPECT_EQ(offsetof(pmdb_event_t, oam.oam_info) + 8, offsetof(pmdb_oam_entry_t, oam_info));
    // The OAM path reads the u32 at event offset 36 of an interface body.
    EXPECT_EQ(offsetof(pmdb_event_t, intf_info.oam_data_36), 36u);
    // The punt reading's intf_flags check reads the interface reading's place.
    EXPECT_EQ(offsetof(pmdb_event_t, intf_info.intf_flags), 90u);
}

TEST(Layout, BviCollectionContext) {
    ExpectTable("dpa_pm_bvi_adj_ctx_t", sizeof(dpa_pm_bvi_adj_ctx_t), 56,
                {F(dpa_pm_bvi_adj_ctx_t, first_word, 0, 4),
                 F(dpa_pm_bvi_adj_ctx_t, reserved_4, 4, 4), F(dpa_pm_bvi_adj_ctx_t, count, 8, 4),
                 F(dpa_pm_bvi_adj_ctx_t, capacity, 12, 4),
                 F(dpa_pm_bvi_adj_ctx_t, handles, 16, 8),
                 F(dpa_pm_bvi_adj_ctx_t, reserved_24, 24, 4),
                 F(dpa_pm_bvi_adj_ctx_t, node_id, 28, 4),
                 F(dpa_pm_bvi_adj_ctx_t, reserved_32, 32, 24)});
}

TEST(Layout, TimestampsAreTwoSigned64BitWords) {
    EXPECT_EQ(sizeof(struct timespec), 16u);
    EXPECT_EQ(sizeof(((struct timespec *)nullptr)->tv_sec), 8u);
    EXPECT_EQ(offsetof(struct timespec, tv_nsec), 8u);
}

}  // namespace
