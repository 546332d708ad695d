/*
 * vesk.h - trace service of the platform, as the port mapper database calls it.
 *
 * A trace record is a trace point id and 0 to 7 integer arguments (_vesk,
 * _vesk_1 .. _vesk_7), or one string and one integer (_svesk).  The id
 * carries the argument count in its upper 32 bits and the point number in
 * its lower 32 bits; for _svesk the upper part is 0x102.  Writers never block
 * and never fail the caller.  A buffer is obtained at each use from one of
 * the three getters.
 */
#ifndef PMDB_PLATFORM_VESK_H
#define PMDB_PLATFORM_VESK_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vesk_buf vesk_buf_t;

#define VESK_ID(nargs, point) ((((uint64_t)(nargs)) << 32) | (uint32_t)(point))
#define VESK_SID(point) VESK_ID(0x102u, point)

vesk_buf_t *dpa_port_mapper_get_error_vesk(void);
vesk_buf_t *dpa_port_mapper_get_db_vesk(void);
vesk_buf_t *dpa_port_mapper_get_eve_vesk(void);

void _vesk(vesk_buf_t *buf, uint64_t id);
void _vesk_1(vesk_buf_t *buf, uint64_t id, uint64_t a1);
void _vesk_2(vesk_buf_t *buf, uint64_t id, uint64_t a1, uint64_t a2);
void _vesk_3(vesk_buf_t *buf, uint64_t id, uint64_t a1, uint64_t a2, uint64_t a3);
void _vesk_4(vesk_buf_t *buf, uint64_t id, uint64_t a1, uint64_t a2, uint64_t a3, uint64_t a4);
void _vesk_5(vesk_buf_t *buf, uint64_t id, uint64_t a1, uint64_t a2, uint64_t a3, uint64_t a4,
             uint64_t a5);
void _vesk_6(vesk_buf_t *buf, uint64_t id, uint64_t a1, uint64_t a2, uint64_t a3, uint64_t a4,
             uint64_t a5, uint64_t a6);
void _vesk_7(vesk_buf_t *buf, uint64_t id, uint64_t a1, uint64_t a2, uint64_t a3, uint64_t a4,
             uint64_t a5, uint64_t a6, uint64_t a7);
void _svesk(vesk_buf_t *buf, uint64_t id, const char *str, uint64_t a1);

#ifdef __cplusplus
}
#endif

#endif
