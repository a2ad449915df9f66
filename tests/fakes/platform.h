// The platform interfaces (ruma/*.h) in memory: every call is recorded with its arguments in order,
// and every call can be scripted. A typical test:
//
//     #include "fakes/fixture.h"              // brings platform.h and system.h
//     #include "flash_copy.h"
//
//     using CopyTest = fakes::FlashTest;      // resets the fakes, empties both row stores
//
//     TEST_F(CopyTest, AFailedDownloadOfAMissingFileIsAnInvalidSourceName) {
//         flashCopyEntry row = fakes::copy_row([](flashCopyEntry &r) {
//             r.protocol = flash::protocolTftp;
//             fakes::put(r.sourceName, "image.bin");
//         });
//         fakes::platform().tftp_get2.returns(-2);
//
//         EXPECT_EQ(do_flash_upload_download(1, ".", &row), flash::failure);
//
//         EXPECT_EQ(row.copyStatus, flash::copyInvalidSourceName);
//         EXPECT_TRUE(fakes::traced(101, "ERROR : do_flash_upload_download : ...\n"));
//         EXPECT_EQ(fakes::calls("tftp_"),
//                   (fakes::Lines{"tftp_timeout_set seconds=20",
//                                 "tftp_connect server=10.0.0.1 port=-1",
//                                 "tftp_get2 remote=image.bin local=/bootflash/x flags=0", ...}));
//     }
//
// What is recorded
//     fakes::calls()         every call of the platform and every intercepted call of system.h, one
//                            line each, in order: `name argument=value ...`. calls("pmb_") gives
//                            those whose line begins so. Container and trace calls are not in it.
//     fakes::traces()        the event history, as {subtype, text}; traced(100, "text") asks for
//                            one, trace_count(100, "text") counts.
//     platform().debug       what went to dbgout, as {level, module, text}
//     platform().records     the event history's records, byte for byte
//     fakes::container_calls(), fakes::trace_calls()
//                            the ordset_ calls; the evwrap_ and dbgout calls
//     fakes::everything()    all of them in one order; a stored trace reads `trace 101 text`, what
//                            was written to a standard stream `stdout text` or `stderr text`
//     fakes::sequence()      the same without the trace facility's calls; see sequence.h
//     platform().requests, .sent, .errors
//                            daemon requests, sent messages and error records as structures
//
// What is scripted: the members of Platform. Each procedure is a Call (call.h); what it does when
// left alone stands beside it. reset() puts everything back; FlashTest does that before each test.
// Results that a test does not care about are success.
#ifndef FAKES_PLATFORM_H
#define FAKES_PLATFORM_H

#include "fakes/call.h"

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

#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

// A message as pmb_payload_get sees it: fakes::message({2, 7, 4242}) makes one of 32-bit words in
// host byte order. Shorten `length` for a message that is cut off.
struct pmb_message {
    std::vector<int32_t> words;
    uint32_t length = 0; // bytes
};

namespace fakes {

using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

struct Trace {
    uint32_t subtype;
    std::string text;
    bool operator==(const Trace &) const = default;
};
using Traces = std::vector<Trace>;
std::ostream &operator<<(std::ostream &out, const Trace &trace);

// A record of the event history as it was stored.
struct HistoryRecord {
    uint32_t trace_id;
    Bytes bytes;
};

struct DebugLine {
    int level;
    std::string module;
    std::string text;
    bool operator==(const DebugLine &) const = default;
};
std::ostream &operator<<(std::ostream &out, const DebugLine &line);

// One call of cmi_req_resp.
struct DaemonRequest {
    uint32_t opcode;
    uint32_t message_type;
    Bytes record; // the request buffer
    uint32_t length;
    std::string client;
    int flags;
    int timeout;
    int response_queue;
    int options;

    // A word of the request buffer: word(0) is the first key.
    uint32_t word(std::size_t n) const {
        uint32_t value = 0;
        std::memcpy(&value, record.data() + 4 * n, sizeof value);
        return value;
    }
};

// What the daemon answers: answer(record) for success, no_answer() for failure. The response is
// allocated as large as `response` is, so a sanitizer sees every byte read beyond it.
struct DaemonAnswer {
    int result = 0;
    std::optional<Bytes> response;  // none: the response address is set to null
    std::optional<uint32_t> length; // what the length comes back as; none: the response's size
};

template <class Record>
Bytes bytes_of(const Record &record) {
    const auto *begin = reinterpret_cast<const uint8_t *>(&record);
    return Bytes(begin, begin + sizeof record);
}
template <class Record>
DaemonAnswer answer(const Record &record) {
    return {0, bytes_of(record), std::nullopt};
}
inline DaemonAnswer no_answer(int result = -1) { return {result, std::nullopt, std::nullopt}; }

struct SentMessage {
    int handle;
    uint32_t node;
    uint32_t sap;
    uint32_t opcode;
    Bytes payload;
    pmb_send_options options;

