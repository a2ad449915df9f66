// The platform's own look at what the module keeps, which must not read as the module's doing.
#ifndef RUMA_HOST_QUIET_H
#define RUMA_HOST_QUIET_H

namespace ruma {

// While one exists, the trace facility takes nothing: neither into the event history nor for the
// debug printer. For the agent's one thread.
class QuietTracing {
  public:
    QuietTracing();
    ~QuietTracing();
    QuietTracing(const QuietTracing &) = delete;
    QuietTracing &operator=(const QuietTracing &) = delete;
};

} // namespace ruma

#endif
