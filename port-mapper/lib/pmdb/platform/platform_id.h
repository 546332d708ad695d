/*
 * platform_id.h - identity of the node the library runs on.
 */
#ifndef PMDB_PLATFORM_ID_H
#define PMDB_PLATFORM_ID_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Nonzero on a route processor that also runs the data path. */
int platform_am_i_rp_plus_datapath(void);

/* Writes the MAC address of (node_id, npu_index) into mac[0..5]; flags is 0.
 * Returns 0, or nonzero when no MAC could be given (mac then unchanged). */
uint32_t platform_get_amba_mac(uint32_t node_id, uint8_t npu_index, uint8_t *mac, int flags);

/* This node's identifier. */
extern uint32_t pmdb_node_id;

#ifdef __cplusplus
}
#endif

#endif
