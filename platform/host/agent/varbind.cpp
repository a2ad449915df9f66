#include <ruma/agent.h>

extern "C" netsnmp_variable_list *build_varbind(netsnmp_variable_list *list, const void *value,
                                                unsigned char type, size_t length, const oid *name,
                                                size_t name_length) {
    if (name == nullptr || name_length == 0 || name_length > MAX_OID_LEN ||
        (value == nullptr && length > 0))
        return nullptr;
    netsnmp_variable_list *head = list;
    if (snmp_varlist_add_variable(&head, name, name_length, type, value, length) == nullptr)
        return nullptr;
    return head;
}
