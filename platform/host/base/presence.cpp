#include "base/presence.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/library/snmp_logging.h>

namespace ruma {
namespace {

bool there;
bool missed;

} // namespace

void agent_module_is_there() { there = true; }

void miss_agent_module() {
    if (there || missed)
        return;
    missed = true;
    snmp_log(LOG_WARNING, "ruma: orvex_flash_mib runs without ruma_agent: no copy completes; load "
                          "ruma_agent by a dlmod line before that of orvex_flash_mib\n");
}

} // namespace ruma
