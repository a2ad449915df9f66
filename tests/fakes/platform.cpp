#include "fakes/platform.h"

#include "fakes/module.h"
#include "fakes/system.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace fakes {

namespace {

struct Line {
    Kind kind;
    std::string text;
};

// The record of one test, in the order of the calls.
std::vector<Line> &lines() {
    static auto &all = *new std::vector<Line>; // never destroyed: calls come until the end
    return all;
}

struct Tree {
    ordset_compare compare = nullptr;
    std::vector<void *> objects;

    std::vector<void *>::iterator lower(const void *key) {
        return std::lower_bound(objects.begin(), objects.end(), key,
                                [this](const void *a, const void *b) { return compare(a, b) < 0; });
    }
    std::vector<void *>::iterator find(const void *key) {
        auto at = lower(key);
        return at != objects.end() && compare(*at, key) == 0 ? at : objects.end();
    }
};

// Trees by their set: they outlive a reset, as the sets do.
std::map<const ordset *, Tree> &trees() {
    static auto &all = *new std::map<const ordset *, Tree>;
    return all;
}

Tree *tree_of(const ordset *set) { return static_cast<Tree *>(set->tree); }

Lines select(Kind kind, std::string_view prefix) {
    Lines result;
    for (const Line &line : lines())
        if (line.kind == kind && line.text.compare(0, prefix.size(), prefix) == 0)
            result.push_back(line.text);
    return result;
}

std::string hex(const void *bytes, size_t length) {
    std::string text;
    char digits[3];
    for (size_t i = 0; i < length; ++i) {
        std::snprintf(digits, sizeof digits, "%02x", static_cast<const uint8_t *>(bytes)[i]);
        text += digits;
    }
    return text;
}

std::string formatted(const char *format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

// The text of a code, kept in `text`.
template <class Code>
const char *text_of(std::string &text, const std::map<Code, std::string> &table, Code code,
                    const char *format) {
    if (auto found = table.find(code); found != table.end()) {
        text = found->second;
    } else {
        char buffer[64];
        std::snprintf(buffer, sizeof buffer, format, static_cast<unsigned int>(code));
        text = buffer;
    }
    return text.c_str();
}

} // namespace

Platform::Platform()
    : evwrap_hist_event_subtype_check(
          [](uint32_t, uint32_t) { return platform().history_on ? 1 : 0; }),
      evwrap_chk_int([](int, int, int, int) { return platform().debug_on ? 1 : 0; }),
      log_snmp_error([](const snmp_error_record *) { return 0; }),
      build_varbind([](netsnmp_variable_list *list, const void *value, unsigned char type,
                       size_t length, const oid *name, size_t name_length) {
          snmp_varlist_add_variable(&list, name, name_length, type, value, length);
          return list;
      }),
      ordset_create([](ordset *set, int, int, ordset_compare compare, int) {
          Tree &tree = trees()[set];
          tree = Tree{compare, {}};
          set->tree = &tree;
          return 0;
      }),
      ordset_add([](ordset *set, const void *key, void *object) -> void * {
          Tree *tree = tree_of(set);
          if (tree == nullptr)
              return nullptr;
          auto at = tree->lower(key);
          if (at != tree->objects.end() && tree->compare(*at, key) == 0)
              return *at;
          tree->objects.insert(at, object);
          return object;
      }),
      ordset_find([](const ordset *set, const void *key, int) -> void * {
          Tree *tree = tree_of(set);
          if (tree == nullptr)
              return nullptr;
          auto at = tree->find(key);
          return at == tree->objects.end() ? nullptr : *at;
      }),
      ordset_find_nextgreater([](const ordset *set, const void *key) -> void * {
          Tree *tree = tree_of(set);
          if (tree == nullptr)
              return nullptr;
          auto at = tree->lower(key);
          if (at != tree->objects.end() && tree->compare(*at, key) == 0)
              ++at;
          return at == tree->objects.end() ? nullptr : *at;
      }),
      ordset_find_nth_obj([](const ordset *set, uint32_t n) -> void * {
          Tree *tree = tree_of(set);
          return tree == nullptr || n == 0 || n > tree->objects.size() ? nullptr
                                                                       : tree->objects[n - 1];
      }),
      ordset_remove([](ordset *set, const void *key) -> void * {
          Tree *tree = tree_of(set);
          if (tree == nullptr)
              return nullptr;
          auto at = tree->find(key);
          if (at == tree->objects.end())
              return nullptr;
          void *object = *at;
          tree->objects.erase(at);
          return object;
      }),
      ordset_size([](const ordset *set) {
          return set->tree == nullptr
                     ? uint32_t{0}
                     : static_cast<uint32_t>(static_cast<Tree *>(set->tree)->objects.size());
      }),
      pmb_bind([](int, int, const pmb_queue_attributes *, const char *) { return 3; }),
      pmb_send([](int, uint32_t, uint32_t, uint32_t, const void *, uint32_t,
                  const pmb_send_options *) { return 0; }),
      pmb_unbind([](int, int) { return 0; }),
      pmb_payload_get([](const pmb_message *received, uint32_t *length) -> const void * {
          *length = received->length;
          return received->words.data();
      }),
      syslog_disp_logfile(
          [](const syslog_dump_request *, const char *, const char *, int, int, int) { return 0; }),
      tftp_timeout_set([](int) { return 0; }), tftp_connect([](const char *, int) { return 0; }),
      tftp_get2([](const char *, const char *, int) { return 0; }),
      tftp_put([](const char *, int) { return 0; }),
      uriutil_uri_to_path([](const char *uri, char *path, size_t size, int) {
          auto found = platform().paths.find(uri);
          if (found == platform().paths.end())
              return platform().uri_error;
          std::snprintf(path, size, "%s", found->second.c_str());
          return int32_t{0};
      }),
      uriutil_stat_get([](const char *uri, uriutil_stat *stat, int) {
          auto found = platform().file_types.find(uri);
          if (found == platform().file_types.end())
              return platform().stat_error;
          *stat = uriutil_stat{};
          stat->file_type = found->second;
          return int32_t{0};
      }),
      svcmgrcmi_core_uri_to_path([](int, const char *uri, svcmgr_path *path) {
          auto found = platform().core_paths.find(uri);
          if (found == platform().core_paths.end())
              return platform().core_error;
          std::snprintf(path->text, sizeof path->text, "%s", found->second.c_str());
          return platform().core_result;
      }) {}

Platform &platform() {
    static auto &instance = *new Platform;
    return instance;
}

void reset() {
    platform() = Platform();
    reset_system();
    reset_module();
    lines().clear();
}

void forget() {
    lines().clear();
    platform().records.clear();
    platform().debug.clear();
    platform().requests.clear();
    platform().sent.clear();
    platform().errors.clear();
    forget_system();
}

void record(Kind kind, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    lines().push_back({kind, formatted(format, arguments)});
    va_end(arguments);
}

void record_output(const char *stream, std::string_view text) {
    const std::string beginning = std::string(stream) + ' ';
    if (!lines().empty()) {
        Line &last = lines().back();
        if (last.kind == Kind::output && last.text.starts_with(beginning) &&
            !last.text.ends_with('\n')) {
            last.text += text;
            return;
        }
    }
    lines().push_back({Kind::output, beginning + std::string(text)});
}

Lines calls(std::string_view prefix) { return select(Kind::call, prefix); }
Lines container_calls(std::string_view prefix) { return select(Kind::container, prefix); }
Lines trace_calls(std::string_view prefix) { return select(Kind::trace_call, prefix); }

Lines everything() {
    Lines result;
    for (const Line &line : lines())
        result.push_back(line.text);
    return result;
}

Lines sequence() {
    Lines result;
    for (const Line &line : lines())
        if (line.kind != Kind::trace_call)
            result.push_back(line.text);
    return result;
}

Traces traces() {
    Traces result;
    for (const HistoryRecord &stored : platform().records) {
        Trace trace{0, {}};
        if (stored.bytes.size() >= sizeof trace.subtype) {
            std::memcpy(&trace.subtype, stored.bytes.data(), sizeof trace.subtype);
            const char *text = reinterpret_cast<const char *>(stored.bytes.data()) + 4;
            trace.text = std::string(text, strnlen(text, stored.bytes.size() - 4));
        }
        result.push_back(trace);
    }
    return result;
}

int trace_count(uint32_t subtype, std::string_view text) {
    int count = 0;
    for (const Trace &trace : traces())
        count += trace.subtype == subtype && trace.text == text ? 1 : 0;
    return count;
}

Trace last_trace() {
    const Traces all = traces();
    return all.empty() ? Trace{0, {}} : all.back();
}

bool traced(uint32_t subtype, std::string_view text) { return trace_count(subtype, text) > 0; }

Lines trace_texts(uint32_t subtype) {
    Lines result;
    for (const Trace &trace : traces())
        if (trace.subtype == subtype)
            result.push_back(trace.text);
    return result;
}

pmb_message message(std::vector<int32_t> words) {
    const auto length = static_cast<uint32_t>(words.size() * sizeof(int32_t));
    return {std::move(words), length};
}

std::string oid_text(const oid *name, size_t length) {
    std::string text;
    for (size_t i = 0; i < length; ++i) {
        if (i > 0)
            text += '.';
        text += std::to_string(name[i]);
    }
    return text;
}

std::size_t unreleased_responses() { return watched_allocations(); }

std::ostream &operator<<(std::ostream &out, const Trace &trace) {
    return out << "{" << trace.subtype << ", \"" << trace.text << "\"}";
}

std::ostream &operator<<(std::ostream &out, const DebugLine &line) {
    return out << "{" << line.level << ", " << line.module << ", \"" << line.text << "\"}";
}

} // namespace fakes

