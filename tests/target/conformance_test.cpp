// What the module relies on in an implementation of the platform interfaces, by their headers
// alone. ORVEX_CONFORMANCE_SCHEME names a scheme of the platform's device URIs and
// ORVEX_CONFORMANCE_DIRECTORY the directory behind it, in which the tests may write.
#include <ruma/agent.h>
#include <ruma/cmi.h>
#include <ruma/evwrap.h>
#include <ruma/ordset.h>
#include <ruma/pmb.h>
#include <ruma/svcmgr.h>
#include <ruma/syserr.h>
#include <ruma/syslog.h>
#include <ruma/tftp.h>
#include <ruma/uri.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <poll.h>
#include <set>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// No call that an SNMP request waits for may hold the agent longer than this.
constexpr auto bound = std::chrono::seconds(3);

std::string content(const fs::path &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}
void write(const fs::path &path, const std::string &text) { std::ofstream(path) << text; }

std::set<int> open_descriptors() {
    std::set<int> found;
    for (int descriptor = 0; descriptor < 1024; ++descriptor)
        if (fcntl(descriptor, F_GETFD) != -1)
            found.insert(descriptor);
    return found;
}

// A directory of the test's own below the scheme's.
class Files : public testing::Test {
  protected:
    void SetUp() override {
        const char *scheme = std::getenv("ORVEX_CONFORMANCE_SCHEME");
        const char *base = std::getenv("ORVEX_CONFORMANCE_DIRECTORY");
        ASSERT_NE(scheme, nullptr) << "set ORVEX_CONFORMANCE_SCHEME";
        ASSERT_NE(base, nullptr) << "set ORVEX_CONFORMANCE_DIRECTORY";
        std::string pattern = fs::canonical(base) / "conformance-XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr) << pattern;
        directory_ = pattern;
        uri_ = std::string(scheme) + ":" + directory_.filename().string();
    }
    void TearDown() override {
        if (!directory_.empty())
            fs::remove_all(directory_);
    }

    const fs::path &directory() const { return directory_; }
    const std::string &uri() const { return uri_; } // of the directory

  private:
    fs::path directory_;
    std::string uri_;
};

// agent.h

TEST(Agent, IntegersAreComparedWithoutOverflow) {
    EXPECT_EQ(INTCMP(INT32_MIN, INT32_MAX), -1);
    EXPECT_EQ(INTCMP(INT32_MAX, INT32_MIN), 1);
    EXPECT_EQ(INTCMP(5, 5), 0);
    EXPECT_EQ(INTCMP(uint32_t{0}, UINT32_MAX), -1);
}

TEST(Agent, AnErrorRecordHas472Bytes) { EXPECT_EQ(sizeof(snmp_error_record), 472U); }

TEST(Agent, OutsideARequestTheUserIsEmptyAndTheSessionZero) {
    ASSERT_NE(get_snmp_username(0), nullptr);
    EXPECT_STREQ(get_snmp_username(0), "");
    EXPECT_EQ(get_snmp_sessionid(0), 0);
}

TEST(Agent, AnErrorRecordWithTheLongestTextIsEntered) {
    snmp_error_record record{};
    record.code = 0x4049003c;
    std::memset(record.text, 'x', 200);
    EXPECT_EQ(log_snmp_error(&record), 0);
}

TEST(Agent, BindingsAreAppendedAndTheirValuesCopied) {
    const oid name[] = {1, 3, 6, 1, 4294967295U};
    int32_t value = -5;
    netsnmp_variable_list *list =
        build_varbind(nullptr, &value, ASN_INTEGER, sizeof value, name, std::size(name));
    ASSERT_NE(list, nullptr);
    value = 0;
    ASSERT_EQ(build_varbind(list, "text", ASN_OCTET_STR, 4, name, 3), list);
    const netsnmp_variable_list *second = list->next_variable;
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(list->type, ASN_INTEGER);
    EXPECT_EQ(*list->val.integer, -5);
    EXPECT_EQ(list->name_length, std::size(name));
    EXPECT_EQ(list->name[4], name[4]);
    EXPECT_EQ(second->type, ASN_OCTET_STR);
    EXPECT_EQ(second->val_len, 4U);
    EXPECT_EQ(std::memcmp(second->val.string, "text", 4), 0);
    EXPECT_EQ(second->next_variable, nullptr);
    snmp_free_varbind(list);
}

// ordset.h

