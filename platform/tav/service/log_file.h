// SQLite's log, written with fewer system calls.
#pragma once

namespace tav {

// The name of a VFS that writes each frame of a write-ahead log, its header and its page, with one
// call instead of SQLite's two. In everything else it is the system's default VFS. Null, which
// means that default, if it cannot be registered.
const char *vfs_with_whole_frames();

} // namespace tav