using fakes::Kind;
using fakes::platform;
using fakes::record;

int pmb_response_q = fakes::response_queue;
const char *const evwrap_dbg_modname = fakes::module_name;

// Keys and objects of the module's containers begin with the row index.
static uint32_t key_of(const void *key) {
    uint32_t value = 0;
    if (key != nullptr)
        std::memcpy(&value, key, sizeof value);
    return value;
}

int evwrap_hist_event_subtype_check(uint32_t trace_id, uint32_t subtype) {
    record(Kind::trace_call, "evwrap_hist_event_subtype_check id=%#x subtype=%u", trace_id,
           subtype);
    return platform().evwrap_hist_event_subtype_check(trace_id, subtype);
}

void evwrap_hist_event(uint32_t trace_id, const void *event, uint32_t length) {
    const auto *bytes = static_cast<const uint8_t *>(event);
    record(Kind::trace_call, "evwrap_hist_event id=%#x length=%u", trace_id, length);
    platform().records.push_back({trace_id, fakes::Bytes(bytes, bytes + length)});
    const fakes::Trace trace = fakes::traces().back();
    record(Kind::trace, "trace %u %s", trace.subtype, trace.text.c_str());
}

int evwrap_chk_int(int subtype, int instance, int flags, int level) {
    record(Kind::trace_call, "evwrap_chk_int subtype=%d %d %d %d", subtype, instance, flags, level);
    return platform().evwrap_chk_int(subtype, instance, flags, level);
}

