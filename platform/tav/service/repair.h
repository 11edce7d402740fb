// Keeps what can be read of a damaged database.
#pragma once

#include <string>

namespace tav {

// Repairs `file`, and returns what was kept and what was dropped, as lines for the user. Before
// something is dropped, the damaged file is kept under another name. Throws DatabaseError when
// nothing can be kept or the file must not be repaired: it is in use, it belongs to another program
// or to a newer version.
std::string repair_database(const std::string &file);

} // namespace tav
