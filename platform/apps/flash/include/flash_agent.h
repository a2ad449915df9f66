// The net-snmp agent's headers in the order in which they must be included.
#ifndef FLASH_AGENT_H
#define FLASH_AGENT_H

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#endif
