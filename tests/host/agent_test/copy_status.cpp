// Status messages on their way to the module, and notifications.
#include "run_directory.h"

#include "agent/copy_status.h"
#include "agent/request.h"

#include <ruma/evwrap.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <net-snmp/agent/agent_callbacks.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <iterator>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace agent;

// A module of one row, which a status message completes.
flashCopyEntry row;
bool row_exists;
int traced;
int calls;
int other_calls;
const pmb_message *delivered;
int32_t delivered_index;
int32_t delivered_pid;
int32_t notified_status;
bool send_wanted;
std::vector<std::vector<oid>> trap_names;
std::vector<oid> trap_id;

const oid notification[] = {1, 3, 6, 1, 4, 1, 32473, 1, 1, 1, 3, 0, 1};

int take_status(int, int, void *message, void *) {
    ++calls;
    delivered = static_cast<const pmb_message *>(message);
    int32_t payload[3];
    std::memcpy(payload, delivered->payload, sizeof payload);
    delivered_index = payload[1];
    delivered_pid = payload[2];
    if (delivered_index == row.index)
        row.copyStatus = payload[0];
    return 0;
}

int take_status_too(int, int, void *, void *) {
    ++other_calls;
    return 0;
}

int32_t get_row(flashCopyEntry *entry) {
    // As the module traces its look-ups.
    traced += evwrap_hist_event_subtype_check(0x730000, 100) +
              evwrap_hist_event_subtype_check(0x730000, 101) + evwrap_chk_int(101, 0, 0, 1);
    if (!row_exists || entry->index != row.index)
        return 0x40490002;
    *entry = row;
    return 0;
}

netsnmp_variable_list *build_notification(const pmb_message *message, oid *id,
                                          std::size_t *id_length, int *send) {
    uint32_t length = 0;
    uint32_t status = 0;
    std::memcpy(&status, pmb_payload_get(message, &length), sizeof status);
    EXPECT_EQ(length, 4U);
    notified_status = static_cast<int32_t>(ntohl(status));
    std::memcpy(id, notification, sizeof notification);
    *id_length = OID_LENGTH(notification);
    *send = send_wanted ? 1 : 0;
    return build_varbind(nullptr, &notified_status, ASN_INTEGER, 4, object, OID_LENGTH(object));
}

int take_trap(int, int, void *trap, void *) {
    for (const netsnmp_variable_list *binding = static_cast<netsnmp_pdu *>(trap)->variables;
         binding != nullptr; binding = binding->next_variable) {
        trap_names.emplace_back(binding->name, binding->name + binding->name_length);
        if (binding->type == ASN_OBJECT_ID)
            trap_id.assign(binding->val.objid, binding->val.objid + binding->val_len / sizeof(oid));
    }
    return 0;
}

const ruma::CopyModule module{get_row, build_notification, nullptr, nullptr, nullptr};

class CopyStatus : public testing::Test {
  protected:
    void SetUp() override {
        snmp_unregister_callback(0, 11, take_status, nullptr, 0);
        snmp_unregister_callback(0, 11, take_status_too, nullptr, 0);
        snmp_unregister_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_SEND_TRAP2, take_trap,
                                 nullptr, 0);
        snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_SEND_TRAP2, take_trap,
                               nullptr);
        snmp_register_callback(0, 11, take_status, nullptr);
        row = {};
        row.index = 7;
        row.copyStatus = 1;
        row.notifyOnCompletion = 1;
        row.startTimestamp = {100, 5};
        row_exists = true;
        traced = 0;
        delivered_index = -1;
        delivered_pid = -1;
        calls = 0;
        other_calls = 0;
        notified_status = 0;
        send_wanted = true;
        trap_names.clear();
        trap_id.clear();
    }

    static pmb_message message(int32_t status = 2, int32_t index = 7, int32_t pid = getpid()) {
        const int32_t payload[] = {status, index, pid};
        return ruma::pmb_make_message(0xfe000000, 28, 7786, payload, sizeof payload);
    }

    static bool deliver(pmb_message made = message()) {
        return ruma::deliver_copy_status(made, module);
    }
};

TEST_F(CopyStatus, IsAMessageOfTwelveBytesThatNamesItsSender) {
    EXPECT_TRUE(ruma::is_copy_status(message()));
}

TEST_F(CopyStatus, IsNotAMessageThatNamesAnotherProcess) {
    EXPECT_FALSE(ruma::is_copy_status(message(2, 7, 1)));
}

TEST_F(CopyStatus, IsNotAMessageOfAProcessThatIsNone) {
    for (const int32_t pid : {0, -1}) {
        pmb_message made = message(2, 7, pid);
        made.sender_pid = pid;
        EXPECT_FALSE(ruma::is_copy_status(made)) << pid;
    }
}

TEST(IsChild, HoldsFromTheForkUntilTheProcessIsReaped) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    if (child == 0) {
        char byte;
        close(ready[1]);
        _exit(read(ready[0], &byte, 1) == 0 ? 0 : 1);
    }
    EXPECT_TRUE(ruma::is_child(child));
    close(ready[0]);
    close(ready[1]);
    siginfo_t info{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
    EXPECT_TRUE(ruma::is_child(child));
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_FALSE(ruma::is_child(child));
}

TEST(IsChild, IsFalseForEverybodyElse) {
    for (const pid_t pid : {getpid(), getppid(), 1, 0, -1})
        EXPECT_FALSE(ruma::is_child(pid)) << pid;
}

TEST_F(CopyStatus, IsNotAMessageOfAnotherOpcode) {
    pmb_message made = message();
    made.opcode = 7785;
    EXPECT_FALSE(ruma::is_copy_status(made));
}