int compare(const void *a, const void *b) {
    return INTCMP(*static_cast<const int *>(a), *static_cast<const int *>(b));
}

class Ordset : public testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(ordset_create(&set_, 1, 1, compare, 1), 0); }
    void TearDown() override {
        while (void *first = ordset_find_nth_obj(&set_, 1))
            ASSERT_EQ(ordset_remove(&set_, first), first);
    }
    static inline ordset set_{}; // made anew by each test: nothing ends a set
    int numbers_[5] = {7, INT32_MAX, -3, 9, INT32_MIN};
};

TEST_F(Ordset, AllZeroBytesAreAnEmptySet) {
    const ordset zero{};
    EXPECT_EQ(ordset_size(&zero), 0U);
}

TEST_F(Ordset, ObjectsComeInOrderWhateverTheOrderOfInsertion) {
    for (int &number : numbers_)
        EXPECT_EQ(ordset_add(&set_, &number, &number), &number);
    EXPECT_EQ(ordset_size(&set_), 5U);
    const int *in_order[] = {&numbers_[4], &numbers_[2], &numbers_[0], &numbers_[3], &numbers_[1]};
    for (uint32_t n = 0; n < 5; ++n) {
        EXPECT_EQ(ordset_find_nth_obj(&set_, n + 1), in_order[n]);
        EXPECT_EQ(ordset_find_nextgreater(&set_, in_order[n]),
                  n < 4 ? static_cast<const void *>(in_order[n + 1]) : nullptr);
    }
    EXPECT_EQ(ordset_find_nth_obj(&set_, 0), nullptr);
    EXPECT_EQ(ordset_find_nth_obj(&set_, 6), nullptr);
}

TEST_F(Ordset, TheNextGreaterOfAKeyThatIsAbsentIsFound) {
    for (int &number : numbers_)
        ordset_add(&set_, &number, &number);
    const int between = 8;
    EXPECT_EQ(ordset_find_nextgreater(&set_, &between), &numbers_[3]);
    EXPECT_EQ(ordset_find(&set_, &between, 0), nullptr);
}

TEST_F(Ordset, AnInsertionUnderATakenKeyReturnsTheObjectThatIsThere) {
    int &first = numbers_[0];
    int second = first;
    EXPECT_EQ(ordset_add(&set_, &first, &first), &first);
    EXPECT_EQ(ordset_add(&set_, &second, &second), &first);
    EXPECT_EQ(ordset_size(&set_), 1U);
    EXPECT_EQ(ordset_find(&set_, &second, 0), &first);
}

TEST_F(Ordset, ARemovedObjectIsReturnedAndGone) {
    int &number = numbers_[0];
    ordset_add(&set_, &number, &number);
    EXPECT_EQ(ordset_remove(&set_, &number), &number);
    EXPECT_EQ(ordset_remove(&set_, &number), nullptr);
    EXPECT_EQ(ordset_size(&set_), 0U);
}

// syserr.h

TEST(Syserr, EveryCodeHasAShortTextAndASentence) {
    for (const int32_t code : {0, 1, -1, 0x40490001, 0x4049003c, INT32_MAX, INT32_MIN}) {
        ASSERT_NE(syserr2str(code), nullptr) << code;
        EXPECT_STRNE(syserr2str(code), "") << code;
        ASSERT_NE(syserr_format(code), nullptr) << code;
        EXPECT_STRNE(syserr_format(code), "") << code;
    }
}

// evwrap.h

__attribute__((format(printf, 2, 3))) void print(int level, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    dbgout(level, evwrap_dbg_modname, format, arguments);
    va_end(arguments);
}

TEST(Evwrap, TheModuleHasAName) { ASSERT_NE(evwrap_dbg_modname, nullptr); }

TEST(Evwrap, ATextOfEveryLengthIsTaken) {
    for (const size_t length : {size_t{0}, size_t{1}, size_t{511}}) {
        std::string record(sizeof(uint32_t) + length + 1, 'x');
        const uint32_t subtype = 101;
        std::memcpy(record.data(), &subtype, sizeof subtype);
        record.back() = '\0';
        evwrap_hist_event(0x730000, record.data(), static_cast<uint32_t>(record.size()));
    }
    EXPECT_EQ(evwrap_hist_event_subtype_check(0x730000, 101),
              evwrap_hist_event_subtype_check(0x730000, 101));
}

