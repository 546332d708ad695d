// The trace point table of the port mapper database.  One row per point;
// argument names follow the order in which the library passes them.  Where a
// point repeats a value, the repeat gets a "_2" suffix so that every name of
// a row is unique.
#include "trace_points.h"

#include <algorithm>

namespace pmdbctl {
namespace {

constexpr vesk_kind_t E = VESK_ERROR;
constexpr vesk_kind_t D = VESK_DATABASE;
constexpr vesk_kind_t V = VESK_EVENT;
constexpr bool S = true;  // string record
constexpr bool N = false;

#define MAC6 "mac0", "mac1", "mac2", "mac3", "mac4", "mac5"

// clang-format off
const TracePoint kPoints[] = {
    // Shared context region and database frame.
    {51, E, "hdl_get_uninitialised", N, {}},
    {52, E, "mprotect_lock_failed", N, {}},
    {53, E, "tabra_init_failed", N, {"result"}},
    {54, E, "tabra_open_failed", N, {"result"}},
    {55, D, "table_opened", N, {"type"}},
    {56, E, "first_protect_failed", N, {"result"}},
    {57, D, "table_protected", N, {"type"}},
    {58, E, "shm_open_failed", S, {"region", "shm_size"}},
    {59, E, "shm_size_failed", S, {"region", "length"}},
    {60, E, "shm_map_failed", S, {"region", "length"}},
    {61, E, "shm_semaphore_failed", S, {"region", "shm_size"}},
    {62, D, "shm_region_mapped", S, {"region", "shm_size"}},
    {63, D, "init_entered", N, {"type"}},
    {64, E, "init_lock_failed", N, {"type", "error"}},
    {65, E, "shrd_ctx_open_failed", N, {"type", "result"}},
    {66, D, "shrd_ctx_no_magic", N, {"type"}},
    {67, E, "open_init_failed", N, {"result", "type"}},
    {68, E, "write_enable_failed", N, {"result"}},
    // Entry locks.
    {69, D, "lock_owner_dead", N, {}},
    {71, D, "lock_destroy_failed", N, {}},
    // Database frame: stale region semaphore, entry bound.
    {72, E, "shm_semaphore_stale", S, {"region", "wait_ms"}},
    {73, E, "max_entries_clamped", N, {"configured", "used"}},
    // BVI adjacency refresh.
    {99, E, "bvi_rewrite_zero_ifh", N, {}},
    {100, E, "bvi_rewrite_open_failed", N, {"ifh", "code"}},
    {101, E, "bvi_rewrite_lookup_failed", N, {"ifh", "code"}},
    {102, D, "bvi_entry_rehomed", N, {"ifh", "egress_lif", "ingress_lif"}},
    {103, E, "bvi_rewrite_lock_failed", N, {"ifh", "code"}},
    {104, E, "bvi_handles_not_allocated", N, {"hundred", "zero"}},
    {105, E, "bvi_iterate_failed", N, {"code"}},
    {106, E, "bvi_callback_not_called", N, {"count", "callback", "last_code"}},
    // Node inventory and scale information.
    {107, V, "first_high_scale_node", N, {"node_id"}},
    {109, V, "first_inventory_node", N, {"node_id", MAC6}},
    {110, V, "inventory_first_node_added", N, {"node_id", "node_index", "high_scale"}},
    {111, V, "inventory_node_added", N, {"node_id", "node_index", "high_scale"}},
    {112, V, "scale_not_high_scale", N, {}},
    {113, E, "scale_open_failed", N, {"result"}},
    {114, V, "scale_high_scale_added", N, {"hs_node_id", "hs_node_mask"}},
    {115, V, "scale_not_current_node", N, {}},
    {116, V, "scale_no_high_scale_left", N, {}},
    {117, V, "scale_role_handed_over", N, {"hs_node_id", "hs_node_mask"}},
    {118, E, "inv_node_open_failed", N, {"result"}},
    {119, V, "inv_node_recorded", N, {"inv_node_id", "inv_node_mac_addr"}},
    {120, V, "inv_node_recorded_mac", N, {"inv_node_id", MAC6}},
    {121, V, "inv_remove_other_node", N, {}},
    {122, V, "inv_remove_none_left", N, {}},
    {123, V, "inv_remove_recorded", N, {"inv_node_id", "inv_node_mac_addr"}},
    {124, V, "inv_remove_recorded_mac", N, {"inv_node_id", MAC6}},
    // Node list of an IFH entry.
    {125, E, "nodelist_open_failed", N, {"ifh", "result"}},
    {126, E, "nodelist_lookup_failed", N, {"ifh", "result"}},
    {127, V, "nodelist_updated", N, {"ifh", "egress_lif", "ingress_lif", "bundle_ifh", "node_mask"}},
    {128, E, "nodelist_lock_failed", N, {"ifh", "result"}},
    // Adding or refreshing one IFH entry, sub-interface counts.
    {129, E, "sub_count_zero_key", N, {}},
    {130, E, "sub_count_open_failed", N, {"ifh", "status"}},
    {131, E, "sub_count_lookup_failed", N, {"ifh", "status"}},
    {132, V, "sub_count_done", N, {"ifh", "egress_lif", "ingress_lif"}},
    {133, E, "sub_count_lock_failed", N, {"ifh", "status"}},
    // Adding and removing one PUNT entry.
    {134, E, "punt_add_zero_key", N, {}},
    {135, E, "punt_add_no_event", N, {"key", "zero"}},
    {136, E, "punt_add_open_failed", N, {"key", "status"}},
    {137, E, "punt_add_failed", N, {"key", "status"}},
    {138, D, "punt_add_refresh", N, {"key"}},
    {139, E, "punt_add_lookup_failed", N, {"key", "status"}},
    {140, D, "punt_info_stored", N, {"punt_ifh", "key", "punt_data0"}},
    {141, E, "punt_add_lock_failed", N, {"key", "slot", "status"}},
    {142, E, "ifh_add_punt_bit5_refused", N, {}},
    {143, E, "ifh_add_zero_key", N, {}},
    {144, E, "ifh_add_open_failed", N, {"ifh", "status"}},
    {145, E, "ifh_add_failed", N, {"ifh", "status"}},
    {146, D, "ifh_add_refresh", N, {"ifh"}},
    {147, E, "ifh_add_lookup_failed", N, {"ifh", "status"}},
    {148, E, "ifh_add_lock_failed", N, {"ifh", "status"}},
    {149, D, "ifh_punt_info_stored", N, {"punt_ifh", "ifh", "punt_data0"}},
    {150, D, "ifh_entry_written", N,
     {"ifh", "egress_lif", "ingress_lif", "sys_port", "intf_data_44", "port_lo", "port_hi"}},
    {151, D, "ifh_node_recorded", N, {"ifh", "egress_lif", "ingress_lif", "bundle_ifh", "node_mask"}},
    {152, E, "ifh_aib_update_callback", N,
     {"ifh", "event_type", "stored_intf_data_64", "event_intf_data_64"}},
    // OAM entries.
    {153, E, "oam_add_zero_key", N, {}},
    {154, E, "oam_add_no_event", N, {"key", "zero"}},
    {155, E, "oam_add_open_failed", N, {"key", "result"}},
    {156, E, "oam_add_failed", N, {"key", "result"}},
    {157, D, "oam_add_refresh", N, {"key"}},
    {158, E, "oam_add_lookup_failed", N, {"key", "result"}},
    {159, D, "oam_entry_written", N, {"key", "oam_ifh", "oam_byte_a", "oam_byte_b", "oam_word"}},
    {160, E, "oam_add_lock_failed", N, {"key", "result"}},
    // Removing one IFH entry.
    {161, E, "ifh_remove_zero_ifh", N, {}},
    {162, E, "ifh_remove_open_failed", N, {"ifh", "code"}},
    {163, E, "ifh_remove_lookup_failed", N, {"ifh", "code"}},
    {164, V, "ifh_remove_found", N, {"ifh"}},
    {165, E, "ifh_remove_failed", N, {"ifh", "code"}},
    {166, D, "ifh_removed", N,
     {"ifh", "egress_lif", "ingress_lif", "sys_port", "port_lo", "port_hi", "bundle_ifh"}},
    {167, E, "oam_remove_zero_key", N, {}},
    {168, E, "oam_remove_open_failed", N, {"key", "result"}},
    {169, E, "oam_remove_not_found", N, {"key", "result"}},
    {170, E, "oam_remove_failed", N, {"key", "result"}},
    {171, D, "oam_removed", N, {"key"}},
    {172, E, "punt_remove_zero_key", N, {}},
    {173, E, "punt_remove_open_failed", N, {"key", "status"}},
    {174, E, "punt_remove_lookup_failed", N, {"key", "status"}},
    {175, D, "punt_remove_begin", N, {"key", "ifh", "sub_ifh", "bundle_ifh"}},
    {176, E, "punt_remove_failed", N, {"key", "status"}},
    {177, D, "punt_remove_done", N, {"key"}},
    // Adding all entries of an interface.
    {178, E, "add_ifh_step_failed", N, {"ifh", "event_type", "valid_flags", "status"}},
    {179, D, "add_ifh_step_done", N, {"ifh", "event_type", "valid_flags", "zero"}},
    {180, E, "add_bsub_punt_failed", N, {"key", "status"}},
    {181, D, "add_bsub_punt_done", N, {"key"}},
    {182, D, "add_bsub_redundancy_oam", N, {"i", "egress_lif", "v", "sys_port", "key"}},
    {183, E, "add_bsub_redundancy_oam_failed", N, {"key", "status"}},
    {184, D, "add_member_count_read", N, {"handle", "member_count", "is_bundle_sub_intf"}},
    {185, E, "add_member_punt_failed", N, {"ifh", "key", "status"}},
    {186, V, "add_member_punt_done", N, {"ifh", "key"}},
    {187, E, "add_bundle_punt_failed", N, {"key", "status"}},
    {188, D, "add_bundle_punt_done", N, {"key"}},
    {189, D, "add_bundle_redundancy_oam", N, {"i", "egress_lif", "v", "sys_port", "key"}},
    {190, E, "add_bundle_redundancy_oam_failed", N, {"key", "status"}},
    {191, E, "add_main_punt_failed", N, {"key", "status"}},
    {192, D, "add_main_punt_done", N, {"key"}},
    {193, E, "add_ext_punt_failed", N, {"key", "status"}},
    {194, D, "add_ext_punt_done", N, {"key"}},
    {195, D, "add_plain_ext_punt_done", N, {"key"}},
    {196, E, "add_plain_ext_punt_failed", N, {"key", "status"}},
    {197, E, "add_egress_lif_punt_failed", N, {"key", "status"}},
    {198, D, "add_egress_lif_punt_done", N, {"key", "egress_key"}},
    {199, E, "add_egress_punt_failed", N, {"key", "status"}},
    {200, D, "add_egress_punt_done", N, {"key"}},
    {201, D, "add_oam_key_a", N, {"i", "slot_bits", "oam_port", "key_a", "remove"}},
    {202, E, "add_oam_key_a_add_failed", N, {"key", "status"}},
    {203, E, "add_oam_key_a_remove_failed", N, {"key", "status"}},
    {204, E, "add_oam_key_a_readd_failed", N, {"key", "status"}},
    {205, D, "add_oam_key_b", N, {"i", "oam_port", "v", "sys_port", "key_b", "remove"}},
    {206, E, "add_oam_key_b_add_failed", N, {"key", "status"}},
    {207, E, "add_oam_key_b_remove_failed", N, {"key", "status"}},
    {208, E, "add_oam_key_d_add_failed", N, {"key", "status"}},
    {209, D, "add_oam_key_d_done", N, {"i", "oam_port", "new", "sys_port", "key_d"}},
    // Removing all entries of an interface.
    {210, E, "remove_ifh_failed", N, {"ifh", "code"}},
    {211, E, "remove_bsub_stop", N, {"ifh"}},
    {212, V, "remove_bundle_punt", N, {"ifh", "key", "code", "code_2"}},
    {213, D, "remove_bundle_oam", N, {"i", "egress_lif", "oam_slot", "i_2", "key"}},
    {214, E, "remove_bundle_oam_failed", N, {"key", "code"}},
    {215, V, "remove_member_punt", N, {"ifh", "key", "code", "code_2"}},
    {216, V, "remove_member_sys_port_punt", N, {"ifh", "key", "code", "code_2"}},
    {217, E, "remove_ingress_lif_punt_failed", N, {"bundle_egress_lif", "code"}},
    {218, V, "remove_ingress_lif_punt_done", N, {"ifh", "key", "zero", "zero_2"}},
    {219, E, "remove_egress_lif_punt_failed", N, {"key", "code"}},
    {220, E, "remove_egress_punt_failed", N, {"ingress_lif", "code"}},
    {221, E, "remove_sys_port_punt_failed", N, {"bundle_egress_lif", "code"}},
    {222, E, "remove_flagged_sys_port_punt_failed", N, {"key", "code"}},
    {223, D, "remove_flagged_sys_port_punt_done", N, {"key"}},
    {224, D, "remove_oam_first", N, {"i", "egress_lif", "s", "key"}},
    {225, E, "remove_oam_first_failed", N, {"key", "code"}},
    {226, D, "remove_oam_second", N, {"i", "egress_lif", "oam_slot", "i_2", "key"}},
    {227, E, "remove_oam_second_failed", N, {"key", "code"}},
    // Bundle and member updates of IFH entries.
    {228, E, "bundle_update_zero_ifh", N, {}},
    {229, E, "bundle_update_open_failed", N, {"bundle_ifh", "result"}},
    {230, E, "bundle_update_lookup_failed", N, {"bundle_ifh", "result"}},
    {231, D, "bundle_update_no_punt_info", N, {"bundle_ifh", "egress_key"}},
    {232, D, "bundle_updated", N,
     {"bundle_ifh", "bundle_egress_lif", "bundle_ingress_lif", "member_count"}},
    {233, E, "bundle_update_lock_failed", N, {"bundle_ifh", "result"}},
    {234, E, "member_update_no_event", N, {}},
    {235, E, "member_update_open_failed", N, {"ifh"}},
    {236, E, "member_update_lookup_failed", N, {"ifh", "result"}},
    {237, D, "member_updated", N, {"ifh", "ingress_lif", "egress_lif", "port_lo", "port_hi"}},
    {238, E, "member_update_lock_failed", N, {"ifh", "result"}},
    // Bundle member event path.
    {239, E, "member_punt_no_key", N, {}},
    {240, E, "member_punt_open_failed", N, {"result"}},
    {241, E, "member_punt_not_found", N, {"ifh", "key", "result"}},
    {242, D, "member_punt_fields_done", N, {"bundle_ifh", "ingress_lif", "event_type"}},
    {243, E, "member_punt_lock_failed", N, {"bundle_ifh", "ingress_lif", "event_type", "result"}},
    {244, V, "member_punt_op_begin", N, {"event_type", "handle", "key_lo"}},
    {245, E, "member_leave_not_active", N,
     {"event_type", "event_type_2", "member_modify", "handle", "key"}},
    {246, V, "member_punt_removed", N, {"event_type", "handle", "key", "result"}},
    {247, V, "member_punt_written", N, {"event_type", "handle", "key", "result"}},
    {248, E, "member_punt_not_join_or_modify", N,
     {"event_type", "event_type_2", "zero", "handle", "key"}},
    // Event dispatcher.
    {249, E, "member_entry_unreadable", N, {"member"}},
    {250, E, "bundle_entry_unreadable", N, {"bundle_ifh"}},
    {251, V, "member_key_written", N,
     {"member", "bundle_ifh", "egress_lif", "ingress_lif", "bundle_ifh_2", "node_id"}},
    // Bundle sub-interface walk and interface OAM entry removal.
    {252, V, "bsub_ifh_removal", N, {"event_type", "handle", "code"}},
    {253, V, "bsub_punt_removal", N, {"handle", "key", "code", "code_2"}},
    {254, V, "bsub_walk_start", N, {"event_type", "bundle_ifh", "ifh", "count", "member"}},
    {255, V, "bsub_walk_end", N, {"event_type", "bundle_ifh", "ifh", "count", "member"}},
    // Event dispatcher.
    {256, D, "nodelist_removal_begin", N, {"sub_ifh", "bundle_ifh", "count"}},
    {257, D, "nodelist_still_held", N, {"sub_ifh", "remaining_mask"}},
    {258, D, "bundle_path_begin", N, {"bundle_ifh", "count", "egress_key"}},
    {259, D, "bundle_mac_begin", N, {"bundle_ifh", MAC6}},
    {260, D, "bundle_mac_member", N, {"bundle_ifh", "member"}},
    {261, V, "old_member_key_removed", N, {"bundle_ifh", "key", "result", "result_2"}},
    // Reading an IFH entry's summary.
    {263, E, "summary_open_failed", N, {"ifh", "code"}},
    {264, E, "summary_lookup_failed", N, {"ifh", "code"}},
    {265, E, "summary_oam_id_from_slot", N, {"ifh", "i", "value"}},
    // Interface OAM entry (add path).
    {266, E, "intf_oam_no_handle", N, {"zero"}},
    {267, E, "intf_oam_summary_failed", N, {"ifh"}},
    {268, E, "intf_oam_add_failed", N, {"key", "slot_id", "npu_index", "status"}},
    {269, D, "intf_oam_added", N, {"key", "slot_id", "npu_index"}},
    // Interface OAM entry removal.
    {270, E, "intf_oam_remove_zero_ifh", N, {"zero"}},
    {271, E, "intf_oam_remove_summary_failed", N, {"ifh"}},
    {272, D, "intf_oam_remove_begin", N, {"ifh", "ingress_lif", "oam_id", "egress_key"}},
    {273, E, "intf_oam_remove_failed", N, {"key", "code"}},
    {274, D, "intf_oam_removed", N, {"key"}},
    // Event dispatcher.
    {275, E, "refresh_punt_unreadable", N, {"key", "result"}},
    {276, E, "refresh_punt_write_failed", N, {"key", "result"}},
    {277, E, "invalid_event_type", N, {"event_type", "zero"}},
    {278, V, "event_accepted", N, {"event_type", "handle", "event_id"}},
    {279, V, "event_paths", N, {"add", "bundle", "member_path", "member_modify"}},
    {280, V, "event_punt_data", N,
     {"punt_data0", "punt_data1", "punt_data2", "punt_data3", "punt_data4"}},
    {281, V, "event_intf_data", N,
     {"intf_data_64", "node_id", "ifh", "sub_ifh", "bundle_ifh", "ingress_lif", "egress_lif"}},
    // Bundle member event path.
    {282, V, "member_path_begin", N,
     {"event_type", "handle", "bundle_ifh", "port_lo", "port_hi", "event_id"}},
    {283, E, "member_egress_key_failed", N, {"key", "event_id", "result"}},
    {288, E, "member_port_key_failed", N, {"key", "handle", "event_id", "result"}},
    // Event dispatcher.
    {289, E, "add_path_failed", N, {"handle", "event_id", "result"}},
    // OAM event entry.
    {290, E, "oam_event_null", N, {}},
    {291, E, "oam_event_add_failed", N, {"key", "result"}},
    {292, E, "oam_event_remove_failed", N, {"key", "result"}},
    // Bundle out-of-resource state.
    {293, E, "oor_level1_counter_zero", N,
     {"bundle_ifh", "new_state", "oor_state", "oor_members_1", "oor_members_2"}},
    {294, E, "oor_level2_counter_zero", N,
     {"bundle_ifh", "new_state", "oor_state", "oor_members_1", "oor_members_2"}},
    {295, E, "oor_update_open_failed", N, {"code"}},
    {296, E, "oor_update_member_lookup_failed", N, {"ifh", "code"}},
    {297, E, "oor_update_member_lock_failed", N, {"ifh", "code"}},
    {298, V, "oor_update_member_locked", N,
     {"ifh", "intf_info_addr", "slot", "block_ifh", "bundle_ifh", "oor_state"}},
    {299, V, "oor_update_not_interface", N, {"ifh"}},
    {300, V, "oor_update_member_state", N, {"ifh", "old_state", "new_state"}},
    {301, E, "oor_update_bundle_lookup_failed", N, {"bundle_ifh", "code"}},
    {302, E, "oor_update_bundle_lock_failed", N, {"bundle_ifh", "code"}},
    {303, V, "oor_update_bundle_locked", N,
     {"bundle_ifh", "slot", "oor_state", "oor_members_1", "oor_members_2"}},
    {304, V, "oor_counters_before", N, {"state", "oor_members_1", "oor_members_2"}},
    {305, V, "oor_counters_after", N, {"state", "oor_members_1", "oor_members_2"}},
    {306, E, "oor_set_open_failed", N, {"code"}},
    {307, E, "oor_set_lookup_failed", N, {"ifh", "code"}},
    {308, E, "oor_set_lock_failed", N, {"ifh", "code"}},
    {309, E, "oor_set_state_zero_refused", N, {"ifh"}},
    {310, V, "oor_set_done", N, {"ifh", "slot", "intf_info_addr", "state"}},
    // Out-of-resource counters of the bundle member updates.
    {311, V, "oor_members_begin", N, {"join", "ifh", "oor_state", "bundle_ifh"}},
    {312, E, "oor_members_no_bundle", N, {"ifh"}},
    {313, E, "oor_members_lookup_failed", N, {"bundle_ifh", "result"}},
    {314, E, "oor_members_lock_failed", N, {"bundle_ifh", "result"}},
    {315, V, "oor_members_bundle_locked", N,
     {"bundle_ifh", "slot", "oor_state", "oor_members_1", "oor_members_2"}},
    {316, V, "oor_members_old_state", N, {"state", "oor_members_1", "oor_members_2"}},
    {317, V, "oor_members_new_state", N, {"state", "oor_members_1", "oor_members_2"}},
    {318, V, "oor_callback_registered", N, {"callback"}},
    // Table store (platform): failures, and repairs after a dead writer.
    // Bundle counters recounted from the members; the member operation log.
    {340, D, "bundle_counts_repaired", N, {"bundle_ifh", "member_count", "member_count_new",
                                           "oor_members_1", "oor_members_1_new",
                                           "oor_members_2", "oor_members_2_new"}},
    {341, E, "member_ops_unusable", S, {"object", "reason"}},
    {900, E, "tabra_open_bad_params", N, {"status", "reason", "value"}},
    {901, E, "tabra_object_failed", N, {"status", "errno", "stage"}},
    {902, E, "tabra_format_mismatch", N, {"status", "stored", "wanted"}},
    {903, E, "tabra_no_table", N, {"status", "zero", "zero_2"}},
    {904, E, "tabra_add_bad_argument", N, {"status", "key", "hash"}},
    {905, E, "tabra_add_full", N, {"status", "key", "max_entries"}},
    {906, E, "tabra_lookup_not_found", N, {"status", "key", "zero"}},
    {907, E, "tabra_lookup_bad_argument", N, {"status", "key", "hash"}},
    {908, E, "tabra_remove_not_found", N, {"status", "key", "zero"}},
    {909, E, "tabra_remove_bad_argument", N, {"status", "key", "flags"}},
    {910, E, "tabra_writer_lock_failed", N, {"status", "errno", "holder_tid"}},
    {911, E, "tabra_dead_writer_repaired", N, {"op", "key", "slot"}},
    {912, E, "tabra_protection_failed", N, {"status", "errno", "what"}},
    {913, E, "tabra_check_failed", N, {"status", "fault", "slot"}},
    {914, E, "tabra_no_memory", N, {"status", "bytes", "zero"}},
    {915, E, "tabra_walk_bad_argument", N, {"status", "zero", "zero_2"}},
    {916, E, "tabra_damaged_table_refused", N, {"status", "damage", "value"}},
    {917, E, "tabra_object_not_ours", N, {"status", "errno", "zero"}},
    // Host layer and trace service.
    {930, E, "host_object_not_ours", S, {"object", "owner_uid"}},
    {940, E, "trace_buffer_unusable", N, {"status", "kind", "errno_or_owner"}},
    {941, E, "trace_buffer_damaged", N, {"status", "kind", "head"}},
};
// clang-format on

#undef MAC6

}  // namespace

size_t TracePoint::nargs() const {
    size_t n = 0;
    while (n < VESK_MAX_ARGS && args[n] != nullptr) n++;
    return n;
}

std::span<const TracePoint> AllTracePoints() { return kPoints; }

const TracePoint *FindTracePoint(uint32_t point) {
    const auto *end = std::end(kPoints);
    const auto *it = std::lower_bound(
        std::begin(kPoints), end, point,
        [](const TracePoint &tp, uint32_t p) { return tp.point < p; });
    return it != end && it->point == point ? it : nullptr;
}

std::string TraceArgName(const TracePoint *tp, size_t i) {
    if (tp != nullptr && i < VESK_MAX_ARGS && tp->args[i] != nullptr) return tp->args[i];
    return "arg" + std::to_string(i);
}

}  // namespace pmdbctl
