// A user's operation as changes of the store, for both the model and the real store.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "operations.h"

namespace model {

struct StoreChange {
    std::vector<std::pair<std::string, std::string>> pairs; // written first, as one transaction
    std::string removed;                                    // then this node; empty: none
};

// `read` returns the present text of a leaf. Paths are relative to the node that holds the
// interfaces. Not for Kind::touch.
StoreChange change_of(const Operation &operation,
                      const std::function<std::optional<std::string>(const std::string &)> &read);

} // namespace model
