// Device URIs and core-file URIs.
#include "ruma/uri.h"

#include "config/config.h"
#include "ruma/svcmgr.h"
#include "syserr/codes.h"
#include "uri/confine.h"
#include "uri/refusal.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <utility>

namespace {

constexpr std::string_view core_scheme = "core";

// The file type of anything but a directory.
constexpr int32_t type_regular = 1;

// What a local path may hold whoever named it: nothing that means something to a shell.
constexpr std::string_view harmless = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                      "0123456789._+,=@%/-";

struct Uri {
    std::string_view scheme;
    std::string_view path;
};

int32_t parse(const char *text, Uri *uri) {
    const size_t length = ::strnlen(text, PATH_MAX);
    if (length == PATH_MAX)
        return ruma::uri_too_long;
    const std::string_view whole(text, length);
    const auto control = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; };
    const size_t colon = whole.find(':');
    if (colon == 0 || colon == whole.npos || std::any_of(whole.begin(), whole.end(), control))
        return ruma::uri_malformed;
    *uri = {whole.substr(0, colon), whole.substr(colon + 1)};
    return ruma::success;
}

// Looks up the path of a URI below `directory`. Links are followed, so the local path can hold what
// nobody wrote who may ask for it: names that somebody gave to directories.
int32_t look_up(const std::string &directory, const char *text, const Uri &uri,
                ruma::Confined *result) {
    ruma::Confined found;
    const int32_t code = ruma::confine(directory, uri.path, &found);
    if (code != ruma::success) {
        result->error = found.error;
        return code;
    }
    const std::string known = std::string(harmless) + text + directory;
    if (found.path.find_first_not_of(known) != std::string::npos)
        return ruma::uri_foreign_character;
    // A FIFO would hold up whoever opens it, a device has no end.
    if (found.status && !S_ISREG(found.status->st_mode) && !S_ISDIR(found.status->st_mode))
        return ruma::uri_not_a_file;
    *result = std::move(found);
    return ruma::success;
}

// The configured directory of a scheme, the core files' included; null for an unknown scheme.
const std::string *directory_of(std::string_view scheme) {
    if (scheme == core_scheme)
        return &ruma::config().core_directory;
    for (const ruma::FileSystem &file_system : ruma::config().file_systems) {
        if (file_system.scheme == scheme)
            return &file_system.directory;
    }
    return nullptr;
}

int32_t resolve(const char *text, ruma::Confined *result) {
    Uri uri;
    const int32_t code = parse(text, &uri);
    if (code != ruma::success)
        return code;
    const std::string *directory = uri.scheme == core_scheme ? nullptr : directory_of(uri.scheme);
    return directory == nullptr ? int32_t{ruma::uri_unknown_scheme}
                                : look_up(*directory, text, uri, result);
}

int32_t resolve_core(const char *text, ruma::Confined *result) {
    Uri uri;
    int32_t code = parse(text, &uri);
    if (code != ruma::success)
        return code;
    if (uri.scheme != core_scheme)
        return ruma::uri_unknown_scheme;
    if (ruma::config().core_directory.empty())
        return ruma::uri_no_core_files;
    code = look_up(ruma::config().core_directory, text, uri, result);
    if (code != ruma::success)
        return code;
    if (!result->status)
        return ruma::uri_not_found;
    return S_ISREG(result->status->st_mode) ? ruma::success : ruma::uri_not_a_file;
}

// Copies a path out as a whole or not at all.
int32_t hand_out(const std::string &path, char *buffer, size_t size) {
    if (path.size() >= size)
        return ruma::uri_too_long;
    std::memcpy(buffer, path.c_str(), path.size() + 1);
    return ruma::success;
}

} // namespace

ruma::Refusal ruma::why_refused(const char *text, UriKind kind) {
    Confined found;
    Uri uri;
    Refusal refusal;
    refusal.code = kind == UriKind::core ? resolve_core(text, &found) : resolve(text, &found);
    refusal.directory = found.status && S_ISDIR(found.status->st_mode);
    refusal.error = found.error;
    if (refusal.error != 0 && parse(text, &uri) == success) {
        const std::string *directory = directory_of(uri.scheme);
        refusal.path = (directory != nullptr ? *directory + "/" : "") + std::string(uri.path);
    }
    return refusal;
}

extern "C" {

int32_t uriutil_uri_to_path(const char *uri, char *path, size_t size, int) {
    if (uri == nullptr || path == nullptr)
        return ruma::uri_bad_argument;
    try {
        ruma::Confined found;
        const int32_t code = resolve(uri, &found);
        return code == ruma::success ? hand_out(found.path, path, size) : code;
    } catch (const std::bad_alloc &) {
        return ruma::uri_no_memory;
    }
}

int32_t uriutil_stat_get(const char *uri, uriutil_stat *stat, int) {
    if (uri == nullptr || stat == nullptr)
        return ruma::uri_bad_argument;
    try {
        ruma::Confined found;
        const int32_t code = resolve(uri, &found);
        if (code != ruma::success)
            return code;
        if (!found.status)
            return ruma::uri_not_found;
        const mode_t mode = found.status->st_mode;
        stat->file_type = S_ISDIR(mode) ? int32_t{URIUTIL_TYPE_DIRECTORY} : type_regular;
        stat->mode = mode & 07777;
        stat->size = static_cast<uint64_t>(found.status->st_size);
        stat->modified = static_cast<int64_t>(found.status->st_mtim.tv_sec);
        return ruma::success;
    } catch (const std::bad_alloc &) {
        return ruma::uri_no_memory;
    }
}

int32_t svcmgrcmi_core_uri_to_path(int, const char *uri, svcmgr_path *path) {
    if (uri == nullptr || path == nullptr)
        return ruma::uri_bad_argument;
    try {
        ruma::Confined found;
        const int32_t code = resolve_core(uri, &found);
        return code == ruma::success ? hand_out(found.path, path->text, sizeof(path->text)) : code;
    } catch (const std::bad_alloc &) {
        return ruma::uri_no_memory;
    }
}

} // extern "C"
