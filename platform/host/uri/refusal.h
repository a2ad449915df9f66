// Why a device URI is refused, in more detail than a platform code holds.
#ifndef RUMA_HOST_URI_REFUSAL_H
#define RUMA_HOST_URI_REFUSAL_H

#include <cstdint>
#include <string>

namespace ruma {

enum class UriKind { device, core };

struct Refusal {
    int32_t code = 0;       // platform error code; 0: the URI resolves
    int error = 0;          // the errno behind it, 0 when there is none
    std::string path;       // what the errno is about
    bool directory = false; // the URI resolves, to a directory
};

// Resolves a URI as uriutil_uri_to_path or svcmgrcmi_core_uri_to_path would. Blocks no longer than
// the file system does. Throws std::bad_alloc.
Refusal why_refused(const char *uri, UriKind kind);

} // namespace ruma

#endif
