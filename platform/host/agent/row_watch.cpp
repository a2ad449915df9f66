#include "agent/row_watch.h"

#include "flash_codes.h"
#include "report/explain.h"

#include <ruma/agent.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <net-snmp/agent/agent_callbacks.h>

#include <net-snmp/agent/agent_registry.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <optional>

namespace ruma {
namespace {

constexpr const char *module_name = "orvex_flash_mib"; // under which the module registers
constexpr std::size_t root_length = 9;
constexpr oid copy_row_status[] = {1, 2, 1, 1, 11}; // behind the root
constexpr oid delete_row_status[] = {1, 2, 3, 1, 7};

CopyReports *reports;
CopyWorkers *workers;

bool activates(long value) { return value == flash::rowActive || value == flash::rowCreateAndGo; }

bool takes_away(long value) {
    return value == flash::rowNotInService || value == flash::rowDestroy;
}

bool any_in_progress(const CopyModule &module) {
    flashCopyEntry row{};
    uint32_t last = 0;
    while (module.get_next_row != nullptr && module.get_next_row(&row) == 0 &&
           static_cast<uint32_t>(row.index) > last) {
        last = static_cast<uint32_t>(row.index);
        if (row.copyStatus == flash::copyInProgress)
            return true;
    }
    return false;
}

// What a SET of one row status asks for.
struct Wish {
    int32_t row;
    long value;
    bool refused; // by now
};

// Nothing for what the module refuses as no row status at all.
bool read_wish(const netsnmp_request_info &request, Wish &wish) {
    const netsnmp_variable_list *variable = request.requestvb;
    if (variable == nullptr || variable->type != ASN_INTEGER || variable->val.integer == nullptr ||
        variable->val_len > sizeof(long) || variable->name_length == 0)
        return false;
    wish.row = static_cast<int32_t>(variable->name[variable->name_length - 1]);
    wish.value = 0;
    std::memcpy(&wish.value, variable->val.integer, variable->val_len);
    wish.refused = request.status != SNMP_ERR_NOERROR;
    return true;
}

// The copy that was started last, while its worker is not reaped.
std::optional<CopyStart> last_start(const CopyModule &module) {
    workers->settle(module); // that of an earlier variable of this request too
    const pid_t worker = module.last_worker == nullptr ? 0 : *module.last_worker;
    return worker > 0 ? workers->start_of_worker(worker) : std::nullopt;
}

// The module ends the copy that was started last, whichever row in progress is taken away.
void before_action(const CopyModule &module, const Wish &wish) {
    flashCopyEntry row;
    if (!takes_away(wish.value) || !read_row(module, wish.row, row) ||
        row.copyStatus != flash::copyInProgress)
        return;
    if (const auto start = last_start(module))
        reports->aborted(*start, get_snmp_username(0));
}

void after_action(const CopyModule &module, const Wish &wish) {
    flashCopyEntry row;
    if (activates(wish.value) && read_row(module, wish.row, row) &&
        row.copyStatus != flash::copyInProgress && row.copyStatus != flash::copySuccess)
        report_refused_copy(row, get_snmp_username(0));
}

void after_reserve(const CopyModule &module, const Wish &wish) {
    if (!wish.refused || wish.value != flash::rowActive || wish.row == 0 ||
        !any_in_progress(module))
        return;
    flashCopyEntry row;
    if (!read_row(module, wish.row, row)) // as it would have been created
        row.copyStatus = flash::copyStatusInitial;
    report_busy(row, get_snmp_username(0));
}

void after_delete(const CopyModule &module, const Wish &wish) {
    flashMiscOpEntry row;
    if (!activates(wish.value) || !read_row(module, wish.row, row))
        return;
    // A name that does not resolve leaves the status as it was, success included.
    if (wish.refused || row.operationStatus != flash::miscOpSuccess || !delete_name_resolves(row))
        report_failed_delete(row, get_snmp_username(0));
}

using Look = void (*)(const CopyModule &module, const Wish &wish);

// Where to look at a column's requests in the phases of a SET.
struct Column {
    const oid *arcs;
    const char *handler;
    Look after_reserve;
    Look before_action;
    Look after_action;
};

constexpr Column columns[] = {
    {copy_row_status, "ruma_copy_watch", after_reserve, before_action, after_action},
    {delete_row_status, "ruma_delete_watch", nullptr, nullptr, after_delete},
};

void look_at(netsnmp_request_info *requests, Look look) {
    if (look == nullptr)
        return;
    try {
        const CopyModule module = find_copy_module();
        for (auto *request = requests; request != nullptr; request = request->next) {
            Wish wish{};
            if (read_wish(*request, wish))
                look(module, wish);
        }
    } catch (const std::bad_alloc &) {
        snmp_log(LOG_ERR, "ruma_agent: no memory to say why a request failed\n");
    }
}

int watch(netsnmp_mib_handler *handler, netsnmp_handler_registration *registration,
          netsnmp_agent_request_info *info, netsnmp_request_info *requests) {
    const auto &column = *static_cast<const Column *>(handler->myvoid);
    if (info->mode == MODE_SET_ACTION)
        look_at(requests, column.before_action);
    const int result = netsnmp_call_next_handler(handler, registration, info, requests);
    if (info->mode == MODE_SET_RESERVE1)
        look_at(requests, column.after_reserve);
    if (info->mode == MODE_SET_ACTION)
        look_at(requests, column.after_action);
    return result;
}

const Column *find_column(const netsnmp_handler_registration &registration) {
    constexpr std::size_t length = OID_LENGTH(copy_row_status);
    static_assert(length == OID_LENGTH(delete_row_status));
    if (registration.handlerName == nullptr ||
        std::strcmp(registration.handlerName, module_name) != 0 ||
        registration.rootoid_len != root_length + length)
        return nullptr;
    for (const Column &column : columns) {
        if (std::equal(column.arcs, column.arcs + length, registration.rootoid + root_length))
            return &column;
    }
    return nullptr;
}

int registered(int, int, void *parameters, void *) {
    const auto *registration = static_cast<const register_parameters *>(parameters);
    if (registration == nullptr || registration->reginfo == nullptr)
        return 0;
    const Column *column = find_column(*registration->reginfo);
    if (column == nullptr)
        return 0;
    // A subagent registers everything again with each master.
    if (netsnmp_find_handler_by_name(registration->reginfo, column->handler) != nullptr)
        return 0;
    netsnmp_mib_handler *handler = netsnmp_create_handler(column->handler, watch);
    if (handler != nullptr) {
        handler->myvoid = const_cast<Column *>(column); // neither cloned nor released
        if (netsnmp_inject_handler(registration->reginfo, handler) == SNMPERR_SUCCESS)
            return 0;
        netsnmp_handler_free(handler);
    }
    snmp_log(LOG_ERR, "ruma_agent: cannot watch the requests of a table\n");
    return 0;
}

} // namespace

bool watch_rows(CopyReports &reports_of_all, CopyWorkers &workers_of_all) {
    reports = &reports_of_all;
    workers = &workers_of_all;
    return snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_REGISTER_OID,
                                  registered, nullptr) == SNMPERR_SUCCESS;
}

} // namespace ruma
