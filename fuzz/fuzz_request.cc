// Request cutting on arbitrary bytes: each cutter gives pieces of the request that hold no marker, or throws
// the range exception; a file URL gives an absolute path or none. No file is touched.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string_view>

#include "file_url.h"
#include "request.h"

using namespace tz::protocol;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view r(reinterpret_cast<const char*>(data), size);
    auto check = [](bool condition) { if (!condition) __builtin_trap(); };
    auto piece = [&](std::optional<std::string_view> f, std::string_view marker) {
        check(!f || (f->data() >= r.data() && f->data() + f->size() <= r.data() + r.size() &&
                     f->find(marker) == f->npos));
    };
    auto guarded = [](auto cut) { try { cut(); } catch (const std::out_of_range&) {} };  // a request without a reply
    guarded([&] { const Swap s = cut_swap(r); piece(s.current, kSwapCurrent), piece(s.previous, kSwapPrevious); });
    guarded([&] { const Write w = cut_write(r);
                  check(w.url.size() + kAddUrl.size() + w.text.size() == r.size() && w.url.find(kAddUrl) == r.npos); });
    guarded([&] { const WalkNames n = cut_walk_names(r); piece(n.model, kModelName), piece(n.user, kUserName); });
    guarded([&] { for (const std::string_view argument : cut_walk_arguments(r)) piece(argument, kArg); });
    if (const auto path = tz::file_url_path(r)) check(!path->empty() && (*path)[0] == '/');
    return 0;
}
