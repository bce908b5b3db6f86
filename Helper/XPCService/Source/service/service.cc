#include "service.h"

#include <optional>
#include <string>
#include <utility>

#include "file_ops.h"
#include "replies.h"
#include "request.h"
#include "utf8.h"
#include "tz_writes.h"
#include "writes.h"

namespace tz {
namespace {

std::string answer(bool yes) { return std::string(yes ? protocol::kReplyTrue : protocol::kReplyFalse); }

// A field handed on as a path: its UTF-8 form, or no path when it has none.
std::optional<std::string> as_path(std::optional<std::string_view> field) {
    if (!field || !is_valid_utf8(*field)) return std::nullopt;
    return std::string(*field);
}

const char* c_str(const std::optional<std::string>& path) {
    return path ? path->c_str() : nullptr;
}

}  // namespace

Service::Service(std::string preferences_dir, Folder folder)
    : preferences_dir_(std::move(preferences_dir)), folder_(folder) {}

void Service::tzPListIsAdminProfile_XPC(std::string_view request, const Reply& reply) const {
    const auto path = as_path(request);
    reply(answer(path && probe_writable(path->c_str(), Opening::named)));
}

void Service::tzPListSwapProfile_XPC(std::string_view request, const Reply& reply) const {
    const protocol::Swap swap = protocol::cut_swap(request);
    const auto current = as_path(swap.current);
    const auto previous = as_path(swap.previous);
    swap_profiles(swap.type, c_str(current), c_str(previous), Opening::named);
    reply(answer(true));
}

void Service::tzPListExistProfile_XPC(std::string_view request, const Reply& reply) const {
    reply(answer(opens_for_reading(c_str(as_path(request)), Opening::named)));
}

void Service::tzPListRemove_XPC(std::string_view request, const Reply& reply) const {
    reply(answer(remove_path(c_str(as_path(request)))));
}

// The text must have a UTF-8 form to be written; a text without one is
// answered "FALSE" with no file touched.
void Service::writeDictionaryToPlistFile_XPC(std::string_view request, const Reply& reply) const {
    const protocol::Write write = protocol::cut_write(request);
    reply(answer(is_valid_utf8(write.text) && write_url_file(write.url, write.text)));
}

void Service::writeDataToPlistFile_XPC(std::string_view request, const Reply& reply) const {
    const protocol::Write write = protocol::cut_write(request);
    reply(answer(append_url_piece(write.url, write.text)));
}

void Service::writeDataToPlistFileRename_XPC(std::string_view request, const Reply& reply) const {
    reply(answer(finish_url_pieces(request)));
}

}  // namespace tz

// On Apple the XPC front defines this name with CoreFoundation types instead.
#if !defined(__APPLE__)
extern "C" int writeDictionaryToPlistFile_XPC(const char* file_url, const void* bytes,
                                              size_t length) {
    if (file_url == nullptr || (bytes == nullptr && length != 0)) return 0;
    const std::string_view data(static_cast<const char*>(bytes), length);
    return tz::write_url_file(file_url, data) ? 1 : 0;
}
#endif