void dbgout(int level, const char *module, const char *format, va_list arguments) {
    const std::string text = fakes::formatted(format, arguments);
    record(Kind::trace_call, "dbgout level=%d module=%s text=%s", level, module, text.c_str());
    platform().debug.push_back({level, module, text});
}

const char *get_snmp_username(int request) {
    record(Kind::call, "get_snmp_username request=%d", request);
    return platform().username.c_str();
}

int32_t get_snmp_sessionid(int request) {
    record(Kind::call, "get_snmp_sessionid request=%d", request);
    return platform().session;
}

int log_snmp_error(const struct snmp_error_record *error) {
    record(Kind::call, "log_snmp_error code=%#x text=%.*s", static_cast<unsigned int>(error->code),
           static_cast<int>(strnlen(error->text, sizeof error->text)), error->text);
    platform().errors.push_back(*error);
    return platform().log_snmp_error(error);
}

netsnmp_variable_list *build_varbind(netsnmp_variable_list *list, const void *value,
                                     unsigned char type, size_t length, const oid *name,
                                     size_t name_length) {
    record(Kind::call, "build_varbind list=%s value=%s type=%#x length=%zu name=%s",
           list == nullptr ? "null" : "given", fakes::hex(value, length).c_str(), type, length,
           fakes::oid_text(name, name_length).c_str());
    return platform().build_varbind(list, value, type, length, name, name_length);
}

