// The completion notification's bindings.
#include "fakes/fixture.h"

#include "flash_trace.h"

#include <algorithm>
#include <arpa/inet.h>
#include <syslog.h>

namespace {

using namespace fakes;

// handle_notifications

class NotificationTest : public fakes::FlashTest {
  protected:
    void SetUp() override {
        FlashTest::SetUp();
        std::fill(std::begin(id), std::end(id), untouched);
    }
    void TearDown() override {
        snmp_free_varbind(list);
        FlashTest::TearDown();
    }
    static pmb_message with_status(int32_t status) {
        return fakes::message({static_cast<int32_t>(htonl(static_cast<uint32_t>(status)))});
    }
    void build(const pmb_message *message) {
        list = handle_notifications(message, id, &length, &send);
    }
    static fakes::Oid below_root(std::initializer_list<oid> arcs) {
        fakes::Oid name(orvex_flash_mib_variables_oid,
                        orvex_flash_mib_variables_oid + orvexFlashRootLength);
        name.insert(name.end(), arcs);
        return name;
    }

    static constexpr oid untouched = 4711;
    oid id[16];
    size_t length = 99;
    int send = -1;
    netsnmp_variable_list *list = nullptr;
};

TEST_F(NotificationTest, NoMessageIsNotSent) {
    build(nullptr);
    EXPECT_EQ(send, 0);
    EXPECT_EQ(list, nullptr);
    EXPECT_THAT(fakes::calls("build_varbind"), IsEmpty());
}

TEST_F(NotificationTest, AMessageShorterThanItsStatusIsNotSent) {
    for (uint32_t bytes : {0U, 1U, 3U}) {
        SCOPED_TRACE(bytes);
        send = -1;
        pmb_message message = with_status(2);
        message.length = bytes;
        build(&message);
        EXPECT_EQ(send, 0);
        EXPECT_EQ(list, nullptr);
    }
}

TEST_F(NotificationTest, AMessageWithoutAPayloadIsNotSent) {
    pmb_message message = with_status(2);
    platform().pmb_payload_get.always(nullptr);
    build(&message);
    EXPECT_EQ(send, 0);
    EXPECT_EQ(list, nullptr);
}

TEST_F(NotificationTest, AMessageIsSentUnderTheNotificationsName) {
    const pmb_message message = with_status(2);
    build(&message);
    EXPECT_EQ(send, 1);
    ASSERT_EQ(length, 13U);
    EXPECT_EQ(fakes::Oid(id, id + 13), below_root({1, 3, 0, 1}));
}

TEST_F(NotificationTest, OnlyThirteenArcsAreWritten) {
    const pmb_message message = with_status(2);
    build(&message);
    EXPECT_THAT(std::vector<oid>(id + 13, std::end(id)), Each(untouched));
}

TEST_F(NotificationTest, BindsTheStatusToTheColumnWithoutAnInstance) {
    for (int32_t status : {2, 14, 0x01020304, -1}) {
        SCOPED_TRACE(status);
        const pmb_message message = with_status(status);
        build(&message);
        ASSERT_NE(list, nullptr);
        EXPECT_EQ(fakes::Oid(list->name, list->name + list->name_length),
                  below_root({1, 2, 1, 1, 8}));
        EXPECT_EQ(list->type, ASN_INTEGER);
        EXPECT_EQ(*list->val.integer, status);
        EXPECT_EQ(list->next_variable, nullptr);
        snmp_free_varbind(list);
        list = nullptr;
    }
}

TEST_F(NotificationTest, BuildsOneBindingOnANewList) {
    const pmb_message message = with_status(2);
    build(&message);
    const Lines built = fakes::calls("build_varbind");
    ASSERT_EQ(built.size(), 1U);
    const fakes::Oid column = below_root({1, 2, 1, 1, 8});
    EXPECT_TRUE(built[0].starts_with("build_varbind list=null ")) << built[0];
    EXPECT_TRUE(built[0].ends_with(" type=0x2 length=4 name=" +
                                   fakes::oid_text(column.data(), column.size())))
        << built[0];
}

TEST_F(NotificationTest, TheNotifyColumnIsNotConsulted) {
    fakes::add_copy_row(7, [](flashCopyEntry &r) { r.notifyOnCompletion = flash::truthFalse; });
    const pmb_message message = with_status(2);
    build(&message);
    EXPECT_EQ(send, 1);
}

TEST_F(NotificationTest, ALongerMessageIsTakenByItsFirstWord) {
    const pmb_message message = fakes::message({static_cast<int32_t>(htonl(12)), 7, 4242});
    build(&message);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(*list->val.integer, 12);
}

} // namespace
