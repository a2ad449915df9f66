/* What the device's agent adds to the net-snmp agent. */
#ifndef RUMA_AGENT_H
#define RUMA_AGENT_H

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Compares two integers of one type: -1, 0 or 1 as `a` is less than, equal to or greater than
 * `b`. */
#define INTCMP(a, b) (((a) > (b)) - ((a) < (b)))

/* One entry of the agent's SNMP error log: 472 bytes. */
struct snmp_error_record {
    int32_t code;   /* platform error code */
    char text[256]; /* its text, NUL-terminated */
    int32_t reserved[53];
};

/* Returns the user name behind the SNMP request that the agent is serving, empty when there is none
 * (no request, or a version without users). `request` is 0, the current one. Never NULL; valid
 * until the request ends. */
const char *get_snmp_username(int request);

/* Returns an id of whoever sent the request that the agent is serving, 0 when there is none: the
 * same for all requests of one manager, and as a rule another for another one's. `request` is 0.
 * (The host platform: a positive digest of 31 bits, for SNMPv1 and SNMPv2c of the transport and the
 * sender's address and port, for SNMPv3 of the context's engine, its name and the user: one user in
 * one context is one manager, wherever the requests come from.) */
int32_t get_snmp_sessionid(int request);

/* Enters a record into the agent's error log, with the user name and the session of the request
 * that the agent is serving, when there is one (the host platform: a line "TIME, CODE, TEXT, user
 * NAME, session ID", without the user for a version without users, and ending with the text outside
 * a request; a comma in TEXT or NAME is written \x2c, a backslash \\ and a byte outside printable
 * ASCII \xHH, newlines at the end left out and others written \n, so that ", " only ever separates
 * fields). The record is copied. Returns 0, or -1 when it could not be entered. */
int log_snmp_error(const struct snmp_error_record *record);

/* Appends a binding to a variable list: `length` bytes of `value`, copied, of the ASN.1 type `type`
 * under `name`, which has `name_length` arcs. `list` NULL starts one. Returns the list, which the
 * caller releases with snmp_free_varbind, or NULL when there is no memory (`list` is then as it
 * was). */
netsnmp_variable_list *build_varbind(netsnmp_variable_list *list, const void *value,
                                     unsigned char type, size_t length, const oid *name,
                                     size_t name_length);

#ifdef __cplusplus
}
#endif

#endif