int ordset_create(struct ordset *set, int kind, int keys, ordset_compare compare, int flags) {
    record(Kind::container, "ordset_create %d %d %s %d", kind, keys,
           compare == nullptr ? "null" : "compare", flags);
    return platform().ordset_create(set, kind, keys, compare, flags);
}

void *ordset_add(struct ordset *set, const void *key, void *object) {
    record(Kind::container, "ordset_add key=%u%s", key_of(key),
           key == object ? "" : " under another object");
    return platform().ordset_add(set, key, object);
}

void *ordset_find(const struct ordset *set, const void *key, int flags) {
    record(Kind::container, "ordset_find key=%u flags=%d", key_of(key), flags);
    return platform().ordset_find(set, key, flags);
}

void *ordset_find_nextgreater(const struct ordset *set, const void *key) {
    record(Kind::container, "ordset_find_nextgreater key=%u", key_of(key));
    return platform().ordset_find_nextgreater(set, key);
}

void *ordset_find_nth_obj(const struct ordset *set, uint32_t n) {
    record(Kind::container, "ordset_find_nth_obj n=%u", n);
    return platform().ordset_find_nth_obj(set, n);
}

void *ordset_remove(struct ordset *set, const void *key) {
    record(Kind::container, "ordset_remove key=%u", key_of(key));
    return platform().ordset_remove(set, key);
}

uint32_t ordset_size(const struct ordset *set) {
    record(Kind::container, "ordset_size");
    return platform().ordset_size(set);
}

int cmi_req_resp(uint32_t opcode, uint32_t message_type, const void *request, void **response,
                 uint32_t *length, const char *client, int flags, int timeout, int queue,
                 int options) {
    const auto *bytes = static_cast<const uint8_t *>(request);
    const fakes::DaemonRequest asked{opcode,  message_type, fakes::Bytes(bytes, bytes + *length),
                                     *length, client,       flags,
                                     timeout, queue,        options};
    record(Kind::call,
           "cmi_req_resp opcode=%#x type=%u keys=%u,%u,%u length=%u client=%s %d %d queue=%d %d",
           opcode, message_type, asked.word(0), asked.word(1), asked.word(2), *length, client,
           flags, timeout, queue, options);
    platform().requests.push_back(asked);

    fakes::DaemonAnswer answered = fakes::no_answer();
    if (!platform().answers.empty()) {
        answered = platform().answers.front();
        platform().answers.pop_front();
    } else if (platform().daemon) {
        answered = platform().daemon(asked);
    }
    *response = nullptr;
    if (answered.response) {
        *response = fakes::watched_copy(answered.response->data(), answered.response->size());
        *length = static_cast<uint32_t>(answered.response->size());
    }
    if (answered.length)
        *length = *answered.length;
    return answered.result;
}

int pmb_bind(int kind, int sap, const struct pmb_queue_attributes *attributes, const char *name) {
    record(Kind::call, "pmb_bind kind=%d sap=%d attributes=%d,%d,%d,%d,%d,%d name=%s", kind, sap,
           attributes->kind, attributes->flags, attributes->depth, attributes->reserved1,
           attributes->reserved2, attributes->priority, name);
    return platform().pmb_bind(kind, sap, attributes, name);
}

