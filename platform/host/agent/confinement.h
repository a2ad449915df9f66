// What the agent and the workers of its copies may still do once they are confined.
#ifndef RUMA_HOST_AGENT_CONFINEMENT_H
#define RUMA_HOST_AGENT_CONFINEMENT_H

#include "sandbox/landlock.h"

#include <string>
#include <vector>

namespace ruma {

// All of these may throw std::bad_alloc, and block on nothing but the file system.

// The agent, as it is configured and running at this moment. To be called when it has its user, and
// its sockets, log files and pid file are there: what it needs to begin is not allowed to it any
// more. It may change files where its work needs it and nowhere else; reading, starting programs
// and the network are not restricted.
Confinement agent_confinement();

// A worker, right after the fork, as the agent's user and within what the agent may do. It changes
// regular files only, and starts only what the transfers need. Whether it keeps known host keys in
// the state directory or in the run directory is decided anew at each call, thus at each fork.
Confinement worker_confinement();

// Where the scripts keep the known host keys: the state directory or, where there is none at this
// moment, one of their own in the run directory. The run directory itself holds what a station's
// command must not reach, the event history that the agent has mapped for one.
std::string known_hosts_directory();

// Makes the latter where it is missing, for a worker that is about to be confined: afterwards it
// may make files only. One that cannot be made is left to the scripts, which say so.
void make_known_hosts_directory();

// The directories of sockets in a list of transport addresses, as the agent's configuration has
// them: "unix:/var/agentx/master,tcp:localhost:705" holds one, "/var/agentx".
std::vector<std::string> socket_directories(const std::string &addresses);

} // namespace ruma

#endif