    int32_t word(std::size_t n) const {
        int32_t value = 0;
        std::memcpy(&value, payload.data() + 4 * n, sizeof value);
        return value;
    }
};

struct Platform {
    // Trace facility. The history takes everything, debug printing is off.
    bool history_on = true;
    bool debug_on = false;
    Call<int(uint32_t, uint32_t)> evwrap_hist_event_subtype_check;
    Call<int(int, int, int, int)> evwrap_chk_int;
    std::vector<HistoryRecord> records;
    std::vector<DebugLine> debug;

    // The agent's additions.
    std::string username = "operator";                   // get_snmp_username
    int32_t session = 12;                                // get_snmp_sessionid
    std::vector<snmp_error_record> errors;               // what log_snmp_error was given
    Call<int(const snmp_error_record *)> log_snmp_error; // 0
    // A real binding, or null when the test says so.
    Call<netsnmp_variable_list *(netsnmp_variable_list *, const void *, unsigned char, size_t,
                                 const oid *, size_t)>
        build_varbind;

    // Container: a working one.
    Call<int(ordset *, int, int, ordset_compare, int)> ordset_create;
    Call<void *(ordset *, const void *, void *)> ordset_add;
    Call<void *(const ordset *, const void *, int)> ordset_find;
    Call<void *(const ordset *, const void *)> ordset_find_nextgreater;
    Call<void *(const ordset *, uint32_t)> ordset_find_nth_obj;
    Call<void *(ordset *, const void *)> ordset_remove;
    Call<uint32_t(const ordset *)> ordset_size;

    // Daemon: the queue first, then the procedure; without either every request fails with -1.
    std::deque<DaemonAnswer> answers;
    std::function<DaemonAnswer(const DaemonRequest &)> daemon;
    std::vector<DaemonRequest> requests;

    // Message service.
    Call<int(int, int, const pmb_queue_attributes *, const char *)> pmb_bind; // handle 3
    Call<int(int, uint32_t, uint32_t, uint32_t, const void *, uint32_t, const pmb_send_options *)>
        pmb_send;                                                        // 0
    Call<int(int, int)> pmb_unbind;                                      // 0
    Call<const void *(const pmb_message *, uint32_t *)> pmb_payload_get; // the message's words
    std::vector<SentMessage> sent;

    // Error texts: these, and for a code that is not in the table "text of 0x4049001d" from
    // syserr_format, "name of 0x4049001d" from syserr2str.
    std::map<int32_t, std::string> error_formats;
    std::map<int32_t, std::string> error_names;

    // System log dump: 0.
    Call<int32_t(const syslog_dump_request *, const char *, const char *, int, int, int)>
        syslog_disp_logfile;

    // TFTP: every result 0. The text of a result is "tftp text -2" or what the table says.
    Call<int(int)> tftp_timeout_set;
    Call<int(const char *, int)> tftp_connect;
    Call<int(const char *, const char *, int)> tftp_get2;
    Call<int(const char *, int)> tftp_put;
    std::map<int, std::string> tftp_texts;

    // Resolvers: these tables; a name that is not in its table is answered with its error. A path
    // is cut to the buffer, as the interface promises.
    std::map<std::string, std::string> paths; // uriutil_uri_to_path
    int32_t uri_error = 0x41000001;
    std::map<std::string, int32_t> file_types; // uriutil_stat_get, 32 a directory
    int32_t stat_error = 0x41000002;
    std::map<std::string, std::string> core_paths; // svcmgrcmi_core_uri_to_path
    int32_t core_result = 0; // for a name in the table, whose path is filled in for any result
    int32_t core_error = 0x41000003;
    Call<int32_t(const char *, char *, size_t, int)> uriutil_uri_to_path;
    Call<int32_t(const char *, uriutil_stat *, int)> uriutil_stat_get;
    Call<int32_t(int, const char *, svcmgr_path *)> svcmgrcmi_core_uri_to_path;

    Platform();
};

constexpr int response_queue = 77;               // what pmb_response_q holds
constexpr const char *module_name = "flash_mib"; // what evwrap_dbg_modname points to
constexpr uint32_t trace_id = 0x730000;

Platform &platform();

// Puts every script back and forgets what was recorded, of system.h and module.h too. Containers
// keep their objects: they belong to the module.
void reset();

// Forgets what was recorded; scripts stay.
void forget();

Lines calls(std::string_view prefix = "");
Lines container_calls(std::string_view prefix = "");
Lines trace_calls(std::string_view prefix = "");
Lines everything();
Lines sequence();

Traces traces();
Trace last_trace(); // {0, ""} when there is none
bool traced(uint32_t subtype, std::string_view text);
int trace_count(uint32_t subtype, std::string_view text);
Lines trace_texts(uint32_t subtype);

pmb_message message(std::vector<int32_t> words);

// An OID in dotted decimal, as it stands in the recorded lines.
std::string oid_text(const oid *name, size_t length);

// Daemon responses handed out and not yet released by the module.
std::size_t unreleased_responses();

// For the fakes themselves: adds a line to the record.
enum class Kind { call, container, trace_call, trace, output };
__attribute__((format(printf, 2, 3))) void record(Kind kind, const char *format, ...);

// The same for what is written to a standard stream. Pieces of a line become one.
void record_output(const char *stream, std::string_view text);

} // namespace fakes

#endif