int pmb_send(int handle, uint32_t node, uint32_t sap, uint32_t opcode, const void *payload,
             uint32_t length, const struct pmb_send_options *options) {
    const auto *bytes = static_cast<const uint8_t *>(payload);
    std::string words;
    for (uint32_t at = 0; at + 4 <= length; at += 4) {
        int32_t value = 0;
        std::memcpy(&value, bytes + at, sizeof value);
        if (at > 0)
            words += ',';
        words += std::to_string(value);
    }
    record(Kind::call, "pmb_send handle=%d node=%#x sap=%u opcode=%u payload=%s length=%u", handle,
           node, sap, opcode, words.c_str(), length);
    platform().sent.push_back(
        {handle, node, sap, opcode, fakes::Bytes(bytes, bytes + length), *options});
    return platform().pmb_send(handle, node, sap, opcode, payload, length, options);
}

int pmb_unbind(int handle, int flags) {
    record(Kind::call, "pmb_unbind handle=%d flags=%d", handle, flags);
    return platform().pmb_unbind(handle, flags);
}

const void *pmb_payload_get(const struct pmb_message *received, uint32_t *length) {
    record(Kind::call, "pmb_payload_get");
    return platform().pmb_payload_get(received, length);
}

const char *syserr2str(int32_t code) {
    record(Kind::call, "syserr2str code=%#x", static_cast<unsigned int>(code));
    static std::string text;
    return fakes::text_of(text, platform().error_names, code, "name of %#x");
}

const char *syserr_format(int32_t code) {
    record(Kind::call, "syserr_format code=%#x", static_cast<unsigned int>(code));
    static std::string text;
    return fakes::text_of(text, platform().error_formats, code, "text of %#x");
}

int32_t syslog_disp_logfile(const struct syslog_dump_request *request, const char *log,
                            const char *output, int first, int last, int flags) {
    record(Kind::call, "syslog_disp_logfile user=%.*s session=%d kind=%d log=%s output=%s %d %d %d",
           static_cast<int>(strnlen(request->user, sizeof request->user)), request->user,
           request->session, request->kind, log, output, first, last, flags);
    return platform().syslog_disp_logfile(request, log, output, first, last, flags);
}

int tftp_timeout_set(int seconds) {
    record(Kind::call, "tftp_timeout_set seconds=%d", seconds);
    return platform().tftp_timeout_set(seconds);
}

int tftp_connect(const char *server, int port) {
    record(Kind::call, "tftp_connect server=%s port=%d", server, port);
    return platform().tftp_connect(server, port);
}

int tftp_get2(const char *remote, const char *local, int flags) {
    record(Kind::call, "tftp_get2 remote=%s local=%s flags=%d", remote, local, flags);
    return platform().tftp_get2(remote, local, flags);
}

int tftp_put(const char *file, int flags) {
    record(Kind::call, "tftp_put file=%s flags=%d", file, flags);
    return platform().tftp_put(file, flags);
}

const char *tftp_strerror(int result) {
    static std::string text;
    record(Kind::call, "tftp_strerror result=%d", result);
    auto found = platform().tftp_texts.find(result);
    text = found == platform().tftp_texts.end() ? "tftp text " + std::to_string(result)
                                                : found->second;
    return text.c_str();
}

int32_t uriutil_uri_to_path(const char *uri, char *path, size_t size, int flags) {
    record(Kind::call, "uriutil_uri_to_path uri=%s size=%zu flags=%d", uri, size, flags);
    return platform().uriutil_uri_to_path(uri, path, size, flags);
}

int32_t uriutil_stat_get(const char *uri, struct uriutil_stat *stat, int flags) {
    record(Kind::call, "uriutil_stat_get uri=%s flags=%d", uri, flags);
    return platform().uriutil_stat_get(uri, stat, flags);
}

int32_t svcmgrcmi_core_uri_to_path(int queue, const char *uri, struct svcmgr_path *path) {
    record(Kind::call, "svcmgrcmi_core_uri_to_path queue=%d uri=%s", queue, uri);
    return platform().svcmgrcmi_core_uri_to_path(queue, uri, path);
}
