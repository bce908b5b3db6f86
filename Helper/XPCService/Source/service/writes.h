// The plist and data file writes: a one-shot write of a whole text, and the
// piecewise write that collects text in "<target>.dummy" and renames it onto
// the target at the end. No text is looked inside: it is written unchanged.
// Every function answers true or false; nothing prints, logs or throws.
#pragma once

#include <string_view>

namespace tz {

// Writes `bytes` to the file of `file_url`, creating it (mode 0666 less the
// umask) or replacing its content; a link is followed and a device written in
// place. False when the URL gives no file path, a FIFO or a socket is there
// (refused at once, untouched) or a call fails (no folder, no rights, disk
// full); nothing is touched when the URL gives no path.
bool write_url_file(std::string_view file_url, std::string_view bytes);

// Appends `piece` to the temporary file of `file_url` (the URL string with
// ".dummy" appended): the file's content, if it is valid UTF-8, followed by the
// piece; otherwise, or when there is no such file, the piece alone. The file is
// replaced atomically (a scratch file in the same folder renamed onto it), so a
// reader never sees half a file. The temporary file is the service's own: a
// link, a FIFO, a socket, a device, a folder or another user's file there is
// refused and left alone, and so is a file larger than the plist size limit
// (plist::kMaxFileBytes, refused unread) or one the piece would take past it.
// False when refused, when the URL gives no path, the piece is not valid UTF-8,
// or the write fails; a failed write leaves the previous temporary file as it
// was and no scratch file behind.
bool append_url_piece(std::string_view file_url, std::string_view piece);

// Unlinks the target of `file_url` and renames "<path>.dummy" onto it; the
// results of both calls are ignored. False only when the URL gives no path.
bool finish_url_pieces(std::string_view file_url);

}  // namespace tz
