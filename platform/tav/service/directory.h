// Directories that the service creates for its files.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace tav {

// The directory of `file`: "." for a name without "/".
std::string directory_of(const std::string &file);

// Creates the directory of `file` and its missing parents. If the innermost one is created here,
// only its owner and its group have access (0750), and the group is `group` if given; an existing
// one is not changed. The directories survive a power cut. Throws std::runtime_error with the
// directory and the reason.
void make_directory_of(const std::string &file, std::optional<gid_t> group = {});

// Throws std::runtime_error, with what to do, unless only this process's user and root can create
// or replace files in `directory`. Not even a sticky one prevents others from creating a missing
// file.
void require_private(const std::string &directory);

// Makes what was created, renamed or removed in `directory` survive a power cut. Throws
// std::runtime_error.
void sync_directory(const std::string &directory);

} // namespace tav
