/* Compiles every public and platform header, and the host extension
 * headers, as strict C11: the build failing is the test. */
#include "pmdb.h"

#include "halvo.h"
#include "kemt.h"
#include "platform_id.h"
#include "pmdb_reader.h"
#include "tabra.h"
#include "vesk.h"
#include "vorn_os.h"

#include "host/kemt_host.h"
#include "host/os_host.h"
#include "host/pm_fault.h"
#include "host/settings.h"
#include "host/vesk_reader.h"

/* One use of each header's types so that nothing is compiled away unseen. */
size_t pmdb_c11_header_sizes(void);
size_t pmdb_c11_header_sizes(void) {
    return sizeof(pmdb_ifh_entry_t) + sizeof(vesk_rec_t) + sizeof(pm_call_rec_t) +
           sizeof(kemt_wait_t) + sizeof(pmdb_host_setting_t);
}