TEST(Evwrap, TheDebugPrinterTakesItsArgumentsFromAList) {
    testing::internal::CaptureStderr();
    print(1, "%s %d\n", "text", 7);
    const std::string printed = testing::internal::GetCapturedStderr();
    EXPECT_EQ(evwrap_chk_int(101, 0, 0, 1), evwrap_chk_int(101, 0, 0, 1));
    EXPECT_TRUE(printed.empty() || printed.find("text 7") != std::string::npos) << printed;
}

// pmb.h

int bind_sender(const char *name) {
    const pmb_queue_attributes attributes{};
    return pmb_bind(1, -1, &attributes, name);
}

TEST(Pmb, TwoProcessesBindOneNameAtTheSameTime) {
    const int handle = bind_sender("conformance");
    ASSERT_GE(handle, 0) << std::strerror(errno);
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        const int own = bind_sender("conformance");
        _exit(own >= 0 && pmb_unbind(own, 0) == 0 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(pmb_unbind(handle, 0), 0);
}

TEST(Pmb, UnbindingClosesWhatBindingOpenedAndIgnoresNoHandle) {
    ASSERT_EQ(pmb_unbind(-1, 0), 0);
    const std::set<int> before = open_descriptors();
    const int handle = bind_sender("conformance");
    ASSERT_GE(handle, 0) << std::strerror(errno);
    EXPECT_EQ(pmb_unbind(handle, 0), 0);
    EXPECT_EQ(open_descriptors(), before);
}

TEST(Pmb, WhatBindingOpensIsClosedAtExec) {
    const std::set<int> before = open_descriptors();
    const int handle = bind_sender("conformance");
    ASSERT_GE(handle, 0) << std::strerror(errno);
    for (const int descriptor : open_descriptors())
        if (before.count(descriptor) == 0) {
            EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0) << descriptor;
        }
    pmb_unbind(handle, 0);
}

TEST(Pmb, AMessageToNobodyFailsWithinABoundedTime) {
    const int handle = bind_sender("conformance");
    ASSERT_GE(handle, 0) << std::strerror(errno);
    const int32_t payload[] = {2, 7, 4242};
    pmb_send_options options{};
    options.word[0] = 1;
    const auto began = Clock::now();
    EXPECT_NE(pmb_send(handle, 0xfe000000, 0x7ffe, 7786, payload, sizeof payload, &options), 0);
    EXPECT_LT(Clock::now() - began, bound);
    pmb_unbind(handle, 0);
}

// cmi.h

TEST(Cmi, ARequestThatNothingAnswersFailsWithinABoundedTime) {
    const uint32_t last[51] = {UINT32_MAX}; // no device has this index
    uint32_t length = sizeof last;
    void *response = nullptr;
    const auto began = Clock::now();
    EXPECT_NE(cmi_req_resp(0x1E5B, CMI_NEXT, last, &response, &length, "conformance", 0, 102,
                           pmb_response_q, 4),
              0);
    EXPECT_LT(Clock::now() - began, bound);
    std::free(response);
}

// uri.h

constexpr size_t path_size = 255;

TEST_F(Files, AUriResolvesToThePathInItsDirectoryWhetherOrNotItIsThere) {
    char path[path_size];
    ASSERT_EQ(uriutil_uri_to_path((uri() + "/new").c_str(), path, sizeof path, 0), 0);
    EXPECT_EQ(fs::weakly_canonical(path), directory() / "new");
}

TEST_F(Files, APathThatDoesNotFitIsRefusedAndNothingIsWritten) {
    char path[path_size] = "untouched";
    char small[4] = "abc";
    EXPECT_NE(uriutil_uri_to_path((uri() + "/new").c_str(), small, sizeof small, 0), 0);
    EXPECT_STREQ(small, "abc");
    EXPECT_NE(
        uriutil_uri_to_path((uri() + "/" + std::string(300, 'x')).c_str(), path, sizeof path, 0),
        0);
    EXPECT_STREQ(path, "untouched");
}

TEST_F(Files, NoUriLeadsOutOfItsDirectory) {
    fs::create_symlink("/", directory() / "link");
    for (const char *name : {"/../../../../etc/passwd", "/link/etc/passwd"}) {
        char path[path_size] = "untouched";
        EXPECT_NE(uriutil_uri_to_path((uri() + name).c_str(), path, sizeof path, 0), 0) << path;
        EXPECT_STREQ(path, "untouched");
    }
}

