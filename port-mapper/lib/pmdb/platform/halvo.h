/*
 * halvo.h - system properties of the platform, as the port mapper database
 * reads them.  Each call returns the value in force now; the library re-reads
 * the maximum entry count at every change of write protection.
 */
#ifndef PMDB_PLATFORM_HALVO_H
#define PMDB_PLATFORM_HALVO_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

uint32_t halvo_config_get_port_mapper_max_entries(void);
int halvo_config_get_lcvm_redundancy_on(void);
int halvo_config_get_need_egress_punt_pm_entry(void);
int halvo_oam_get_oam_enable(void);
uint32_t halvo_grid_get_inlif_res_pool_bank_25_min(void);
uint32_t halvo_grid_get_inlif_res_pool_bank_25_max(void);
uint32_t halvo_intf_get_max_subintf_vlob(void);

#ifdef __cplusplus
}
#endif

#endif
