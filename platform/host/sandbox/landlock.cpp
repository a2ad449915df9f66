#include "sandbox/landlock.h"

#include "base/unique_fd.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>

namespace ruma {
namespace {

// The kernel's own record of ABI 6; the distribution's header knows its first word. A kernel takes
// words that it does not know as long as they are 0.
struct RulesetAttributes {
    uint64_t files;
    uint64_t network;
    uint64_t scope;
};

// Never destroyed: it may be asked for while the process ends.
ConfinementState &state = *new ConfinementState;

[[noreturn]] void fail(const std::string &what) {
    const int error = errno;
    throw std::system_error(error, std::generic_category(), what);
}

bool is_root_directory(const struct stat &status) {
    struct stat root {};
    return stat("/", &root) == 0 && root.st_dev == status.st_dev && root.st_ino == status.st_ino;
}

void add(int ruleset, const PathRule &rule, uint64_t handled) {
    const UniqueFd path(open(rule.path.c_str(), O_PATH | O_CLOEXEC));
    struct stat status {};
    if (!path || fstat(path.get(), &status) != 0)
        return; // nothing there to allow
    uint64_t rights = rule.rights & handled;
    if (!S_ISDIR(status.st_mode))
        rights &= rights_of_a_file;
    if (rights == 0)
        return;
    if (is_root_directory(status)) {
        state.skipped.push_back(rule.path);
        return;
    }
    landlock_path_beneath_attr beneath{};
    beneath.allowed_access = rights;
    beneath.parent_fd = path.get();
    if (syscall(SYS_landlock_add_rule, ruleset, LANDLOCK_RULE_PATH_BENEATH, &beneath, 0) != 0)
        fail("landlock_add_rule: " + rule.path);
}

bool has_other_threads() {
    std::error_code error;
    const std::filesystem::directory_iterator threads("/proc/self/task", error);
    return !error && std::distance(begin(threads), end(threads)) > 1;
}

void restrict_self(const Confinement &confinement, const LandlockRights &denied) {
    const RulesetAttributes attributes{denied.files, denied.network, denied.scope};
    const UniqueFd ruleset(
        static_cast<int>(syscall(SYS_landlock_create_ruleset, &attributes, sizeof attributes, 0)));
    if (!ruleset)
        fail("landlock_create_ruleset");
    for (const PathRule &rule : confinement.rules)
        add(ruleset.get(), rule, denied.files);
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
        fail("no_new_privs");
    if (syscall(SYS_landlock_restrict_self, ruleset.get(), 0) != 0)
        fail("landlock_restrict_self");
}

} // namespace

int landlock_abi() {
    const long abi =
        syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
    return abi > 0 ? static_cast<int>(abi) : 0;
}

const ConfinementState &confine(const Confinement &confinement) {
    state = {};
    state.abi = landlock_abi();
    state.open = left_open(confinement.denied, state.abi);
    if (state.abi == 0) {
        state.kind = ConfinementState::Kind::unavailable;
        return state;
    }
    state.kind = ConfinementState::Kind::failed;
    restrict_self(confinement, known_rights(confinement.denied, state.abi));
    state.threads = has_other_threads();
    state.kind = ConfinementState::Kind::confined;
    return state;
}

const ConfinementState &confinement_state() { return state; }

} // namespace ruma
