/*
 * pmdb_trace_points.h - every trace point of the port mapper database, in
 * one table: number, buffer, name, record form and the names of its
 * arguments in the order the writer passes them.
 *
 * The table is the list PMDB_TRACE_POINTS(X): one X(number, buffer, name,
 * form, argument names...) per point, ordered by number.  Buffers: E error,
 * D database, V event.  Forms: N a record of numbers, S a string record (a
 * string and one number; its first argument name names the string).  Where
 * a point repeats a value, the repeat gets a "_2" suffix so that every
 * argument name of a row is unique.
 *
 * Two views are made from it here, and a third by whoever decodes records:
 *   - pmdb_tp::<name>: one constant per point, whose type carries the
 *     buffer, the argument count and the form.  The library writes a point
 *     only by naming its constant (PMDB_TRACE in the library's pmdb_trace.h),
 *     so a point missing from the table, or written with another argument
 *     count, does not compile;
 *   - pmdb_tpt::kRows: the rows as data, checked at compile time (numbers
 *     ascending, hence unique; at most 7 arguments; string records carry
 *     exactly a string and a number).  Names are unique because every name
 *     is also a constant of one namespace;
 *   - pmdbctl expands the list into its decoding table.
 *
 * Points 900 and up are written by the host platform (table store, OS
 * layer, trace service); the rest by the library.  A number, once written
 * by a released library, keeps its meaning: operators and tests name
 * points by number and by name.
 *
 * Header-only C++, no state; depends on nothing but the C library headers.
 */
#ifndef PMDB_TRACE_POINTS_H
#define PMDB_TRACE_POINTS_H

#include <stddef.h>
#include <stdint.h>

/* Argument names of the six bytes of a MAC address. */
#define PMDB_TP_MAC6 "mac0", "mac1", "mac2", "mac3", "mac4", "mac5"