TEST_F(CopyStatus, IsNotAMessageOfAnotherLength) {
    for (const uint32_t length : {0U, 4U, 11U, 13U, 1024U}) {
        pmb_message made = message();
        made.length = length;
        EXPECT_FALSE(ruma::is_copy_status(made)) << length;
    }
}

TEST_F(CopyStatus, ReachesTheModuleAsItCame) {
    pmb_message made = message();
    EXPECT_TRUE(ruma::deliver_copy_status(made, module));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(delivered, &made);
}

TEST_F(CopyStatus, ReachesAModuleThatRegisteredRepeatedlyOnce) {
    for (int i = 0; i < 3; ++i) {
        snmp_register_callback(0, 11, take_status_too, nullptr);
        snmp_register_callback(0, 11, take_status, nullptr);
    }
    deliver();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(other_calls, 1);
    EXPECT_EQ(snmp_count_callbacks(0, 11), 2);
    deliver();
    EXPECT_EQ(calls, 2);
}

TEST_F(CopyStatus, IsNotDeliveredWithoutAModule) {
    snmp_unregister_callback(0, 11, take_status, nullptr, 0);
    EXPECT_FALSE(deliver());
}

TEST_F(CopyStatus, SendsTheNotificationThatTheModuleBuilds) {
    EXPECT_TRUE(deliver());
    EXPECT_EQ(notified_status, 2);
    EXPECT_EQ(trap_id, std::vector<oid>(std::begin(notification), std::end(notification)));
    EXPECT_THAT(trap_names,
                testing::Contains(std::vector<oid>(std::begin(object), std::end(object))));
}

TEST_F(CopyStatus, NotifiesOfAFailureToo) {
    deliver(message(14));
    EXPECT_EQ(notified_status, 14);
    EXPECT_FALSE(trap_names.empty());
}

TEST_F(CopyStatus, DoesNotNotifyWhenTheRowDoesNotAskForIt) {
    row.notifyOnCompletion = 2;
    deliver();
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(trap_names.empty());
}

TEST_F(CopyStatus, DoesNotNotifyTwiceOfOneCopy) {
    deliver();
    trap_names.clear();
    deliver();
    EXPECT_EQ(calls, 2);
    EXPECT_TRUE(trap_names.empty());
}

TEST_F(CopyStatus, DoesNotNotifyOfARowThatStaysInProgress) {
    deliver(message(1));
    EXPECT_TRUE(trap_names.empty());
}

TEST_F(CopyStatus, DoesNotNotifyOfAnUnknownRow) {
    row_exists = false;
    deliver();
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(trap_names.empty());
}

TEST_F(CopyStatus, DoesNotNotifyWhenTheModuleSaysNotTo) {
    send_wanted = false;
    deliver();
    EXPECT_EQ(notified_status, 2);
    EXPECT_TRUE(trap_names.empty());
}

TEST_F(CopyStatus, IsDeliveredWithoutATraceOfThePlatformsOwnLook) {
    deliver();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(traced, 0);
    get_row(&row);
    EXPECT_GT(traced, 0) << "tracing is off for good";
}

using LostCopy = CopyStatus;

TEST_F(LostCopy, CompletesItsRowAsAFailedTransferAndNotifies) {
    ruma::report_lost_copy({7, {100, 5}}, 1234, module);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(delivered_index, 7);
    EXPECT_EQ(delivered_pid, 1234);
    EXPECT_EQ(row.copyStatus, 14);
    EXPECT_EQ(notified_status, 14);
    EXPECT_FALSE(trap_names.empty());
    EXPECT_EQ(traced, 0);
}

TEST_F(LostCopy, CompletesItsRowWhenItsWorkerCouldNotBeForked) {
    ruma::report_lost_copy({7, {100, 5}}, -1, module);
    EXPECT_EQ(delivered_index, 7);
    EXPECT_EQ(delivered_pid, -1);
    EXPECT_EQ(row.copyStatus, 14);
}

TEST_F(LostCopy, ReachesTheModuleOnceHoweverOftenItRegistered) {
    snmp_register_callback(0, 11, take_status, nullptr);
    ruma::report_lost_copy({7, {100, 5}}, 1234, module);
    EXPECT_EQ(calls, 1);
}

// Its worker is handed over to be reaped, under an index that no row has.
TEST_F(LostCopy, LeavesItsRowAloneWhenThatIsGoneOverOrAnothers) {
    const struct {
        bool exists;
        int32_t status;
        flashTimestamp start;
    } cases[] = {
        {false, 1, {100, 5}}, {true, 2, {100, 5}}, {true, 17, {100, 5}},
        {true, 1, {100, 6}},  {true, 1, {101, 5}},
    };
    for (const auto &each : cases) {
        row_exists = each.exists;
        row.copyStatus = each.status;
        row.startTimestamp = each.start;
        calls = 0;
        ruma::report_lost_copy({7, {100, 5}}, 1234, module);
        EXPECT_EQ(calls, 1);
        EXPECT_EQ(delivered_index, 0);
        EXPECT_EQ(delivered_pid, 1234);
        EXPECT_EQ(row.copyStatus, each.status);
        EXPECT_TRUE(trap_names.empty());
    }
}

TEST_F(LostCopy, IsNoMatterWithoutARowAndAWorker) {
    row_exists = false;
    ruma::report_lost_copy({7, {100, 5}}, -1, module);
    EXPECT_EQ(calls, 0);
}

TEST_F(CopyStatus, ReachesAModuleThatBuildsNoNotifications) {
    pmb_message made = message();
    EXPECT_TRUE(ruma::deliver_copy_status(made, {}));
    EXPECT_EQ(calls, 1);
}

} // namespace
