#include "tftp/options.h"

#include <charconv>
#include <limits>
#include <string>
#include <strings.h>

namespace ruma::tftp {
namespace {

constexpr uint64_t min_block_size = 8;
constexpr uint64_t max_size = std::numeric_limits<int64_t>::max();

// A decimal number of digits alone.
std::optional<uint64_t> number(const std::string &text) {
    uint64_t value = 0;
    const char *end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || rest != end)
        return std::nullopt;
    return value;
}

bool take_block_size(const Offer &offer, uint64_t value, Agreement *agreement) {
    if (value < min_block_size || value > offer.block_size)
        return false;
    agreement->block_size = static_cast<std::size_t>(value);
    return true;
}

bool take_timeout(const Offer &offer, uint64_t value, Agreement *agreement) {
    if (value != offer.timeout)
        return false;
    agreement->timeout = offer.timeout;
    return true;
}

// A server should echo the size of a file that it is sent, but whatever it says changes nothing.
bool take_size(const Offer &, uint64_t value, Agreement *agreement) {
    if (value > max_size)
        return false;
    agreement->size = value;
    return true;
}

struct Known {
    const char *name;
    uint64_t (*offered)(const Offer &offer);
    bool (*take)(const Offer &offer, uint64_t value, Agreement *agreement);
};

constexpr Known known_options[] = {
    {"blksize", [](const Offer &offer) -> uint64_t { return offer.block_size; }, take_block_size},
    {"timeout", [](const Offer &offer) -> uint64_t { return offer.timeout; }, take_timeout},
    {"tsize", [](const Offer &offer) { return offer.size; }, take_size},
};

} // namespace

std::vector<Option> options_of(const Offer &offer) {
    std::vector<Option> options;
    for (const Known &known : known_options)
        options.push_back({known.name, std::to_string(known.offered(offer))});
    return options;
}

std::optional<Agreement> agree(const Offer &offer, std::string_view answer) {
    const std::optional<std::vector<Option>> options = parse_options(answer);
    if (!options)
        return std::nullopt;
    Agreement agreement;
    std::size_t matched = 0;
    for (const Known &known : known_options) {
        bool seen = false;
        for (const Option &option : *options) {
            if (strcasecmp(option.name.c_str(), known.name) != 0)
                continue;
            const std::optional<uint64_t> value = number(option.value);
            if (seen || !value || !known.take(offer, *value, &agreement))
                return std::nullopt;
            seen = true;
            ++matched;
        }
    }
    if (matched != options->size())
        return std::nullopt;
    return agreement;
}

} // namespace ruma::tftp
