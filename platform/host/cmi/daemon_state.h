// How the file-system daemon stands, as the client of this process has found it.
#ifndef RUMA_HOST_CMI_DAEMON_STATE_H
#define RUMA_HOST_CMI_DAEMON_STATE_H

#include <ctime>
#include <string>

namespace ruma {

enum class DaemonState {
    unknown, // not asked yet
    up,
    down,      // nobody listens, or it closed the connection
    hung,      // it does not answer in time
    refusing,  // it does not answer this process's user
    untrusted, // it runs as a user who is not believed
};

// Asks the daemon for its first file system, as a station's walk begins, whatever the answer: the
// state is known then. Returns whether there is one. Blocks as cmi_req_resp.
bool daemon_has_a_device();

// The state as of the last request, and since when it has been.
DaemonState daemon_state();
std::time_t daemon_state_since();

// Notes what a request has found, with what there is to say about it. A change is logged: that all
// is well again at once, what is wrong at most once in ten seconds. Throws std::bad_alloc.
void note_daemon_state(DaemonState state, const std::string &detail);

} // namespace ruma

#endif
