// The ordered index container, on the standard library's ordered set.
#include "ruma/ordset.h"

#include "base/presence.h"
#include "config/config.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/library/snmp_logging.h>

#include <chrono>
#include <cinttypes>
#include <dlfcn.h>
#include <iterator>
#include <map>
#include <new>
#include <set>
#include <string_view>

namespace {

struct Less {
    using is_transparent = void;
    ordset_compare compare;

    bool operator()(const void *a, const void *b) const { return compare(a, b) < 0; }
};

using Tree = std::set<void *, Less>;

Tree *tree_of(const ordset *set) {
    return set == nullptr ? nullptr : static_cast<Tree *>(set->tree);
}

// The module's tables, by the name of the procedure that orders them.
struct Table {
    std::string_view order;
    const char *name;
};

constexpr Table tables[] = {
    {"flashCopyEntry_comp_func", "the copy table"},
    {"flashMiscOpEntry_comp_func", "the misc-operation table"},
};

const char *name_of(ordset_compare order) {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void *>(order), &info) != 0 && info.dli_sname != nullptr) {
        for (const Table &table : tables) {
            if (table.order == info.dli_sname)
                return table.name;
        }
    }
    return "a table";
}

// Whoever fills a table goes on when it is full: one line a minute tells enough.
void log_limit(ordset_compare order, uint32_t limit) {
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::minutes interval(1);
    static std::map<ordset_compare, Clock::time_point> quiet_until; // of few tables
    const Clock::time_point now = Clock::now();
    Clock::time_point &quiet = quiet_until[order];
    if (now < quiet)
        return;
    quiet = now + interval;
    snmp_log(LOG_WARNING, "ruma: %s is full: max_rows is %" PRIu32 "\n", name_of(order), limit);
}

} // namespace

extern "C" {

int ordset_create(ordset *set, int, int, ordset_compare compare, int) {
    ruma::miss_agent_module();
    if (set == nullptr)
        return -1;
    delete tree_of(set);
    set->tree = nullptr;
    if (compare == nullptr)
        return -1;
    try {
        set->tree = new Tree(Less{compare});
    } catch (const std::bad_alloc &) {
        return -1;
    }
    return 0;
}

void *ordset_add(ordset *set, const void *key, void *object) {
    Tree *tree = tree_of(set);
    if (tree == nullptr || key == nullptr || object == nullptr)
        return nullptr;
    const auto present = tree->find(key);
    if (present != tree->end())
        return *present;
    try {
        const uint32_t limit = ruma::config().max_rows;
        if (tree->size() >= limit) {
            log_limit(tree->key_comp().compare, limit);
            return nullptr;
        }
        return *tree->insert(object).first;
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

void *ordset_find(const ordset *set, const void *key, int) {
    Tree *tree = tree_of(set);
    if (tree == nullptr || key == nullptr)
        return nullptr;
    const auto found = tree->find(key);
    return found == tree->end() ? nullptr : *found;
}

void *ordset_find_nextgreater(const ordset *set, const void *key) {
    Tree *tree = tree_of(set);
    if (tree == nullptr || key == nullptr)
        return nullptr;
    const auto found = tree->upper_bound(key);
    return found == tree->end() ? nullptr : *found;
}

void *ordset_find_nth_obj(const ordset *set, uint32_t n) {
    const Tree *tree = tree_of(set);
    if (tree == nullptr || n == 0 || n > tree->size())
        return nullptr;
    return *std::next(tree->begin(), static_cast<Tree::difference_type>(n - 1));
}

void *ordset_remove(ordset *set, const void *key) {
    Tree *tree = tree_of(set);
    if (tree == nullptr || key == nullptr)
        return nullptr;
    const auto found = tree->find(key);
    if (found == tree->end())
        return nullptr;
    void *object = *found;
    tree->erase(found);
    return object;
}

uint32_t ordset_size(const ordset *set) {
    const Tree *tree = tree_of(set);
    return tree == nullptr ? 0 : static_cast<uint32_t>(tree->size());
}

} // extern "C"
