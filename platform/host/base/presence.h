// Whether ruma_agent is there, without which the flash module does not do its work.
#ifndef RUMA_HOST_BASE_PRESENCE_H
#define RUMA_HOST_BASE_PRESENCE_H

namespace ruma {

// Says that ruma_agent has been loaded.
void agent_module_is_there();

// To be called by what the module uses while it serves requests, when every module has been loaded:
// warns, once, when ruma_agent has not been.
void miss_agent_module();

} // namespace ruma

#endif
