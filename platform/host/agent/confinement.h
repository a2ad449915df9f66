// What the agent and the workers of its copies may still do once they are confined.
#ifndef RUMA_HOST_AGENT_CONFINEMENT_H
#define RUMA_HOST_AGENT_CONFINEMENT_H

#include "sandbox/landlock.h"

#include <string>
#include <vector>

namespace ruma {

// The agent, as it is configured and running at this moment: its sockets, log files and pid file
// are there. It may change files where its work needs it and nowhere else; reading, starting
// programs and the network are not restricted.
Confinement agent_confinement();

// A worker, right after the fork, within what the agent may do. It changes regular files only, and
// starts only what the transfers need.
Confinement worker_confinement();

// The directories of sockets in a list of transport addresses, as the agent's configuration has
// them: "unix:/var/agentx/master,tcp:localhost:705" holds one, "/var/agentx".
std::vector<std::string> socket_directories(const std::string &addresses);

} // namespace ruma

#endif
