#include "checks.h"

namespace doctor {

const std::vector<Check> checks = {
    {"configuration", check_configuration},
    {"flash", check_flash_directories},
    {"staging", check_staging},
    {"run", check_run_directory},
    {"state", check_state_directory},
    {"daemon", check_daemon},
    {"agent", check_agent},
    {"modules", check_modules},
    {"access", check_access},
    {"mibs", check_mibs},
    {"programs", check_programs},
    {"scripts", check_scripts},
    {"kernel", check_kernel},
};

} // namespace doctor
