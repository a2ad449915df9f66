// Whether the directories of the file systems are the agent's own: the module works by path, and
// who can write a directory on the way can put another file in the place of the one that was meant.
#ifndef RUMA_HOST_FLASH_DIRECTORIES_H
#define RUMA_HOST_FLASH_DIRECTORIES_H

#include <cstddef>
#include <string>

namespace ruma {

// What a search for directories that others than their owner can write has found.
struct DirectorySearch {
    std::string writable;    // the first such directory, which ends the search; empty when none was
    std::size_t entries = 0; // that were looked at
    bool whole = true;       // nothing was left out but what this process may not read
};

// Searches `top`, which may be a link, and what lies below it without following links. Looks at
// `max_entries` entries at most. A directory that does not exist has nothing in it. Throws
// std::bad_alloc.
DirectorySearch search_writable(const std::string &top, std::size_t max_entries);

// Searches the directory of each configured file system, ten thousand entries at most, and warns in
// the agent's log of what was found and of what was not searched.
void warn_of_writable_directories();

// Looks whether this process's user can search, read and write the directory of each configured
// file system, and warns in the agent's log of those that it cannot: copies to them and deletes
// fail. To be called when the agent has the user that it keeps.
void warn_of_closed_directories();

} // namespace ruma

#endif