TEST_F(Files, NoLinkBringsWhatAShellWouldRunIntoAPath) {
    fs::create_directory(directory() / "x;true ");
    write(directory() / "x;true " / "file", "x");
    fs::create_directory_symlink("x;true ", directory() / "link");
    for (const char *name : {"/link/file", "/link/new"}) {
        char path[path_size] = "untouched";
        uriutil_stat stat{};
        EXPECT_NE(uriutil_uri_to_path((uri() + name).c_str(), path, sizeof path, 0), 0) << path;
        EXPECT_STREQ(path, "untouched");
        EXPECT_NE(uriutil_stat_get((uri() + name).c_str(), &stat, 0), 0) << name;
    }
}

TEST_F(Files, WhatIsNeitherAFileNorADirectoryIsRefused) {
    ASSERT_EQ(mkfifo((directory() / "fifo").c_str(), 0600), 0);
    char path[path_size] = "untouched";
    uriutil_stat stat{};
    EXPECT_NE(uriutil_uri_to_path((uri() + "/fifo").c_str(), path, sizeof path, 0), 0);
    EXPECT_STREQ(path, "untouched");
    EXPECT_NE(uriutil_stat_get((uri() + "/fifo").c_str(), &stat, 0), 0);
}

TEST_F(Files, AnUnknownSchemeAndAnEmptyUriAreRefused) {
    for (const char *name : {"", "no-such-scheme:file", ":file"}) {
        char path[path_size] = "untouched";
        uriutil_stat stat{};
        EXPECT_NE(uriutil_uri_to_path(name, path, sizeof path, 0), 0) << name;
        EXPECT_STREQ(path, "untouched");
        EXPECT_NE(uriutil_stat_get(name, &stat, 0), 0) << name;
    }
}

TEST_F(Files, ADirectoryIsOneAndAFileIsNone) {
    write(directory() / "file", "12345");
    uriutil_stat stat{};
    ASSERT_EQ(uriutil_stat_get(uri().c_str(), &stat, 0), 0);
    EXPECT_EQ(stat.file_type, URIUTIL_TYPE_DIRECTORY);
    ASSERT_EQ(uriutil_stat_get((uri() + "/file").c_str(), &stat, 0), 0);
    EXPECT_NE(stat.file_type, URIUTIL_TYPE_DIRECTORY);
    EXPECT_EQ(stat.size, 5U);
}

TEST_F(Files, AFileThatIsMissingIsAnError) {
    uriutil_stat stat{};
    EXPECT_NE(uriutil_stat_get((uri() + "/missing").c_str(), &stat, 0), 0);
}

// svcmgr.h

TEST(Svcmgr, ACoreFileThatIsMissingIsAnErrorAndThePathIsUntouched) {
    svcmgr_path path{};
    std::strcpy(path.text, "untouched");
    EXPECT_NE(svcmgrcmi_core_uri_to_path(pmb_response_q, "core:no-such-core-file", &path), 0);
    EXPECT_STREQ(path.text, "untouched");
}

// syslog.h

TEST_F(Files, ALogIsWrittenOutWhole) {
    std::string log;
    for (int line = 0; line < 10000; ++line)
        log += "line " + std::to_string(line) + "\n";
    write(directory() / "log", log);
    write(directory() / "output", "what was there");
    syslog_dump_request request{};
    request.kind = SYSLOG_DUMP_PLAIN;
    ASSERT_EQ(syslog_disp_logfile(&request, (directory() / "log").c_str(),
                                  (directory() / "output").c_str(), 0, 0, 0),
              0);
    EXPECT_EQ(content(directory() / "output"), log);
}

TEST_F(Files, ALogThatIsMissingLeavesTheOutputAsItWas) {
    write(directory() / "output", "what was there");
    syslog_dump_request request{};
    request.kind = SYSLOG_DUMP_PLAIN;
    EXPECT_NE(syslog_disp_logfile(&request, (directory() / "missing").c_str(),
                                  (directory() / "output").c_str(), 0, 0, 0),
              0);
    EXPECT_EQ(content(directory() / "output"), "what was there");
}

// tftp.h

TEST(Tftp, OnlyAPositiveTimeIsAccepted) {
    EXPECT_LT(tftp_timeout_set(0), 0);
    EXPECT_LT(tftp_timeout_set(-1), 0);
    EXPECT_EQ(tftp_timeout_set(20), 0);
}

