// Request cutting on arbitrary bytes, for each of the eight request formats:
// the first byte picks the operation, the rest is the request. Cutting must
// either give fields that are pieces of the request in order, or throw the
// range exception; nothing else. No file is touched.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string_view>

#include "file_url.h"
#include "request.h"
#include "utf8.h"

namespace {

using namespace tz::protocol;

void check(bool condition) {
    if (!condition) __builtin_trap();
}

// `field` must be a view inside `request`.
void check_inside(std::string_view request, std::string_view field) {
    check(field.data() >= request.data() &&
          field.data() + field.size() <= request.data() + request.size());
}

void cut_plain(std::string_view request) {
    (void)tz::is_valid_utf8(request);
}

void cut_swap_request(std::string_view request) {
    const Swap swap = cut_swap(request);
    if (swap.current) {
        check_inside(request, *swap.current);
        check(swap.current->find(kSwapCurrent) == std::string_view::npos);
    }
    if (swap.previous) check_inside(request, *swap.previous);
}

void cut_write_request(std::string_view request) {
    const Write write = cut_write(request);
    check(write.url.size() + kAddUrl.size() + write.text.size() == request.size());
    check(write.url.find(kAddUrl) == std::string_view::npos);
    (void)tz::file_url_path(write.url);
}

void cut_rename_request(std::string_view request) {
    if (const auto path = tz::file_url_path(request)) check(!path->empty() && (*path)[0] == '/');
}

void cut_walk_request(std::string_view request) {
    const WalkNames names = cut_walk_names(request);
    if (names.model) check_inside(request, *names.model);
    if (names.user) check_inside(request, *names.user);
    std::size_t total = 0;
    for (const std::string_view argument : cut_walk_arguments(request)) {
        check_inside(request, argument);
        check(argument.find(kArg) == std::string_view::npos);
        total += argument.size() + kArg.size();
    }
    check(total <= request.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string_view request(reinterpret_cast<const char*>(data) + 1, size - 1);
    try {
        switch (data[0] % 8) {
            case 0:  // is-admin
            case 2:  // exist
            case 3:  // remove
                cut_plain(request);
                break;
            case 1:
                cut_swap_request(request);
                break;
            case 4:  // one-shot write
            case 5:  // piecewise write
                cut_write_request(request);
                break;
            case 6:
                cut_rename_request(request);
                break;
            case 7:
                cut_walk_request(request);
                break;
        }
    } catch (const std::out_of_range&) {
        // a request that ends without a reply
    }
    return 0;
}
