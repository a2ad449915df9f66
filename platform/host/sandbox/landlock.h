// A process that gives up rights for good, by Landlock: the kernel then refuses, with EACCES or
// EPERM, what no rule allows, to it and to all that it starts.
//
// No ABI restricts changes of a file's mode, owner, times and attributes, nor what is done with a
// descriptor that is open already.
#ifndef RUMA_HOST_SANDBOX_LANDLOCK_H
#define RUMA_HOST_SANDBOX_LANDLOCK_H

#include "sandbox/landlock_rights.h"

#include <string>
#include <vector>

namespace ruma {

// Allows rights to a file, or beneath a directory. Links are followed. The rule holds for what the
// path names when the process confines itself: not for a file that is put in its place later, nor
// for a file system that is mounted there later.
struct PathRule {
    std::string path;
    uint64_t rights; // those that are not denied, or not for such a file, are ignored
};

struct Confinement {
    LandlockRights denied;
    std::vector<PathRule> rules;
};

struct ConfinementState {
    enum class Kind {
        none,        // not asked for, or not yet
        unavailable, // asked for, but the kernel has no Landlock
        failed,      // asked for and refused
        confined,
    };
    Kind kind = Kind::none;
    int abi = 0;                      // the kernel's, when confined
    std::string open;                 // what was to be denied and is not, as by left_open
    std::vector<std::string> skipped; // paths of rules: "/", which would allow everything
    bool threads = false;             // the process has others, which are not confined
};

// The version of Landlock that the running kernel has; 0 without.
int landlock_abi();

// Confines the calling thread, and what it starts from now on, as far as the kernel can. Sets
// no_new_privs: no program that is started gains rights by its file's owner or capabilities. Paths
// that do not exist are left out. Each call narrows; the kernel allows 16.
//
// Returns the state, which is confined or unavailable. Throws std::system_error with what went
// wrong when the kernel has Landlock but refuses; the state is failed then, and no_new_privs may be
// set.
const ConfinementState &confine(const Confinement &confinement);

// What the last call of confine() in this process, or in the one that it was forked from, has come
// to.
const ConfinementState &confinement_state();

} // namespace ruma

#endif
