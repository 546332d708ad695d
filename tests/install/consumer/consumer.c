/*
 * A data-plane program built against an installed pmdb: it hands one
 * interface-add event to dpa_pmdb_oper and reads the IFH entry back through
 * the reader library.  The shared objects are those of $PMDB_NS.
 * Exit 0 when the entry reads back as sent; else one line on stderr, exit 1.
 */
#include <pmdb/pmdb.h>
#include <pmdb/pmdb_reader.h>
#include <stdio.h>
#include <string.h>

enum { CONSUMER_IFH = 0x5001, CONSUMER_NODE = 1 };

int main(void) {
    pmdb_event_t ev;
    memset(&ev, 0, sizeof ev);
    ev.event_type = PMDB_EV_INTF_ADD;
    ev.valid_flags = PMDB_VF_INTF;
    ev.event_id = 7;
    ev.intf_info.ifh = CONSUMER_IFH;
    ev.intf_info.node_id = CONSUMER_NODE;
    ev.intf_info.egress_lif = 0x15001;
    ev.intf_info.ingress_lif = 0x201;
    ev.intf_info.sys_port = 0x123;
    ev.intf_info.intf_type = 1;
    dpa_pmdb_oper(&ev, CONSUMER_NODE);

    unsigned char buf[sizeof(pmdb_ifh_entry_t)];
    memset(buf, 0, sizeof buf);
    const cerrno rc = dpa_pmdb_get_ifh_entry_by_key(CONSUMER_IFH, buf, 0, 0);
    if (rc != 0) {
        fprintf(stderr, "consumer: reading IFH entry 0x%x: status %u\n", CONSUMER_IFH, rc);
        return 1;
    }
    pmdb_intf_info_t got;
    memcpy(&got, buf, sizeof got);
    if (memcmp(&got, &ev.intf_info, offsetof(pmdb_intf_info_t, oor_members_1)) != 0) {
        fprintf(stderr, "consumer: IFH entry 0x%x reads back as ifh 0x%x egress_lif 0x%x\n",
                CONSUMER_IFH, got.ifh, got.egress_lif);
        return 1;
    }
    printf("consumer: IFH entry 0x%x added through dpa_pmdb_oper and read back\n", got.ifh);
    return 0;
}