// clang-format off
#define PMDB_TRACE_POINTS(X) \
    /* Shared context region and database frame. */ \
    X(51, E, hdl_get_uninitialised, N) \
    X(52, E, mprotect_lock_failed, N) \
    X(53, E, tabra_init_failed, N, "result") \
    X(54, E, tabra_open_failed, N, "result") \
    X(55, D, table_opened, N, "type") \
    X(56, E, first_protect_failed, N, "result") \
    X(57, D, table_protected, N, "type") \
    X(58, E, shm_open_failed, S, "region", "shm_size") \
    X(59, E, shm_size_failed, S, "region", "length") \
    X(60, E, shm_map_failed, S, "region", "length") \
    X(61, E, shm_semaphore_failed, S, "region", "shm_size") \
    X(62, D, shm_region_mapped, S, "region", "shm_size") \
    X(63, D, init_entered, N, "type") \
    X(64, E, init_lock_failed, N, "type", "error") \
    X(65, E, shrd_ctx_open_failed, N, "type", "result") \
    X(66, D, shrd_ctx_no_magic, N, "type") \
    X(67, E, open_init_failed, N, "result", "type") \
    X(68, E, write_enable_failed, N, "result") \
    /* Entry locks. */ \
    X(69, D, lock_owner_dead, N) \
    X(71, D, lock_destroy_failed, N) \
    /* Database frame: stale region semaphore, entry bound. */ \
    X(72, E, shm_semaphore_stale, S, "region", "wait_ms") \
    X(73, E, max_entries_clamped, N, "configured", "used") \
    /* BVI adjacency refresh. */ \
    X(99, E, bvi_rewrite_zero_ifh, N) \
    X(100, E, bvi_rewrite_open_failed, N, "ifh", "code") \
    X(101, E, bvi_rewrite_lookup_failed, N, "ifh", "code") \
    X(102, D, bvi_entry_rehomed, N, "ifh", "egress_lif", "ingress_lif") \
    X(103, E, bvi_rewrite_lock_failed, N, "ifh", "code") \
    X(104, E, bvi_handles_not_allocated, N, "hundred", "zero") \
    X(105, E, bvi_iterate_failed, N, "code") \
    X(106, E, bvi_callback_not_called, N, "count", "callback", "last_code") \
    /* Node inventory and scale information. */ \
    X(107, V, first_high_scale_node, N, "node_id") \
    X(109, V, first_inventory_node, N, "node_id", PMDB_TP_MAC6) \
    X(110, V, inventory_first_node_added, N, "node_id", "node_index", "high_scale") \
    X(111, V, inventory_node_added, N, "node_id", "node_index", "high_scale") \
    X(112, V, scale_not_high_scale, N) \
    X(113, E, scale_open_failed, N, "result") \
    X(114, V, scale_high_scale_added, N, "hs_node_id", "hs_node_mask") \
    X(115, V, scale_not_current_node, N) \
    X(116, V, scale_no_high_scale_left, N) \
    X(117, V, scale_role_handed_over, N, "hs_node_id", "hs_node_mask") \
    X(118, E, inv_node_open_failed, N, "result") \
    X(119, V, inv_node_recorded, N, "inv_node_id", "inv_node_mac_addr") \
    X(120, V, inv_node_recorded_mac, N, "inv_node_id", PMDB_TP_MAC6) \
    X(121, V, inv_remove_other_node, N) \
    X(122, V, inv_remove_none_left, N) \
    X(123, V, inv_remove_recorded, N, "inv_node_id", "inv_node_mac_addr") \
    X(124, V, inv_remove_recorded_mac, N, "inv_node_id", PMDB_TP_MAC6) \
    /* Node list of an IFH entry. */ \
    X(125, E, nodelist_open_failed, N, "ifh", "result") \
    X(126, E, nodelist_lookup_failed, N, "ifh", "result") \
    X(127, V, nodelist_updated, N, "ifh", "egress_lif", "ingress_lif", "bundle_ifh", "node_mask") \
    X(128, E, nodelist_lock_failed, N, "ifh", "result") \
    /* Adding or refreshing one IFH entry, sub-interface counts. */ \
    X(129, E, sub_count_zero_key, N) \
    X(130, E, sub_count_open_failed, N, "ifh", "status") \
    X(131, E, sub_count_lookup_failed, N, "ifh", "status") \
    X(132, V, sub_count_done, N, "ifh", "egress_lif", "ingress_lif") \
    X(133, E, sub_count_lock_failed, N, "ifh", "status") \
    /* Adding and removing one PUNT entry. */ \
    X(134, E, punt_add_zero_key, N) \
    X(135, E, punt_add_no_event, N, "key", "zero") \
    X(136, E, punt_add_open_failed, N, "key", "status") \
    X(137, E, punt_add_failed, N, "key", "status") \
    X(138, D, punt_add_refresh, N, "key") \
    X(139, E, punt_add_lookup_failed, N, "key", "status") \
    X(140, D, punt_info_stored, N, "punt_ifh", "key", "punt_data0") \
    X(141, E, punt_add_lock_failed, N, "key", "slot", "status") \
    X(142, E, ifh_add_punt_bit5_refused, N) \
    X(143, E, ifh_add_zero_key, N) \
    X(144, E, ifh_add_open_failed, N, "ifh", "status") \
    X(145, E, ifh_add_failed, N, "ifh", "status") \
    X(146, D, ifh_add_refresh, N, "ifh") \
    X(147, E, ifh_add_lookup_failed, N, "ifh", "status") \
    X(148, E, ifh_add_lock_failed, N, "ifh", "status") \
    X(149, D, ifh_punt_info_stored, N, "punt_ifh", "ifh", "punt_data0") \
    X(150, D, ifh_entry_written, N, "ifh", "egress_lif", "ingress_lif", "sys_port", \
        "intf_data_44", "port_lo", "port_hi") \
    X(151, D, ifh_node_recorded, N, "ifh", "egress_lif", "ingress_lif", "bundle_ifh", "node_mask") \
    X(152, E, ifh_aib_update_callback, N, "ifh", "event_type", "stored_intf_data_64", \
        "event_intf_data_64") \
    /* OAM entries. */ \
    X(153, E, oam_add_zero_key, N) \
    X(154, E, oam_add_no_event, N, "key", "zero") \
    X(155, E, oam_add_open_failed, N, "key", "result") \
    X(156, E, oam_add_failed, N, "key", "result") \
    X(157, D, oam_add_refresh, N, "key") \
    X(158, E, oam_add_lookup_failed, N, "key", "result") \
    X(159, D, oam_entry_written, N, "key", "oam_ifh", "oam_byte_a", "oam_byte_b", "oam_word") \
    X(160, E, oam_add_lock_failed, N, "key", "result") \
    /* Removing one IFH entry. */ \
    X(161, E, ifh_remove_zero_ifh, N) \
    X(162, E, ifh_remove_open_failed, N, "ifh", "code") \
    X(163, E, ifh_remove_lookup_failed, N, "ifh", "code") \
    X(164, V, ifh_remove_found, N, "ifh") \
    X(165, E, ifh_remove_failed, N, "ifh", "code") \
    X(166, D, ifh_removed, N, "ifh", "egress_lif", "ingress_lif", "sys_port", "port_lo", \
        "port_hi", "bundle_ifh") \
    X(167, E, oam_remove_zero_key, N) \
    X(168, E, oam_remove_open_failed, N, "key", "result") \
    X(169, E, oam_remove_not_found, N, "key", "result") \
    X(170, E, oam_remove_failed, N, "key", "result") \
    X(171, D, oam_removed, N, "key") \
    X(172, E, punt_remove_zero_key, N) \
    X(173, E, punt_remove_open_failed, N, "key", "status") \
    X(174, E, punt_remove_lookup_failed, N, "key", "status") \
    X(175, D, punt_remove_begin, N, "key", "ifh", "sub_ifh", "bundle_ifh") \
    X(176, E, punt_remove_failed, N, "key", "status") \
    X(177, D, punt_remove_done, N, "key") \
    /* Adding all entries of an interface. */ \
    X(178, E, add_ifh_step_failed, N, "ifh", "event_type", "valid_flags", "status") \
    X(179, D, add_ifh_step_done, N, "ifh", "event_type", "valid_flags", "zero") \
    X(180, E, add_bsub_punt_failed, N, "key", "status") \
    X(181, D, add_bsub_punt_done, N, "key") \
    X(182, D, add_bsub_redundancy_oam, N, "i", "egress_lif", "v", "sys_port", "key") \
    X(183, E, add_bsub_redundancy_oam_failed, N, "key", "status") \
    X(184, D, add_member_count_read, N, "handle", "member_count", "is_bundle_sub_intf") \
    X(185, E, add_member_punt_failed, N, "ifh", "key", "status") \
    X(186, V, add_member_punt_done, N, "ifh", "key") \
    X(187, E, add_bundle_punt_failed, N, "key", "status") \
    X(188, D, add_bundle_punt_done, N, "key") \
    X(189, D, add_bundle_redundancy_oam, N, "i", "egress_lif", "v", "sys_port", "key") \
    X(190, E, add_bundle_redundancy_oam_failed, N, "key", "status") \
    X(191, E, add_main_punt_failed, N, "key", "status") \
    X(192, D, add_main_punt_done, N, "key") \
    X(193, E, add_ext_punt_failed, N, "key", "status") \
    X(194, D, add_ext_punt_done, N, "key") \
    X(195, D, add_plain_ext_punt_done, N, "key") \
    X(196, E, add_plain_ext_punt_failed, N, "key", "status") \
    X(197, E, add_egress_lif_punt_failed, N, "key", "status") \
    X(198, D, add_egress_lif_punt_done, N, "key", "egress_key") \
    X(199, E, add_egress_punt_failed, N, "key", "status") \
    X(200, D, add_egress_punt_done, N, "key") \
    X(201, D, add_oam_key_a, N, "i", "slot_bits", "oam_port", "key_a", "remove") \
    X(202, E, add_oam_key_a_add_failed, N, "key", "status") \
    X(203, E, add_oam_key_a_remove_failed, N, "key", "status") \
    X(204, E, add_oam_key_a_readd_failed, N, "key", "status") \
    X(205, D, add_oam_key_b, N, "i", "oam_port", "v", "sys_port", "key_b", "remove") \
    X(206, E, add_oam_key_b_add_failed, N, "key", "status") \
    X(207, E, add_oam_key_b_remove_failed, N, "key", "status") \
    X(208, E, add_oam_key_d_add_failed, N, "key", "status") \
    X(209, D, add_oam_key_d_done, N, "i", "oam_port", "new", "sys_port", "key_d") \
    /* Removing all entries of an interface. */ \
    X(210, E, remove_ifh_failed, N, "ifh", "code") \
    X(211, E, remove_bsub_stop, N, "ifh") \
    X(212, V, remove_bundle_punt, N, "ifh", "key", "code", "code_2") \
    X(213, D, remove_bundle_oam, N, "i", "egress_lif", "oam_slot", "i_2", "key") \
    X(214, E, remove_bundle_oam_failed, N, "key", "code") \
    X(215, V, remove_member_punt, N, "ifh", "key", "code", "code_2") \
    X(216, V, remove_member_sys_port_punt, N, "ifh", "key", "code", "code_2") \
    X(217, E, remove_ingress_lif_punt_failed, N, "bundle_egress_lif", "code") \
    X(218, V, remove_ingress_lif_punt_done, N, "ifh", "key", "zero", "zero_2") \
    X(219, E, remove_egress_lif_punt_failed, N, "key", "code") \
    X(220, E, remove_egress_punt_failed, N, "ingress_lif", "code") \
    X(221, E, remove_sys_port_punt_failed, N, "bundle_egress_lif", "code") \
    X(222, E, remove_flagged_sys_port_punt_failed, N, "key", "code") \
    X(223, D, remove_flagged_sys_port_punt_done, N, "key") \
    X(224, D, remove_oam_first, N, "i", "egress_lif", "s", "key") \
    X(225, E, remove_oam_first_failed, N, "key", "code") \
    X(226, D, remove_oam_second, N, "i", "egress_lif", "oam_slot", "i_2", "key") \
    X(227, E, remove_oam_second_failed, N, "key", "code") \
    /* Bundle and member updates of IFH entries. */ \
    X(228, E, bundle_update_zero_ifh, N) \
    X(229, E, bundle_update_open_failed, N, "bundle_ifh", "result") \
    X(230, E, bundle_update_lookup_failed, N, "bundle_ifh", "result") \
    X(231, D, bundle_update_no_punt_info, N, "bundle_ifh", "egress_key") \
    X(232, D, bundle_updated, N, "bundle_ifh", "bundle_egress_lif", "bundle_ingress_lif", \
        "member_count") \
    X(233, E, bundle_update_lock_failed, N, "bundle_ifh", "result") \
    X(234, E, member_update_no_event, N) \
    X(235, E, member_update_open_failed, N, "ifh") \
    X(236, E, member_update_lookup_failed, N, "ifh", "result") \
    X(237, D, member_updated, N, "ifh", "ingress_lif", "egress_lif", "port_lo", "port_hi") \
    X(238, E, member_update_lock_failed, N, "ifh", "result") \
    /* Bundle member event path. */ \
    X(239, E, member_punt_no_key, N) \
    X(240, E, member_punt_open_failed, N, "result") \
    X(241, E, member_punt_not_found, N, "ifh", "key", "result") \
    X(242, D, member_punt_fields_done, N, "bundle_ifh", "ingress_lif", "event_type") \
    X(243, E, member_punt_lock_failed, N, "bundle_ifh", "ingress_lif", "event_type", "result") \
    X(244, V, member_punt_op_begin, N, "event_type", "handle", "key_lo") \
    X(245, E, member_leave_not_active, N, "event_type", "event_type_2", "member_modify", "handle", \
        "key") \
    X(246, V, member_punt_removed, N, "event_type", "handle", "key", "result") \
    X(247, V, member_punt_written, N, "event_type", "handle", "key", "result") \
    X(248, E, member_punt_not_join_or_modify, N, "event_type", "event_type_2", "zero", "handle", \
        "key") \
    /* Event dispatcher. */ \
    X(249, E, member_entry_unreadable, N, "member") \
    X(250, E, bundle_entry_unreadable, N, "bundle_ifh") \
    X(251, V, member_key_written, N, "member", "bundle_ifh", "egress_lif", "ingress_lif", \
        "bundle_ifh_2", "node_id") \
    /* Bundle sub-interface walk and interface OAM entry removal. */ \
    X(252, V, bsub_ifh_removal, N, "event_type", "handle", "code") \
    X(253, V, bsub_punt_removal, N, "handle", "key", "code", "code_2") \
    X(254, V, bsub_walk_start, N, "event_type", "bundle_ifh", "ifh", "count", "member") \
    X(255, V, bsub_walk_end, N, "event_type", "bundle_ifh", "ifh", "count", "member") \
    /* Event dispatcher. */ \
    X(256, D, nodelist_removal_begin, N, "sub_ifh", "bundle_ifh", "count") \
    X(257, D, nodelist_still_held, N, "sub_ifh", "remaining_mask") \
    X(258, D, bundle_path_begin, N, "bundle_ifh", "count", "egress_key") \
    X(259, D, bundle_mac_begin, N, "bundle_ifh", PMDB_TP_MAC6) \
    X(260, D, bundle_mac_member, N, "bundle_ifh", "member") \
    X(261, V, old_member_key_removed, N, "bundle_ifh", "key", "result", "result_2") \
    /* Reading an IFH entry's summary. */ \
    X(263, E, summary_open_failed, N, "ifh", "code") \
    X(264, E, summary_lookup_failed, N, "ifh", "code") \
    X(265, E, summary_oam_id_from_slot, N, "ifh", "i", "value") \
    /* Interface OAM entry (add path). */ \
    X(266, E, intf_oam_no_handle, N, "zero") \
    X(267, E, intf_oam_summary_failed, N, "ifh") \
    X(268, E, intf_oam_add_failed, N, "key", "slot_id", "npu_index", "status") \
    X(269, D, intf_oam_added, N, "key", "slot_id", "npu_index") \
    /* Interface OAM entry removal. */ \
    X(270, E, intf_oam_remove_zero_ifh, N, "zero") \
    X(271, E, intf_oam_remove_summary_failed, N, "ifh") \
    X(272, D, intf_oam_remove_begin, N, "ifh", "ingress_lif", "oam_id", "egress_key") \
    X(273, E, intf_oam_remove_failed, N, "key", "code") \
    X(274, D, intf_oam_removed, N, "key") \
    /* Event dispatcher. */ \
    X(275, E, refresh_punt_unreadable, N, "key", "result") \
    X(276, E, refresh_punt_write_failed, N, "key", "result") \
    X(277, E, invalid_event_type, N, "event_type", "zero") \
    X(278, V, event_accepted, N, "event_type", "handle", "event_id") \
    X(279, V, event_paths, N, "add", "bundle", "member_path", "member_modify") \
    X(280, V, event_punt_data, N, "punt_data0", "punt_data1", "punt_data2", "punt_data3", \
        "punt_data4") \
    X(281, V, event_intf_data, N, "intf_data_64", "node_id", "ifh", "sub_ifh", "bundle_ifh", \
        "ingress_lif", "egress_lif") \
    /* Bundle member event path. */ \
    X(282, V, member_path_begin, N, "event_type", "handle", "bundle_ifh", "port_lo", "port_hi", \
        "event_id") \
    X(283, E, member_egress_key_failed, N, "key", "event_id", "result") \
    /* Event dispatcher: records it refuses before looking further. */ \
    X(284, E, event_null, N) \
    X(288, E, member_port_key_failed, N, "key", "handle", "event_id", "result") \
    /* Event dispatcher. */ \
    X(289, E, add_path_failed, N, "handle", "event_id", "result") \
    /* OAM event entry. */ \
    X(290, E, oam_event_null, N) \
    X(291, E, oam_event_add_failed, N, "key", "result") \
    X(292, E, oam_event_remove_failed, N, "key", "result") \
    /* Bundle out-of-resource state. */ \
    X(293, E, oor_level1_counter_zero, N, "bundle_ifh", "new_state", "oor_state", "oor_members_1", \
        "oor_members_2") \
    X(294, E, oor_level2_counter_zero, N, "bundle_ifh", "new_state", "oor_state", "oor_members_1", \
        "oor_members_2") \
    X(295, E, oor_update_open_failed, N, "code") \
    X(296, E, oor_update_member_lookup_failed, N, "ifh", "code") \
    X(297, E, oor_update_member_lock_failed, N, "ifh", "code") \
    X(298, V, oor_update_member_locked, N, "ifh", "intf_info_addr", "slot", "block_ifh", \
        "bundle_ifh", "oor_state") \
    X(299, V, oor_update_not_interface, N, "ifh") \
    X(300, V, oor_update_member_state, N, "ifh", "old_state", "new_state") \
    X(301, E, oor_update_bundle_lookup_failed, N, "bundle_ifh", "code") \
    X(302, E, oor_update_bundle_lock_failed, N, "bundle_ifh", "code") \
    X(303, V, oor_update_bundle_locked, N, "bundle_ifh", "slot", "oor_state", "oor_members_1", \
        "oor_members_2") \
    X(304, V, oor_counters_before, N, "state", "oor_members_1", "oor_members_2") \
    X(305, V, oor_counters_after, N, "state", "oor_members_1", "oor_members_2") \
    X(306, E, oor_set_open_failed, N, "code") \
    X(307, E, oor_set_lookup_failed, N, "ifh", "code") \
    X(308, E, oor_set_lock_failed, N, "ifh", "code") \
    X(309, E, oor_set_state_zero_refused, N, "ifh") \
    X(310, V, oor_set_done, N, "ifh", "slot", "intf_info_addr", "state") \
    /* Out-of-resource counters of the bundle member updates. */ \
    X(311, V, oor_members_begin, N, "join", "ifh", "oor_state", "bundle_ifh") \
    X(312, E, oor_members_no_bundle, N, "ifh") \
    X(313, E, oor_members_lookup_failed, N, "bundle_ifh", "result") \
    X(314, E, oor_members_lock_failed, N, "bundle_ifh", "result") \
    X(315, V, oor_members_bundle_locked, N, "bundle_ifh", "slot", "oor_state", "oor_members_1", \
        "oor_members_2") \
    X(316, V, oor_members_old_state, N, "state", "oor_members_1", "oor_members_2") \
    X(317, V, oor_members_new_state, N, "state", "oor_members_1", "oor_members_2") \
    X(318, V, oor_callback_registered, N, "callback") \
    /* Bundle counters recounted from the members; the member operation log. */ \
    X(340, D, bundle_counts_repaired, N, "bundle_ifh", "member_count", "member_count_new", \
        "oor_members_1", "oor_members_1_new", "oor_members_2", "oor_members_2_new") \
    X(341, E, member_ops_unusable, S, "object", "reason") \
    X(342, D, sub_intf_count_repaired, N, "ifh", "sub_intf_count", "sub_intf_count_new") \
    /* Table store (platform): failures, and repairs after a dead writer. */ \
    X(900, E, tabra_open_bad_params, N, "status", "reason", "value") \
    X(901, E, tabra_object_failed, N, "status", "errno", "stage") \
    X(902, E, tabra_format_mismatch, N, "status", "stored", "wanted") \
    X(903, E, tabra_no_table, N, "status", "zero", "zero_2") \
    X(904, E, tabra_add_bad_argument, N, "status", "key", "hash") \
    X(905, E, tabra_add_full, N, "status", "key", "max_entries") \
    X(906, E, tabra_lookup_not_found, N, "status", "key", "zero") \
    X(907, E, tabra_lookup_bad_argument, N, "status", "key", "hash") \
    X(908, E, tabra_remove_not_found, N, "status", "key", "zero") \
    X(909, E, tabra_remove_bad_argument, N, "status", "key", "flags") \
    X(910, E, tabra_writer_lock_failed, N, "status", "errno", "holder_tid") \
    X(911, E, tabra_dead_writer_repaired, N, "op", "key", "slot") \
    X(912, E, tabra_protection_failed, N, "status", "errno", "what") \
    X(913, E, tabra_check_failed, N, "status", "fault", "slot") \
    X(914, E, tabra_no_memory, N, "status", "bytes", "zero") \
    X(915, E, tabra_walk_bad_argument, N, "status", "zero", "zero_2") \
    X(916, E, tabra_damaged_table_refused, N, "status", "damage", "value") \
    X(917, E, tabra_object_not_ours, N, "status", "errno", "zero") \
    /* Host layer and trace service. */ \
    X(930, E, host_object_not_ours, S, "object", "owner_uid") \
    X(940, E, trace_buffer_unusable, N, "status", "kind", "errno_or_owner") \
    X(941, E, trace_buffer_damaged, N, "status", "kind", "head")