TEST(Tftp, EveryErrorHasAText) {
    for (const int result : {-ENOENT, -ENOSPC, -(100 + ENOENT), -99999, INT32_MIN}) {
        ASSERT_NE(tftp_strerror(result), nullptr) << result;
        EXPECT_STRNE(tftp_strerror(result), "") << result;
    }
}

// A server that takes requests and says nothing.
class SilentServer {
  public:
    SilentServer() : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr *>(&address), size), 0);
        EXPECT_EQ(getsockname(socket_, reinterpret_cast<sockaddr *>(&address), &size), 0);
        port_ = ntohs(address.sin_port);
    }
    ~SilentServer() { close(socket_); }
    SilentServer(const SilentServer &) = delete;
    SilentServer &operator=(const SilentServer &) = delete;
    int port() const { return port_; }

    // The sender of the next request; none within the time when its family is 0.
    sockaddr_in client(int milliseconds) const {
        sockaddr_in address{};
        socklen_t size = sizeof address;
        pollfd wait{socket_, POLLIN, 0};
        char byte = 0;
        if (poll(&wait, 1, milliseconds) == 1)
            recvfrom(socket_, &byte, 1, 0, reinterpret_cast<sockaddr *>(&address), &size);
        return address;
    }

  private:
    int socket_;
    int port_ = 0;
};

TEST_F(Files, ASilentServerEndsTheFetchInTimeAndTheFileIsAsItWas) {
    const SilentServer server;
    write(directory() / "file", "what was there");
    ASSERT_EQ(tftp_timeout_set(1), 0);
    ASSERT_EQ(tftp_connect("127.0.0.1", server.port()), 0);
    const auto began = Clock::now();
    EXPECT_LT(tftp_get2("image.bin", (directory() / "file").c_str(), 0), 0);
    EXPECT_LT(Clock::now() - began, std::chrono::seconds(10));
    EXPECT_EQ(content(directory() / "file"), "what was there");
}

TEST_F(Files, AnAnswerOfAnotherAddressIsNotTaken) {
    const SilentServer server;
    ASSERT_EQ(tftp_timeout_set(1), 0);
    ASSERT_EQ(tftp_connect("127.0.0.1", server.port()), 0);
    const int other = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 1);
    ASSERT_EQ(bind(other, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    std::thread stranger([&] {
        const sockaddr_in client = server.client(5000);
        EXPECT_EQ(client.sin_family, AF_INET) << "no request";
        const char packet[] = {0, 3, 0, 1, 'x'};
        sendto(other, packet, sizeof packet, 0, reinterpret_cast<const sockaddr *>(&client),
               sizeof client);
    });
    EXPECT_LT(tftp_get2("image.bin", (directory() / "file").c_str(), 0), 0);
    stranger.join();
    close(other);
    EXPECT_FALSE(fs::exists(directory() / "file"));
}

TEST_F(Files, ALinkOnTheWayToADestinationIsNotFollowed) {
    const SilentServer server;
    fs::create_directory(directory() / "other");
    fs::create_directory_symlink("other", directory() / "link");
    ASSERT_EQ(tftp_timeout_set(1), 0);
    ASSERT_EQ(tftp_connect("127.0.0.1", server.port()), 0);
    EXPECT_EQ(tftp_get2("image.bin", (directory() / "link" / "file").c_str(), 0), -ELOOP);
    EXPECT_EQ(server.client(0).sin_family, 0) << "the server was asked";
}

TEST_F(Files, WhatIsNoRegularFileIsNotSentAndNotWaitedFor) {
    const SilentServer server;
    ASSERT_EQ(tftp_connect("127.0.0.1", server.port()), 0);
    ASSERT_EQ(mkfifo((directory() / "fifo").c_str(), 0600), 0);
    for (const fs::path &path : {directory() / "fifo", directory()})
        EXPECT_LT(tftp_put(path.c_str(), 0), 0) << path;
    EXPECT_EQ(server.client(0).sin_family, 0) << "the server was asked";
}

TEST_F(Files, AFileThatIsMissingHereIsNotSent) {
    const SilentServer server;
    ASSERT_EQ(tftp_timeout_set(1), 0);
    ASSERT_EQ(tftp_connect("127.0.0.1", server.port()), 0);
    EXPECT_EQ(tftp_put((directory() / "missing").c_str(), 0), -ENOENT);
}

} // namespace
