// Texts of the codes that the platform and its modules use.
#include "ruma/syserr.h"

#include "syserr/codes.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <iterator>
#include <string_view>

namespace {

struct Text {
    int32_t code;
    const char *name;
    const char *sentence;
};

// Sentences hold no comma, which the error log would have to escape, and need no more bytes than
// the module enters into an error record.
constexpr std::size_t max_sentence = 200;

constexpr Text texts[] = {
    {ruma::success, "SUCCESS", "The operation succeeded."},

    // SNMP statuses, which reach the same procedures.
    {1, "tooBig", "The response would not fit into a message."},
    {2, "noSuchName", "The request names an object that does not exist."},
    {3, "badValue", "The value does not fit the object."},
    {4, "readOnly", "The object cannot be written."},
    {5, "genErr", "The request failed for a reason that has no status of its own."},
    {6, "noAccess", "The object is not accessible."},
    {7, "wrongType", "The value has the wrong type for the object."},
    {8, "wrongLength", "The value has the wrong length for the object."},
    {9, "wrongEncoding", "The value is not encoded correctly."},
    {10, "wrongValue", "The object does not take this value."},
    {11, "noCreation", "The object does not exist and cannot be created."},
    {12, "inconsistentValue", "The object does not take this value in its present state."},
    {13, "resourceUnavailable", "A resource that the request needs is not available."},
    {14, "commitFailed", "The change could not be carried out."},
    {15, "undoFailed", "The change failed and could not be taken back."},
    {16, "authorizationError", "The user is not allowed to do this."},
    {17, "notWritable", "The object cannot be written."},
    {18, "inconsistentName", "The object cannot be created in the present state."},

    // The flash module.
    {0x40490001, "general failure", "The operation on the table row or the file failed."},
    {0x40490002, "no such row", "The table has no such row."},
    {0x4049001C, "invalid source file",
     "The source file name is invalid or does not name a file of this device."},
    {0x4049001D, "invalid destination file",
     "The destination file name is invalid or its directory does not exist."},
    {0x4049003C, "protocol not supported", "The transfer protocol is not supported."},
    {0x4049003E, "another copy in progress",
     "Another copy is in progress; only one may run at a time."},

    // The system manager.
    {0x401E0059, "core file resolved",
     "The core-file URI was resolved by another service of the platform."},

    // The host platform.
    {ruma::uri_bad_argument, "bad argument", "The call lacks a file name or a place for a result."},
    {ruma::uri_malformed, "malformed file name",
     "The file name is not of the form \"scheme:path\" or holds \"..\" or a control character."},
    {ruma::uri_unknown_scheme, "unknown scheme", "This device has no file system of that name."},
    {ruma::uri_outside, "outside the file system",
     "The file name leads outside its file system through a link."},
    {ruma::uri_no_directory, "no such directory",
     "The directory of the file or that of the file system does not exist."},
    {ruma::uri_not_found, "no such file", "There is no file of that name."},
    {ruma::uri_too_long, "file name too long", "The file name or its local path is too long."},
    {ruma::uri_refused, "access refused", "The operating system refused access to the file."},
    {ruma::uri_no_memory, "out of memory", "There is not enough memory to look up the file."},
    {ruma::uri_no_core_files, "no core files", "This device is not configured to keep core files."},
    {ruma::uri_not_a_file, "not a regular file", "The name is not that of a regular file."},
    {ruma::uri_foreign_character, "foreign character in the path",
     "The local path of the file holds a character that neither its name nor the configuration "
     "does."},
    {ruma::log_bad_request, "bad log request", "The request for a log dump is not understood."},
    {ruma::log_not_found, "no system log", "The system log does not exist."},
    {ruma::log_not_a_file, "system log not a file", "The system log is not a regular file."},
    {ruma::log_unreadable, "system log unreadable", "The system log could not be read."},
    {ruma::log_output_failed, "log not written",
     "The log dump could not be written to its output file."},
    {ruma::log_no_space, "no space for the log", "There is not enough space for the log dump."},
};

static_assert(std::all_of(std::begin(texts), std::end(texts), [](const Text &text) {
    const std::string_view sentence = text.sentence;
    return sentence.size() <= max_sentence && sentence.find(',') == sentence.npos;
}));

const Text *find(int32_t code) {
    for (const Text &text : texts) {
        if (text.code == code)
            return &text;
    }
    return nullptr;
}

const char *unknown(int32_t code) {
    static char buffer[32];
    std::snprintf(buffer, sizeof(buffer), "unknown error 0x%08" PRIX32,
                  static_cast<uint32_t>(code));
    return buffer;
}

} // namespace

extern "C" {

const char *syserr2str(int32_t code) {
    const Text *text = find(code);
    return text == nullptr ? unknown(code) : text->name;
}

const char *syserr_format(int32_t code) {
    const Text *text = find(code);
    return text == nullptr ? unknown(code) : text->sentence;
}

} // extern "C"
