// The checks: each adds to the findings what it has looked at, well or not.
#ifndef RUMA_DOCTOR_CHECKS_H
#define RUMA_DOCTOR_CHECKS_H

#include "installation.h"

namespace doctor {

void check_configuration(const Installation &installation, Findings &findings);
void check_flash_directories(const Installation &installation, Findings &findings);
void check_staging(const Installation &installation, Findings &findings);
void check_run_directory(const Installation &installation, Findings &findings);
void check_state_directory(const Installation &installation, Findings &findings);
void check_daemon(const Installation &installation, Findings &findings);
void check_agent(const Installation &installation, Findings &findings);
void check_modules(const Installation &installation, Findings &findings);
void check_access(const Installation &installation, Findings &findings);
void check_mibs(const Installation &installation, Findings &findings);
void check_programs(const Installation &installation, Findings &findings);
void check_scripts(const Installation &installation, Findings &findings);
void check_kernel(const Installation &installation, Findings &findings);

} // namespace doctor

#endif
