// What the four parts of the plist codec share and nothing else sees: the
// readers' common finishing step, the two readers behind parse(), and the
// XML writer behind to_xml() and write_file().
#pragma once

#include <string>
#include <vector>

#include "plist_codec.h"

namespace tz::plist::detail {

// Sorts freshly parsed entries by key and keeps the last of equal keys.
void finish_entries(std::vector<Entry>& entries);

// An XML property list, parsed in place: `bytes` becomes the tree's storage.
// Null when refused.
DictRef parse_xml(std::string bytes);

// A binary property list ("bplist00"), through libplist after its object
// graph is checked. Null when refused.
DictRef parse_binary(const std::string& bytes);

// Appends the XML property list of `root` to `out`.
void append_xml(std::string& out, const TZDictionary& root);

}  // namespace tz::plist::detail
