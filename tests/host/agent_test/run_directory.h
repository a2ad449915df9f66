// The run directory of the program, and the object of its bindings.
#ifndef HOST_AGENT_RUN_DIRECTORY_H
#define HOST_AGENT_RUN_DIRECTORY_H

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

namespace agent {

namespace fs = std::filesystem;

class RunDirectory : public testing::Environment {
  public:
    void SetUp() override {
        char path[] = "/tmp/agent_test.XXXXXX";
        ASSERT_NE(mkdtemp(path), nullptr);
        setenv("RUMA_RUN_DIR", path, 1);
        path_ = path;
        snmp_enable_filelog((path_ + "/agent.log").c_str(), 0);
    }
    void TearDown() override {
        snmp_disable_log();
        fs::remove_all(path_);
    }

  private:
    std::string path_;
};

inline const auto *const run_directory = testing::AddGlobalTestEnvironment(new RunDirectory);

const oid object[] = {1, 3, 6, 1, 4, 1, 32473, 7};

} // namespace agent

#endif
