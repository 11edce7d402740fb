// Directories that the service makes for its files.
#ifndef TAV_SERVICE_DIRECTORY_H
#define TAV_SERVICE_DIRECTORY_H

#include <sys/types.h>

#include <optional>
#include <string>

namespace tav {

// The directory that `file` stands in: "." for a name without "/".
std::string directory_of(const std::string &file);

// Makes what is missing of the directory that `file` stands in. The innermost one, if it is made
// here, is open to its owner and its group only (0750), and the group is `group` if given; one that
// exists is left as it is. The directories survive a power cut. Throws std::runtime_error naming
// the directory and the reason.
void make_directory_of(const std::string &file, std::optional<gid_t> group = {});

// Makes what was created, renamed or removed in `directory` survive a power cut. Throws
// std::runtime_error.
void sync_directory(const std::string &directory);

} // namespace tav

#endif
