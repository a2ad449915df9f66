// Who sent the request that the agent is serving.
#ifndef RUMA_HOST_AGENT_REQUEST_H
#define RUMA_HOST_AGENT_REQUEST_H

#include "evwrap/row.h"

#include <ruma/agent.h>

namespace ruma {

// Notes the request whose access the agent checks. Each request has a check of its own before any
// handler runs, which replaces the note of the one before.
void enter_request(const netsnmp_pdu &pdu);

// Forgets the request: the agent has answered it.
void leave_request();

// Whether the agent is serving a request.
bool serving_request();

// The row that the request names whose write method runs: of no table outside write methods, and
// when the request names more than one row or more than 64 variables.
TracedRow row_of_request();

} // namespace ruma

#endif