// clang-format on

namespace pmdb_tpt {

enum class buffer : uint8_t { error, database, event };
enum class form : uint8_t { numbers, string };

/* The letters of the table. */
inline constexpr buffer E = buffer::error;
inline constexpr buffer D = buffer::database;
inline constexpr buffer V = buffer::event;
inline constexpr form N = form::numbers;
inline constexpr form S = form::string;

/* A trace record carries at most this many numbers. */
inline constexpr unsigned kMaxArgs = 7;

/* Only the table makes points (see point's constructor). */
struct from_table {
    explicit constexpr from_table() = default;
};

/* A trace point of the table: its number, with the buffer, argument count
 * and form in its type.  A default-constructed point is "no point" (number
 * 0), for optional points such as a step of the entry change cycle that an
 * operation does not trace. */
template <buffer B, unsigned NArgs, form F>
class point {
public:
    static constexpr buffer kBuffer = B;
    static constexpr unsigned kArgs = NArgs;
    static constexpr form kForm = F;

    constexpr point() = default;
    constexpr point(from_table, uint32_t number) : number_(number) {}
    constexpr uint32_t number() const { return number_; }
    constexpr explicit operator bool() const { return number_ != 0; }

private:
    uint32_t number_ = 0;
};

template <typename... A>
constexpr unsigned count(A...) {
    return sizeof...(A);
}

struct row {
    uint32_t number;
    buffer buf;
    const char *name;
    form kind;
    unsigned nargs;
    const char *args[kMaxArgs];
};

/* One X(...) of a list as a row. */
// clang-format off
#define PMDB_TP_ROW(number, buf, name, kind, ...) \
    {number, ::pmdb_tpt::buf, #name, ::pmdb_tpt::kind, ::pmdb_tpt::count(__VA_ARGS__), \
     {__VA_ARGS__}},
// clang-format on
inline constexpr row kRows[] = {PMDB_TRACE_POINTS(PMDB_TP_ROW)};

/* Numbers strictly ascending: unique, and in the order a binary search
 * needs; none is 0, which means "no point". */
template <size_t Rows>
constexpr bool rows_ascending(const row (&rows)[Rows]) {
    uint32_t last = 0;
    for (const row &r : rows) {
        if (r.number <= last) return false;
        last = r.number;
    }
    return true;
}

/* A string record carries a string and one number (more than kMaxArgs
 * argument names do not fit a row at all). */
template <size_t Rows>
constexpr bool rows_well_formed(const row (&rows)[Rows]) {
    for (const row &r : rows) {
        if (r.kind == S && r.nargs != 2) return false;
    }
    return true;
}

static_assert(rows_ascending(kRows), "trace point numbers are unique, nonzero and ascending");
static_assert(rows_well_formed(kRows), "a string record has a string and one number");

}  // namespace pmdb_tpt

namespace pmdb_tp {

#define PMDB_TP_CONSTANT(number, buf, name, kind, ...)                                  \
    inline constexpr ::pmdb_tpt::point<::pmdb_tpt::buf, ::pmdb_tpt::count(__VA_ARGS__), \
                                       ::pmdb_tpt::kind>                                \
        name{::pmdb_tpt::from_table{}, number};
PMDB_TRACE_POINTS(PMDB_TP_CONSTANT)
#undef PMDB_TP_CONSTANT

}  // namespace pmdb_tp

#endif
